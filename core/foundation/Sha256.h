#pragma once

#include "Error.h"

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace quorlin {

// An incremental SHA-256 digest. Feed bytes with update(), then read the digest once
// with hexDigest(): 64 lowercase hexadecimal digits, two per byte.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(Sha256&&) noexcept;
    Sha256& operator=(Sha256&&) noexcept;
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(std::string_view bytes);

    // Ends the digest; later calls to update() or hexDigest() throw.
    std::string hexDigest();

    static std::string hexOf(std::string_view bytes);

    // Reads the file in chunks, so a large file never has to fit in memory. A file that
    // can't be read throws FileError.
    static std::string hexOfFile(const std::filesystem::path& file);

private:
    struct Context;
    std::unique_ptr<Context> context_;
};

} // namespace quorlin

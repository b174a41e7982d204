#pragma once

#include <filesystem>
#include <string_view>

namespace quorlin::testing {

// A fresh directory under the system's temp dir, removed with everything in it when the
// object goes away.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Writes text to a file below the directory, creating parents; returns its path.
    std::filesystem::path write(std::string_view relativePath, std::string_view text) const;

private:
    std::filesystem::path path_;
};

// Writes text to a file, creating its parent folders.
void writeTextFile(const std::filesystem::path& file, std::string_view text);

} // namespace quorlin::testing

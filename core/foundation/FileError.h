#pragma once

#include "core/foundation/Error.h"

#include <filesystem>
#include <string>

namespace quorlin {

class FileError : public Error {
public:
    enum class Kind { readFailed, writeFailed, createDirectoryFailed };

    // reason: the system's words for what went wrong.
    FileError(Kind kind, const std::filesystem::path& path, const std::string& reason);

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

// A std::filesystem error in our words: "Could not use <path>: <the system's reason>".
std::string describeFilesystemError(const std::filesystem::filesystem_error& error);

} // namespace quorlin

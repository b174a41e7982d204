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

} // namespace quorlin

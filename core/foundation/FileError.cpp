#include "FileError.h"

namespace quorlin {

namespace {

std::string kindText(FileError::Kind kind) {
    switch (kind) {
    case FileError::Kind::readFailed:
        return "Could not read ";
    case FileError::Kind::writeFailed:
        return "Could not write ";
    case FileError::Kind::createDirectoryFailed:
        return "Could not create the folder ";
    }
    return {};
}

} // namespace

FileError::FileError(Kind kind, const std::filesystem::path& path, const std::string& reason)
    : Error(kindText(kind) + path.string() + ": " + reason), kind_(kind) {}

std::string describeFilesystemError(const std::filesystem::filesystem_error& error) {
    const auto& path = error.path1().empty() ? error.path2() : error.path1();
    return "Could not use " + (path.empty() ? std::string("a file") : path.string()) + ": " +
           error.code().message();
}

} // namespace quorlin

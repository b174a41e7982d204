#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quorlin::testing {

// One member of a tar archive a test builds, written exactly as given, unsafe names and
// links included, so tests can hand the unpacker what a hostile publisher could.
struct TarEntry {
    enum class Type { file, directory, symlink, hardlink };
    std::string name;
    Type type = Type::file;
    std::string data; // a file's content, or a link's target
    int mode = 0644;
};

// A gzip-compressed tar of the entries, in order, made by Python's tarfile. Throws
// std::runtime_error when it can't be written.
void writeTarGz(const std::filesystem::path& archive, const std::vector<TarEntry>& entries);

} // namespace quorlin::testing

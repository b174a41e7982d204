#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace quorlin {

// The entry names of a zip file exactly as its central directory records them, in
// order, read without unpacking anything. libarchive turns "\" into "/" in the names it
// reports; this reader keeps the bytes as written so that a caller can judge them.
// A file that isn't a well-formed zip throws ArchiveError readFailed; more than
// maxEntries entries throws tooManyEntries before any name is read.
std::vector<std::string> zipCentralDirectoryNames(const std::filesystem::path& archive,
                                                  std::size_t maxEntries);

} // namespace quorlin

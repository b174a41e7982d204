#pragma once

#include "core/foundation/FileError.h"

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace quorlin {

// What readFile takes at most unless told otherwise: far above any document a person
// writes, far below what would hurt to hold.
inline constexpr std::size_t defaultReadLimit = std::size_t{16} << 20U;

// Reads a whole regular file as bytes. Anything else (a folder, a device such as
// /dev/zero, a pipe) and a file over maxBytes throw FileError saying so, before much is
// read.
std::string readFile(const std::filesystem::path& path, std::size_t maxBytes = defaultReadLimit);

// Permissions of a file only its owner may read and write: for files that hold secrets.
inline constexpr unsigned privateFileMode = 0600;

// Replaces the file's content in one step: a sibling temp file is written and synced,
// then renamed over the target, so a reader sees the old content or the new, never half.
// The new file has the given mode (within the umask for other modes than privateFileMode,
// which is set exactly, from the start). The parent directory must exist.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes,
                         unsigned mode = 0644);

// Creates a directory and its parents; an existing one is fine.
void createDirectories(const std::filesystem::path& path);

} // namespace quorlin

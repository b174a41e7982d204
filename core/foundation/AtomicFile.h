#pragma once

#include "core/foundation/FileError.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace quorlin {

// Reads a whole file as bytes.
std::string readFile(const std::filesystem::path& path);

// Replaces the file's content in one step: a sibling temp file is written and synced,
// then renamed over the target, so a reader sees the old content or the new, never half.
// The parent directory must exist.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

// Creates a directory and its parents; an existing one is fine.
void createDirectories(const std::filesystem::path& path);

} // namespace quorlin

#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// The file in a workflow's dependency folder that records what was installed there.
inline constexpr std::string_view dependencyMarkerFileName = ".quorlin-dependencies-installed";

// One file an install is made from, as it was read.
struct DependencySource {
    std::filesystem::path path;
    std::string bytes;
};

// Reads a manifest or lockfile whole. A file that is gone throws
// ScriptDependencyInstallerError(resourceMissing); one that can't be read, FileError.
DependencySource readDependencySource(const std::filesystem::path& path);

// What the marker holds for the files an install was made from, manifest first, then the
// lockfile when there is one. Each file gives
//   "source: <path>\nbytes: <byte count>\ncontent:\n<bytes in base64>"
// and the files are joined by "\n". A manifest alone gives exactly its one block.
std::string dependencyMarkerText(const std::vector<DependencySource>& sources);

// Whether the folder's marker records exactly these files, read now: any change of a
// path, a size or a byte, or a lockfile that appeared or went away, means not current.
// Nothing to install (no sources) is always current; a missing marker never is.
bool dependenciesCurrent(const std::filesystem::path& folder,
                         const std::vector<std::filesystem::path>& sources);

// Writes the marker atomically, as the last act of a successful install.
void writeDependencyMarker(const std::filesystem::path& folder,
                           const std::vector<DependencySource>& sources);

} // namespace quorlin

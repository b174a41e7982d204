#include "DependencyMarker.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/Base64.h"
#include "core/runtimes/ScriptDependencyInstallerError.h"

#include <algorithm>
#include <cstdint>
#include <system_error>

namespace quorlin {

DependencySource readDependencySource(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        throw ScriptDependencyInstallerError::resourceMissing(path.string());
    }
    return {path, readFile(path)};
}

std::string dependencyMarkerText(const std::vector<DependencySource>& sources) {
    std::string text;
    for (const auto& source : sources) {
        if (!text.empty()) {
            text += '\n';
        }
        text += "source: " + source.path.string() +
                "\nbytes: " + std::to_string(source.bytes.size()) + "\ncontent:\n" +
                base64Encoded(source.bytes);
    }
    return text;
}

bool dependenciesCurrent(const std::filesystem::path& folder,
                         const std::vector<std::filesystem::path>& sources) {
    if (sources.empty()) {
        return true;
    }
    const auto marker = folder / dependencyMarkerFileName;
    std::error_code error;
    if (!std::filesystem::is_regular_file(marker, error)) {
        return false;
    }
    std::vector<DependencySource> read;
    for (const auto& path : sources) {
        read.push_back(readDependencySource(path));
    }
    const auto expected = dependencyMarkerText(read);
    // A marker of another size can't match; this also bounds what is read.
    if (std::filesystem::file_size(marker, error) != expected.size() || error) {
        return false;
    }
    return readFile(marker, expected.size()) == expected;
}

void writeDependencyMarker(const std::filesystem::path& folder,
                           const std::vector<DependencySource>& sources) {
    writeFileAtomically(folder / dependencyMarkerFileName, dependencyMarkerText(sources));
}

} // namespace quorlin

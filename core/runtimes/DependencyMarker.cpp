#include "DependencyMarker.h"

#include "core/foundation/AtomicFile.h"
#include "core/runtimes/ScriptDependencyInstallerError.h"

#include <algorithm>
#include <cstdint>
#include <system_error>

namespace quorlin {

namespace {

// Standard base64 with padding and no line breaks.
std::string base64Encoded(std::string_view bytes) {
    static constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t index = 0; index < bytes.size(); index += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - index);
        std::uint32_t group = 0;
        for (std::size_t offset = 0; offset < 3; ++offset) {
            group <<= 8U;
            if (offset < count) {
                group |= static_cast<unsigned char>(bytes[index + offset]);
            }
        }
        for (std::size_t digit = 0; digit < 4; ++digit) {
            const auto sextet = (group >> (18U - 6U * digit)) & 0x3FU;
            text += digit <= count ? alphabet[sextet] : '=';
        }
    }
    return text;
}

} // namespace

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

#include "PluginChecksumListing.h"

#include "core/definitions/PackagePath.h"
#include "core/definitions/WorkflowInstallerError.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <optional>

namespace quorlin {

namespace {

constexpr std::size_t hashLength = 64;

[[noreturn]] void invalidContents(std::string text) {
    throw WorkflowInstallerError(WorkflowInstallerError::Kind::invalidPackageContents,
                                 std::move(text));
}

std::vector<std::string_view> nonEmptyLines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const auto end = std::min(text.find_first_of("\r\n"), text.size());
        if (end > 0) {
            lines.push_back(text.substr(0, end));
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

// Where the first run of white space starts and where the text after it begins.
std::pair<std::size_t, std::size_t> firstWhitespaceRun(std::string_view text) {
    std::size_t offset = 0;
    std::optional<std::size_t> start;
    while (offset < text.size()) {
        const std::size_t here = offset;
        const bool blank = isWhitespaceOrNewline(decodeCodePoint(text, offset));
        if (blank && !start) {
            start = here;
        } else if (!blank && start) {
            return {*start, here};
        }
    }
    return {start.value_or(text.size()), text.size()};
}

bool isHexHash(std::string_view hash) {
    return hash.size() == hashLength && std::all_of(hash.begin(), hash.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

} // namespace

PluginChecksumListing PluginChecksumListing::parse(std::string_view text) {
    if (!isValidUtf8(text)) {
        invalidContents("Checksum file isn't UTF-8 text");
    }
    PluginChecksumListing listing;
    for (const auto rawLine : nonEmptyLines(text)) {
        const std::string line = trimmed(rawLine);
        if (line.empty()) {
            continue;
        }
        const auto [hashEnd, pathStart] = firstWhitespaceRun(line);
        if (pathStart >= line.size()) {
            invalidContents("Malformed checksum entry");
        }
        std::string hash = lowercased(std::string_view(line).substr(0, hashEnd));
        if (!isHexHash(hash)) {
            invalidContents("Malformed checksum hash");
        }
        const std::string written = line.substr(pathStart);
        const auto path = validRelativePackagePath(written);
        if (!path) {
            throw WorkflowInstallerError(WorkflowInstallerError::Kind::pathTraversal, written);
        }
        if (!listing.hashes_.emplace(*path, std::move(hash)).second) {
            invalidContents("Checksum file listed twice: " + *path);
        }
    }
    return listing;
}

void PluginChecksumListing::add(std::string path, std::string hash) {
    hashes_.insert_or_assign(std::move(path), std::move(hash));
}

std::string PluginChecksumListing::text() const {
    std::string text;
    for (const auto& [path, hash] : hashes_) {
        text.append(hash).append("  ").append(path).push_back('\n');
    }
    return text;
}

std::vector<std::string> PluginChecksumListing::regularFilePaths(const std::filesystem::path& root,
                                                                 std::string_view listingPath) {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.symlink_status().type() == std::filesystem::file_type::regular) {
            auto path = entry.path().lexically_relative(root).generic_string();
            if (path != listingPath) {
                paths.push_back(std::move(path));
            }
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

} // namespace quorlin

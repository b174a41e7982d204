#include "WorkflowInstaller.h"

#include "core/definitions/PackagePath.h"
#include "core/definitions/PluginChecksumListing.h"
#include "core/definitions/WorkflowActivationRecord.h"
#include "core/definitions/WorkflowVersionPlacement.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/LocalTime.h"
#include "core/foundation/ScratchDirectory.h"
#include "core/foundation/Sha256.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <system_error>
#include <utility>

namespace quorlin {

namespace {

using Kind = WorkflowInstallerError::Kind;

constexpr std::string_view macMetadataFolder = "__MACOSX";

[[noreturn]] void invalidContents(std::string text) {
    throw WorkflowInstallerError(Kind::invalidPackageContents, std::move(text));
}

// An id or version names a folder of its own under bundles/, so it must be one plain
// path component, and a version must not collide with the activation record.
bool isPlainFolderName(std::string_view name) {
    const auto valid = validRelativePackagePath(name);
    return valid && valid->find('/') == std::string::npos && *valid != "active.json";
}

// Why an id or version can't name a plugin, if it can't: it becomes a folder name and is
// shown to people, so it is printable, has no white space at either end, and is short.
std::optional<std::string> nameProblem(std::string_view value) {
    constexpr std::size_t longest = 128;
    for (std::size_t offset = 0; offset < value.size();) {
        const char32_t character = decodeCodePoint(value, offset);
        if (character < 0x20 || (character >= 0x7F && character < 0xA0)) {
            char code[16];
            std::snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(character));
            return std::string("contains a control character (") + code + ")";
        }
    }
    if (trimmed(value) != value) {
        return "begins or ends with white space";
    }
    if (value.size() > longest) {
        return "is longer than " + std::to_string(longest) + " bytes";
    }
    return std::nullopt;
}

bool isMacMetadata(std::string_view name) {
    return name == macMetadataFolder || startsWith(name, std::string(macMetadataFolder) + "/");
}

// The archive's limits and failures in the installer's words.
[[noreturn]] void packageArchiveFailed(const ArchiveError& error, const char* otherwise) {
    switch (error.kind()) {
    case ArchiveError::Kind::tooManyEntries:
        invalidContents("The package holds more than " + error.detail() + " files and folders");
    case ArchiveError::Kind::tooLarge:
        invalidContents("The package unpacks to more than " +
                        byteSizeText(std::stoull(error.detail())));
    default:
        invalidContents(otherwise);
    }
}

// No byte is unpacked until every name in the archive has passed the path rule.
void validateArchiveContents(const std::filesystem::path& package, const ArchiveLimits& limits) {
    std::vector<ArchiveEntryInfo> entries;
    try {
        entries = listZipEntries(package, limits);
    } catch (const ArchiveError& error) {
        packageArchiveFailed(error, "Couldn't read plugin package file list");
    }
    for (const auto& entry : entries) {
        if (!validRelativePackagePath(entry.name, true)) {
            throw WorkflowInstallerError(Kind::pathTraversal, entry.name);
        }
    }
}

void unzipPackage(const std::filesystem::path& package, const std::filesystem::path& destination,
                  const ArchiveLimits& limits) {
    try {
        extractZip(package, destination, limits, isMacMetadata);
    } catch (const ArchiveError& error) {
        packageArchiveFailed(error, "Couldn't unzip the plugin package");
    }
}

// The single top-level directory when the archive holds just one, else the scratch
// directory itself.
std::filesystem::path resolveExpandedPackageRoot(const std::filesystem::path& directory) {
    std::vector<std::filesystem::directory_entry> entries;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().filename() != macMetadataFolder) {
            entries.push_back(entry);
        }
    }
    if (entries.size() == 1 &&
        entries.front().symlink_status().type() == std::filesystem::file_type::directory) {
        return entries.front().path();
    }
    return directory;
}

void validateExpandedContents(const std::filesystem::path& root) {
    std::error_code error;
    std::filesystem::recursive_directory_iterator walk(root, error);
    for (const std::filesystem::recursive_directory_iterator end; !error && walk != end;
         walk.increment(error)) {
        const std::string relative = walk->path().lexically_relative(root).generic_string();
        if (!validRelativePackagePath(relative)) {
            throw WorkflowInstallerError(Kind::pathTraversal, relative);
        }
        if (walk->is_symlink()) {
            throw WorkflowInstallerError(Kind::symlinkNotAllowed, relative);
        }
    }
    if (error) {
        invalidContents("Couldn't read workflow plugin contents");
    }
}

WorkflowPluginManifest loadManifest(const std::filesystem::path& root) {
    const auto file = root / "manifest.yaml";
    std::error_code ignored;
    if (!std::filesystem::exists(std::filesystem::symlink_status(file, ignored))) {
        throw WorkflowInstallerError(Kind::missingManifest);
    }
    try {
        return decodeWorkflowPluginManifestYaml(readFile(file));
    } catch (const Error& error) {
        throw WorkflowInstallerError(Kind::invalidManifest, error.what());
    }
}

std::string safePath(std::string_view path) {
    auto valid = validRelativePackagePath(path);
    if (!valid) {
        throw WorkflowInstallerError(Kind::pathTraversal, std::string(path));
    }
    return std::move(*valid);
}

void validateChecksums(const WorkflowPluginManifest& manifest, const std::filesystem::path& root) {
    const auto& checksums = manifest.plugin.checksums;
    const auto listingPath = checksums ? safePath(checksums->file) : std::string();
    std::error_code ignored;
    if (!checksums || !std::filesystem::exists(root / listingPath, ignored)) {
        invalidContents("Missing checksum file");
    }
    const auto listing = PluginChecksumListing::parse(readFile(root / listingPath));
    const auto files = PluginChecksumListing::regularFilePaths(root, listingPath);
    for (const auto& file : files) {
        if (!listing.hashes().contains(file)) {
            invalidContents("Checksum is missing entry for: " + file);
        }
    }
    for (const auto& [path, hash] : listing.hashes()) {
        if (!std::binary_search(files.begin(), files.end(), path)) {
            invalidContents("Checksum references a missing file: " + path);
        }
    }
    for (const auto& [path, hash] : listing.hashes()) {
        if (Sha256::hexOfFile(root / path) != hash) {
            throw WorkflowInstallerError(Kind::checksumMismatch, path);
        }
    }
}

} // namespace

WorkflowInstaller::WorkflowInstaller(AppSupportPaths paths, ArchiveLimits limits)
    : paths_(std::move(paths)), limits_(limits) {}

WorkflowDocument WorkflowInstaller::validateManifest(const WorkflowPluginManifest& manifest,
                                                     const std::filesystem::path& packageRoot) {
    const auto& plugin = manifest.plugin;
    if (trimmed(plugin.id).empty()) {
        throw WorkflowInstallerError(Kind::invalidManifest, "plugin.id cannot be empty");
    }
    if (trimmed(plugin.version).empty()) {
        throw WorkflowInstallerError(Kind::invalidManifest, "plugin.version cannot be empty");
    }
    for (const auto& [field, value] :
         {std::pair{"plugin.id", &plugin.id}, std::pair{"plugin.version", &plugin.version}}) {
        if (const auto problem = nameProblem(*value)) {
            throw WorkflowInstallerError(Kind::invalidManifest,
                                         std::string(field) + " " + *problem);
        }
    }
    if (!isPlainFolderName(plugin.id)) {
        throw WorkflowInstallerError(Kind::invalidManifest,
                                     "plugin.id can't be used as a folder name: " + plugin.id);
    }
    if (!isPlainFolderName(plugin.version)) {
        throw WorkflowInstallerError(Kind::invalidManifest,
                                     "plugin.version can't be used as a folder name: " +
                                         plugin.version);
    }
    const auto entrypoint = safePath(plugin.entrypoint);
    if (plugin.checksums) {
        safePath(plugin.checksums->file);
    }
    for (const auto& artifact : plugin.artifacts) {
        safePath(artifact.path);
    }
    std::error_code ignored;
    if (!std::filesystem::exists(packageRoot / entrypoint, ignored)) {
        throw WorkflowInstallerError(Kind::missingEntrypoint, plugin.entrypoint);
    }
    WorkflowDocument document;
    try {
        document = decodeWorkflowDocumentYaml(readFile(packageRoot / entrypoint));
    } catch (const Error& error) {
        throw WorkflowInstallerError(Kind::invalidManifest, error.what());
    }
    if (document.flow.id != plugin.id) {
        throw WorkflowInstallerError(Kind::invalidManifest, "plugin.id must match flow.id");
    }
    if (document.flow.version != plugin.version) {
        throw WorkflowInstallerError(Kind::invalidManifest,
                                     "plugin.version must match flow.version");
    }
    return document;
}

WorkflowInstallResult
WorkflowInstaller::installPackage(const std::filesystem::path& package) const {
    if (package.extension() != ".quorlinflow") {
        throw WorkflowInstallerError(Kind::invalidPackageExtension, package.filename().string());
    }
    const ScratchDirectory scratch("quorlin-workflow-install-");
    validateArchiveContents(package, limits_);
    unzipPackage(package, scratch.path(), limits_);
    const auto root = resolveExpandedPackageRoot(scratch.path());
    validateExpandedContents(root);
    auto manifest = loadManifest(root);
    validateManifest(manifest, root);
    validateChecksums(manifest, root);

    const auto& plugin = manifest.plugin;
    const auto flowDirectory = paths_.bundlesDirectory() / plugin.id;
    WorkflowVersionPlacement placement(flowDirectory, plugin.version);
    placement.place(root);
    const WorkflowActivationRecord record{plugin.id, plugin.version,
                                          formatIso8601(std::chrono::system_clock::now())};
    writeFileAtomically(flowDirectory / "active.json", toJson(record).dump(2) + "\n");
    placement.commit();
    return {plugin.id, plugin.version, flowDirectory / plugin.version, std::move(manifest)};
}

bool WorkflowInstaller::uninstallWorkflow(std::string_view flowID) const {
    if (!isPlainFolderName(flowID)) {
        throw WorkflowInstallerError(Kind::invalidFlowID, std::string(flowID));
    }
    return std::filesystem::remove_all(paths_.bundlesDirectory() / flowID) > 0;
}

} // namespace quorlin

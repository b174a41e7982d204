#include "WorkflowPackager.h"

#include "core/definitions/PackagePath.h"
#include "core/definitions/PluginChecksumListing.h"
#include "core/definitions/StepTypes.h"
#include "core/definitions/WorkflowInstaller.h"
#include "core/definitions/WorkflowInstallerError.h"
#include "core/foundation/Archive.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/ScratchDirectory.h"
#include "core/foundation/Sha256.h"

#include <algorithm>
#include <map>
#include <system_error>
#include <vector>

namespace quorlin {

namespace {

namespace fs = std::filesystem;
using InstallerKind = WorkflowInstallerError::Kind;

constexpr std::string_view manifestFileName = "manifest.yaml";
constexpr std::string_view workflowFileName = "flow.yaml";
constexpr std::string_view defaultListingName = "checksums.sha256";

std::string describe(WorkflowPackagerError::Kind kind, const std::string& payload) {
    using Kind = WorkflowPackagerError::Kind;
    switch (kind) {
    case Kind::notABundle:
        return "Not a workflow bundle (no flow.yaml or manifest.yaml): " + payload;
    case Kind::manifestWithoutChecksums:
        return "manifest.yaml must name its checksum file (checksums: file: " +
               std::string(defaultListingName) + ")";
    case Kind::unsupportedFile:
        return "Only regular files and folders can be packed: " + payload;
    }
    return payload;
}

struct BundleContents {
    std::vector<std::string> directories; // relative, "/"-separated
    std::vector<std::string> files;
};

// A name the package can carry: one the installer's path rule keeps exactly as it is, and
// that fits on one line of the checksum listing.
void checkName(const std::string& relative) {
    const auto valid = validRelativePackagePath(relative);
    if (!valid || *valid != relative || relative.find_first_of("\r\n") != std::string::npos) {
        throw WorkflowInstallerError(InstallerKind::pathTraversal, relative);
    }
}

BundleContents scanBundle(const fs::path& bundle) {
    BundleContents contents;
    for (const auto& entry : fs::recursive_directory_iterator(bundle)) {
        const auto relative = entry.path().lexically_relative(bundle).generic_string();
        checkName(relative);
        switch (entry.symlink_status().type()) {
        case fs::file_type::symlink:
            throw WorkflowInstallerError(InstallerKind::symlinkNotAllowed, relative);
        case fs::file_type::directory:
            contents.directories.push_back(relative);
            break;
        case fs::file_type::regular:
            contents.files.push_back(relative);
            break;
        default:
            throw WorkflowPackagerError(WorkflowPackagerError::Kind::unsupportedFile, relative);
        }
    }
    return contents;
}

WorkflowPluginManifest readManifest(const fs::path& file) {
    try {
        return decodeWorkflowPluginManifestYaml(readFile(file));
    } catch (const Error& error) {
        throw WorkflowInstallerError(InstallerKind::invalidManifest, error.what());
    }
}

// The runtime a script-run step names in its config, else in its action.
std::optional<ScriptRuntime> scriptRuntime(const FlowStep& step) {
    for (const auto* map : {&step.config, &step.action}) {
        if (!*map) {
            continue;
        }
        const auto found = (*map)->find("runtime");
        if (found != (*map)->end() && found->second.string() != nullptr) {
            return scriptRuntimeFromRawValue(*found->second.string());
        }
    }
    return std::nullopt;
}

bool sameFile(const fs::path& left, const fs::path& right) {
    std::error_code ignored;
    return fs::weakly_canonical(left, ignored) == fs::weakly_canonical(right, ignored);
}

} // namespace

WorkflowPackagerError::WorkflowPackagerError(Kind kind, const std::string& payload)
    : Error(describe(kind, payload)), kind_(kind) {}

WorkflowPluginManifest WorkflowPackager::generatedManifest(const WorkflowDocument& document) {
    WorkflowPluginManifest manifest;
    auto& plugin = manifest.plugin;
    plugin.id = document.flow.id;
    plugin.version = document.flow.version;
    plugin.displayName = document.flow.name;
    plugin.entrypoint = workflowFileName;
    for (const auto& step : document.flow.steps) {
        const auto runtime = step.type == stepType::scriptRun ? scriptRuntime(step) : std::nullopt;
        const auto listed = [&](const PluginRuntimeRequirement& requirement) {
            return requirement.runtime == *runtime;
        };
        if (runtime && std::none_of(plugin.runtimeRequirements.begin(),
                                    plugin.runtimeRequirements.end(), listed)) {
            plugin.runtimeRequirements.push_back({*runtime, std::nullopt});
        }
    }
    plugin.checksums = PluginChecksums{std::string(defaultListingName)};
    return manifest;
}

std::string WorkflowPackager::defaultPackageFileName(std::string_view flowID,
                                                     std::string_view version) {
    return std::string(flowID) + "-" + std::string(version) + ".quorlinflow";
}

WorkflowPackResult WorkflowPackager::pack(const fs::path& bundle,
                                          const std::optional<fs::path>& output) const {
    const bool hasManifest = fs::exists(bundle / manifestFileName);
    if (!fs::is_directory(bundle) || (!hasManifest && !fs::exists(bundle / workflowFileName))) {
        throw WorkflowPackagerError(WorkflowPackagerError::Kind::notABundle, bundle.string());
    }
    const auto contents = scanBundle(bundle);
    const ScratchDirectory scratch("quorlin-workflow-pack-");

    // Archive name to the file on disk that it is made from.
    std::map<std::string, fs::path> files;
    WorkflowPluginManifest manifest;
    if (hasManifest) {
        manifest = readManifest(bundle / manifestFileName);
        if (!manifest.plugin.checksums) {
            throw WorkflowPackagerError(WorkflowPackagerError::Kind::manifestWithoutChecksums);
        }
    } else {
        manifest =
            generatedManifest(decodeWorkflowDocumentYaml(readFile(bundle / workflowFileName)));
        files.emplace(manifestFileName, scratch.path() / manifestFileName);
        writeFileAtomically(scratch.path() / manifestFileName, manifestYaml(manifest));
    }
    WorkflowInstaller::validateManifest(manifest, bundle);
    const auto& plugin = manifest.plugin;
    const auto packageFile =
        output.value_or(fs::current_path() / defaultPackageFileName(plugin.id, plugin.version));

    // The listing is always made afresh; a stale one in the bundle is left out, and so is
    // an earlier package written into the bundle itself.
    const auto listingName = *validRelativePackagePath(plugin.checksums->file);
    for (const auto& file : contents.files) {
        if (file != listingName && !sameFile(bundle / file, packageFile)) {
            files.emplace(file, bundle / file);
        }
    }
    PluginChecksumListing listing;
    for (const auto& [name, source] : files) {
        listing.add(name, Sha256::hexOfFile(source));
    }
    const auto listingFile = scratch.path() / "listing";
    writeFileAtomically(listingFile, listing.text());
    files.emplace(listingName, listingFile);

    std::vector<ZipEntrySource> entries;
    for (const auto& directory : contents.directories) {
        entries.push_back({directory + "/", bundle / directory});
    }
    for (const auto& [name, source] : files) {
        entries.push_back({name, source});
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& left, const auto& right) { return left.name < right.name; });
    writeZip(packageFile, entries);
    return {plugin.id, plugin.version, packageFile, files.size(), !hasManifest};
}

} // namespace quorlin

#include "WorkflowBundleLocator.h"

#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/AtomicFile.h"

#include <algorithm>
#include <system_error>

namespace quorlin {

namespace {

// The subdirectories of a directory, in the order the file system gives them, leaving out
// hidden ones (the installer stages versions in dot-folders). A folder that can't be
// listed is an error where the caller says so, and empty otherwise.
std::vector<std::filesystem::path> subdirectories(const std::filesystem::path& directory,
                                                  bool raiseErrors = false) {
    std::vector<std::filesystem::path> result;
    std::error_code error;
    std::filesystem::directory_iterator entries(directory, error);
    if (error) {
        if (raiseErrors) {
            throw FileError(FileError::Kind::readFailed, directory, error.message());
        }
        return result;
    }
    for (const auto& entry : entries) {
        std::error_code entryError;
        if (entry.is_directory(entryError) && !entry.path().filename().string().starts_with(".")) {
            result.push_back(entry.path());
        }
    }
    return result;
}

bool hasFlowFile(const std::filesystem::path& directory) {
    std::error_code error;
    return std::filesystem::exists(directory / "flow.yaml", error);
}

// A bundle's identity from its manifest, else its flow.yaml, else the fallbacks given;
// a broken file counts as absent here and fails only when the workflow is loaded.
WorkflowBundleReference identify(const std::filesystem::path& directory, WorkflowSourceKind source,
                                 const std::string& fallbackID,
                                 const std::string& fallbackVersion) {
    WorkflowBundleReference reference;
    reference.directory = directory;
    reference.source = source;
    try {
        reference.manifest = WorkflowBundleLocator::loadManifest(directory);
    } catch (const std::exception&) {
        // A broken manifest only loses its overrides; the flow file still identifies it.
    }
    std::optional<FlowDefinition> flow;
    try {
        flow = decodeWorkflowDocumentYaml(readFile(directory / "flow.yaml")).flow;
    } catch (const std::exception&) {
        // Listed all the same; loading it reports the error.
    }
    reference.flowID = reference.manifest ? reference.manifest->plugin.id
                       : flow             ? flow->id
                                          : fallbackID;
    reference.version = reference.manifest ? reference.manifest->plugin.version
                        : flow             ? flow->version
                                           : fallbackVersion;
    return reference;
}

} // namespace

std::string_view rawValue(WorkflowSourceKind source) {
    switch (source) {
    case WorkflowSourceKind::bundled:
        return "bundled";
    case WorkflowSourceKind::installed:
        return "installed";
    case WorkflowSourceKind::folder:
        return "folder";
    }
    return "bundled";
}

WorkflowBundleLocatorError::WorkflowBundleLocatorError(
    Kind kind, const std::filesystem::path& resourceDirectory)
    : Error("Quorlin's resource folder was not found" +
            (resourceDirectory.empty() ? std::string(".") : ": " + resourceDirectory.string())),
      kind_(kind) {}

WorkflowBundleLocator::WorkflowBundleLocator(QuorlinResources resources, AppSupportPaths paths)
    : resources_(std::move(resources)), paths_(std::move(paths)) {}

std::vector<WorkflowBundleReference> WorkflowBundleLocator::bundledWorkflowReferences() const {
    const auto workflows = resources_.workflowsDirectory();
    if (!workflows) {
        throw WorkflowBundleLocatorError(WorkflowBundleLocatorError::Kind::invalidBundleRoot, {});
    }
    std::vector<WorkflowBundleReference> references;
    for (const auto& directory : subdirectories(*workflows)) {
        if (!hasFlowFile(directory)) {
            continue;
        }
        auto reference = identify(directory, WorkflowSourceKind::bundled,
                                  directory.filename().string(), "0.1.0");
        reference.isActive = true;
        references.push_back(std::move(reference));
    }
    return references;
}

std::vector<WorkflowBundleReference> WorkflowBundleLocator::installedWorkflowReferences() const {
    std::vector<WorkflowBundleReference> references;
    for (const auto& flowDirectory : subdirectories(paths_.bundlesDirectory(), true)) {
        std::optional<WorkflowActivationRecord> record;
        try {
            record = loadActivationRecord(flowDirectory);
        } catch (const std::exception&) {
            // No readable record: no version of this flow is active.
        }
        for (const auto& versionDirectory : subdirectories(flowDirectory)) {
            if (versionDirectory.filename() == "active.json" || !hasFlowFile(versionDirectory)) {
                continue;
            }
            auto reference =
                identify(versionDirectory, WorkflowSourceKind::installed,
                         flowDirectory.filename().string(), versionDirectory.filename().string());
            reference.isActive = record && record->activeVersion == reference.version;
            references.push_back(std::move(reference));
        }
    }
    return references;
}

std::optional<WorkflowBundleReference>
WorkflowBundleLocator::activeInstalledWorkflowReference(std::string_view flowID) const {
    for (auto& reference : installedWorkflowReferences()) {
        if (reference.flowID == flowID && reference.isActive) {
            return std::move(reference);
        }
    }
    return std::nullopt;
}

std::vector<WorkflowBundleReference> WorkflowBundleLocator::availableWorkflowReferences() const {
    auto bundled = bundledWorkflowReferences();
    auto installed = installedWorkflowReferences();
    std::vector<WorkflowBundleReference> available;
    for (auto& reference : installed) {
        if (reference.isActive) {
            available.push_back(std::move(reference));
        }
    }
    const auto installedCount = available.size();
    for (auto& reference : bundled) {
        const bool replaced = std::any_of(
            available.begin(), available.begin() + static_cast<std::ptrdiff_t>(installedCount),
            [&](const auto& active) { return active.flowID == reference.flowID; });
        if (!replaced) {
            available.push_back(std::move(reference));
        }
    }
    std::stable_sort(available.begin(), available.end(), [](const auto& a, const auto& b) {
        if (a.source != b.source) {
            return a.source == WorkflowSourceKind::installed;
        }
        return a.flowID < b.flowID;
    });
    return available;
}

std::optional<WorkflowBundleReference>
WorkflowBundleLocator::bundleInFolder(const std::filesystem::path& directory) {
    if (!hasFlowFile(directory)) {
        return std::nullopt;
    }
    const auto absolute = std::filesystem::absolute(directory).lexically_normal();
    return identify(absolute, WorkflowSourceKind::folder, "", "");
}

WorkflowPluginManifest WorkflowBundleLocator::loadManifest(const std::filesystem::path& directory) {
    return decodeWorkflowPluginManifestYaml(readFile(directory / "manifest.yaml"));
}

WorkflowActivationRecord
WorkflowBundleLocator::loadActivationRecord(const std::filesystem::path& directory) {
    return decodeWorkflowActivationRecord(readFile(directory / "active.json"));
}

std::filesystem::path WorkflowBundleLocator::activationRecordPath(std::string_view flowID) const {
    return paths_.workflowPluginRootDirectory(flowID) / "active.json";
}

} // namespace quorlin

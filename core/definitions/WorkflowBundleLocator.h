#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowActivationRecord.h"
#include "core/definitions/WorkflowPluginManifest.h"
#include "core/foundation/Error.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// folder: a bundle run in place from wherever its author keeps it.
enum class WorkflowSourceKind { bundled, installed, folder };

std::string_view rawValue(WorkflowSourceKind source);

// A workflow bundle found on disk: shipped in the resources or installed from a package.
struct WorkflowBundleReference {
    std::string flowID;
    std::string version;
    WorkflowSourceKind source = WorkflowSourceKind::bundled;
    std::filesystem::path directory;
    std::optional<WorkflowPluginManifest> manifest; // when manifest.yaml could be read
    bool isActive = false;
};

class WorkflowBundleLocatorError : public Error {
public:
    enum class Kind { invalidBundleRoot };

    WorkflowBundleLocatorError(Kind kind, const std::filesystem::path& resourceDirectory);

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

// Finds workflow bundles and decides which is in force. Tolerant: a broken manifest,
// flow.yaml or active.json never hides the other bundles; it shows when the workflow is
// loaded. Reads the disk on every call.
class WorkflowBundleLocator {
public:
    WorkflowBundleLocator(QuorlinResources resources, AppSupportPaths paths);

    // Every folder under the resources' "Workflows" that holds a flow.yaml.
    std::vector<WorkflowBundleReference> bundledWorkflowReferences() const;
    // Every version of every installed flow under bundles/.
    std::vector<WorkflowBundleReference> installedWorkflowReferences() const;
    std::optional<WorkflowBundleReference>
    activeInstalledWorkflowReference(std::string_view flowID) const;
    // What is in force: active installed flows (by id), then bundled flows no installed one
    // replaces (by id).
    std::vector<WorkflowBundleReference> availableWorkflowReferences() const;

    // The bundle in a folder of the author's, identified like the others; none when the
    // folder holds no flow.yaml.
    static std::optional<WorkflowBundleReference>
    bundleInFolder(const std::filesystem::path& directory);

    static WorkflowPluginManifest loadManifest(const std::filesystem::path& directory);
    static WorkflowActivationRecord loadActivationRecord(const std::filesystem::path& directory);
    std::filesystem::path activationRecordPath(std::string_view flowID) const;

    const AppSupportPaths& paths() const { return paths_; }
    const QuorlinResources& resources() const { return resources_; }

private:
    QuorlinResources resources_;
    AppSupportPaths paths_;
};

} // namespace quorlin

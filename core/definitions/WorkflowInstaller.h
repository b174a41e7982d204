#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowInstallerError.h"
#include "core/definitions/WorkflowPluginManifest.h"
#include "core/foundation/Archive.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace quorlin {

struct WorkflowInstallResult {
    std::string flowID;
    std::string version;
    std::filesystem::path installDirectory;
    WorkflowPluginManifest manifest;
};

// Installs plugin packages (zip archives named *.quorlinflow) as versions of a flow under
// <data root>/bundles/<flow id>/<version>, and removes them again. A package is hostile
// until proven otherwise: every name is checked before anything is unpacked, it is
// unpacked and verified in a private scratch directory, and only a package that passed
// every check is copied to the data root. A failed installation leaves bundles/ as it was.
// Holds no state between calls; calls for the same data root must not overlap.
class WorkflowInstaller {
public:
    // Far beyond any real workflow, small enough that a hostile package can't fill the
    // disk or keep the installer busy: more entries or more unpacked bytes are refused.
    static constexpr ArchiveLimits defaultLimits{10'000, std::uint64_t{1} << 30U};

    explicit WorkflowInstaller(AppSupportPaths paths, ArchiveLimits limits = defaultLimits);

    // Checks, unpacks, verifies and installs a package, and makes its version the active
    // one. Throws WorkflowInstallerError for a bad package; file-system errors while
    // copying into place pass through unchanged.
    WorkflowInstallResult installPackage(const std::filesystem::path& package) const;

    // Removes every installed version of a flow and its activation record. A flow that
    // isn't installed is not an error (the answer is false); an id that isn't a plain
    // folder name is invalidFlowID.
    bool uninstallWorkflow(std::string_view flowID) const;

    // The manifest checks shared with the packager: id and version present and usable as
    // folder names, entrypoint, checksum file and artifacts safe relative paths, the
    // entrypoint present and a workflow whose id and version match. Returns the workflow.
    static WorkflowDocument validateManifest(const WorkflowPluginManifest& manifest,
                                             const std::filesystem::path& packageRoot);

private:
    AppSupportPaths paths_;
    ArchiveLimits limits_;
};

} // namespace quorlin

#pragma once

#include "core/definitions/ScriptRuntime.h"
#include "core/definitions/WorkflowBundleLocator.h"
#include "core/runtimes/DependencyMarker.h"
#include "core/runtimes/ScriptDependencyProcess.h"

#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// What the settings view shows of the managed runtimes. status() fills the versions from
// the catalogue; the install flags are the runtime installer's to set.
struct ScriptDependencyState {
    bool pythonRuntimeInstalled = false;
    bool nodeRuntimeInstalled = false;
    std::string pythonRuntimeVersion;
    std::string nodeRuntimeVersion;
    bool isInstallingPythonRuntime = false;
    bool isInstallingNodeRuntime = false;
    std::string lastActionLog =
        "Quorlin-managed Python / Node runtimes haven't been downloaded yet.";
};

// The workflow whose dependencies are meant.
struct ScriptDependencyWorkflow {
    std::string id;
    // The bundle to take its manifests from (a run's own bundle, or a folder run in place).
    // Absent: the workflow's active installed bundle, else its bundled one.
    std::optional<std::filesystem::path> bundleDirectory;
};

// The program that installs a runtime's packages.
struct ScriptDependencyTool {
    ScriptRuntime runtime = ScriptRuntime::python;
    std::filesystem::path executable;          // the interpreter, or the system's npm
    std::vector<std::string> leadingArguments; // {"-m", "pip"}, {"<npm-cli.js>"}, or none
    bool managed = false;                      // part of the Quorlin-managed runtime

    // The path, and for one that isn't managed, whose it is.
    std::string description() const;
};

enum class ScriptDependencyCondition { notNeeded, notInstalled, outOfDate, current };

// "not-needed", "not-installed", "out-of-date", "current".
std::string_view rawValue(ScriptDependencyCondition condition);

// Where a workflow's dependencies for one runtime stand.
struct WorkflowDependencyStatus {
    ScriptRuntime runtime = ScriptRuntime::python;
    std::optional<std::filesystem::path> manifest;
    std::optional<std::filesystem::path> lockfile; // package-lock.json, installed with npm ci
    std::optional<std::filesystem::path> folder;   // where they go; none when none are needed
    ScriptDependencyCondition condition = ScriptDependencyCondition::notNeeded;
    std::optional<ScriptDependencyTool> tool; // what an install would run; none: nothing can
};

// Installs what a workflow's scripts need, each workflow into a folder of its own: Python
// packages from scripts/requirements.txt with pip, Node packages from scripts/package.json
// with npm. A marker in the folder records the manifest installed (and the lockfile, where
// one was used), so a repeated run costs one small file read and any change of either
// file installs again.
//
// Packages are installed with the managed runtime when it is there, else with what the
// scripts themselves run on: the launcher beside the executable for Python, and npm from
// PATH for Node; the log says which. A requirements.txt with --hash entries installs with
// --require-hashes; a package-lock.json beside package.json installs with npm ci.
//
// Each install is built beside its folder and takes the folder's place only when complete,
// the marker written last, so a failure or a stop leaves no marker for the new manifest
// and the next call tries again. Safe to call from many threads and processes: installs
// of one folder take turns.
class ScriptDependencyInstaller {
public:
    static constexpr std::string_view dependencyMarkerFileName = quorlin::dependencyMarkerFileName;

    explicit ScriptDependencyInstaller(WorkflowBundleLocator locator);

    // The managed runtimes: whether each is installed, and a log naming where they go.
    ScriptDependencyState status() const;

    // Each gives its log text: what was installed, that it was up to date, or that the
    // workflow needs nothing. output hears the package manager's lines as they come.
    // Throws ScriptDependencyInstallerError, CancellationError on a stop, FileError.
    std::string installPythonDependencies(const ScriptDependencyWorkflow& workflow,
                                          const std::stop_token& stopToken = {},
                                          const ScriptDependencyOutput& output = {}) const;
    std::string installNodeDependencies(const ScriptDependencyWorkflow& workflow,
                                        const std::stop_token& stopToken = {},
                                        const ScriptDependencyOutput& output = {}) const;

    // The install for the runtime when the workflow ships its manifest; nothing when it
    // doesn't, or when there is no workflow id.
    std::optional<std::string>
    installDependenciesIfNeeded(const ScriptDependencyWorkflow& workflow, ScriptRuntime runtime,
                                const std::stop_token& stopToken = {},
                                const ScriptDependencyOutput& output = {}) const;

    WorkflowDependencyStatus dependencyStatus(const ScriptDependencyWorkflow& workflow,
                                              ScriptRuntime runtime) const;

    // Where a file of the workflow's is: in its bundle directory when one is given; else in
    // its active installed bundle, else in its bundled one, whichever has the file.
    std::optional<std::filesystem::path>
    workflowResourcePath(const ScriptDependencyWorkflow& workflow,
                         std::string_view resourcePath) const;

    // The managed runtime's package manager, else the system's; none when neither is there.
    std::optional<ScriptDependencyTool> installTool(ScriptRuntime runtime) const;

    std::filesystem::path dependencyDirectory(std::string_view workflowID,
                                              ScriptRuntime runtime) const;

private:
    struct Manifest;

    std::optional<Manifest> findManifest(const ScriptDependencyWorkflow& workflow,
                                         ScriptRuntime runtime) const;
    std::string install(const std::string& workflowID, const Manifest& manifest,
                        const std::stop_token& stopToken,
                        const ScriptDependencyOutput& output) const;

    WorkflowBundleLocator locator_;
};

} // namespace quorlin

#include "cli/DepsCommand.h"

#include "cli/InterruptWatcher.h"
#include "cli/ScriptLog.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowBundleLocator.h"
#include "core/foundation/Cancellation.h"
#include "core/foundation/FileError.h"
#include "core/foundation/Json.h"
#include "core/runtimes/ScriptDependencyInstaller.h"

#include <iostream>
#include <stop_token>

namespace quorlin::cli {

namespace {

// The installer, and the workflow an operand names in the bundle a run of it would load.
struct DependencyTarget {
    ScriptDependencyInstaller installer;
    ScriptDependencyWorkflow workflow;
};

DependencyTarget dependencyTarget(const std::string& flowID, const std::string& command) {
    const WorkflowBundleLocator locator(QuorlinResources::installed(),
                                        AppSupportPaths::fromEnvironment());
    std::vector<std::string> ids;
    for (auto& reference : locator.availableWorkflowReferences()) {
        if (reference.flowID == flowID) {
            return {ScriptDependencyInstaller(locator), {flowID, std::move(reference.directory)}};
        }
        ids.push_back(std::move(reference.flowID));
    }
    throw UsageError(unknownWordMessage("flow", flowID, ids) + " ('quorlin flows' lists them)",
                     command);
}

std::string runtimeTitle(ScriptRuntime runtime) {
    return runtime == ScriptRuntime::python ? "Python" : "Node";
}

std::string conditionText(const WorkflowDependencyStatus& status) {
    switch (status.condition) {
    case ScriptDependencyCondition::notNeeded:
        return std::string("none needed (no ") +
               (status.runtime == ScriptRuntime::python ? "scripts/requirements.txt"
                                                        : "scripts/package.json") +
               ")";
    case ScriptDependencyCondition::notInstalled:
        return "not installed";
    case ScriptDependencyCondition::outOfDate:
        return "out of date (the manifest changed since they were installed)";
    case ScriptDependencyCondition::current:
        return "installed and current";
    }
    return {};
}

void printStatus(const WorkflowDependencyStatus& status) {
    std::cout << runtimeTitle(status.runtime) << " dependencies: " << conditionText(status) << '\n';
    if (status.manifest) {
        std::cout << "  manifest: " << status.manifest->string() << '\n';
    }
    if (status.lockfile) {
        std::cout << "  lockfile: " << status.lockfile->string() << " (installed with npm ci)\n";
    }
    if (status.folder) {
        std::cout << "  folder: " << status.folder->string() << '\n';
        std::cout << "  installs with: "
                  << (status.tool ? status.tool->description()
                                  : "nothing found; download the Quorlin-managed " +
                                        runtimeTitle(status.runtime) + " runtime first")
                  << '\n';
    }
}

nlohmann::json optionalPath(const std::optional<std::filesystem::path>& path) {
    return path ? nlohmann::json(path->string()) : nlohmann::json(nullptr);
}

nlohmann::json statusJson(const WorkflowDependencyStatus& status) {
    nlohmann::json tool = nullptr;
    if (status.tool) {
        tool = {{"executable", status.tool->executable.string()},
                {"managed", status.tool->managed}};
    }
    return {{"state", rawValue(status.condition)},
            {"manifest", optionalPath(status.manifest)},
            {"lockfile", optionalPath(status.lockfile)},
            {"folder", optionalPath(status.folder)},
            {"installer", tool}};
}

} // namespace

int depsStatusCommand(const ParsedArguments& arguments) {
    const auto& flowID = arguments.operands[0];
    const auto target = dependencyTarget(flowID, "deps status");
    std::vector<WorkflowDependencyStatus> statuses;
    for (const auto runtime : allScriptRuntimes) {
        statuses.push_back(target.installer.dependencyStatus(target.workflow, runtime));
    }
    if (arguments.has("--json")) {
        nlohmann::json document = {{"flowID", flowID}};
        for (const auto& status : statuses) {
            document[std::string(rawValue(status.runtime))] = statusJson(status);
        }
        std::cout << prettySortedJson(document) << '\n';
        return exitStatus::success;
    }
    bool pending = false;
    for (const auto& status : statuses) {
        printStatus(status);
        pending = pending || status.condition == ScriptDependencyCondition::notInstalled ||
                  status.condition == ScriptDependencyCondition::outOfDate;
    }
    if (pending) {
        std::cout << "\nquorlin deps install " << flowID
                  << " installs them now; a run installs them by itself.\n";
    }
    return exitStatus::success;
}

int depsInstallCommand(const ParsedArguments& arguments) {
    const auto target = dependencyTarget(arguments.operands[0], "deps install");
    std::stop_source stop;
    ScriptLog progress(true);
    int status = exitStatus::success;
    InterruptWatcher interrupts([&stop] { stop.request_stop(); });
    for (const auto runtime : allScriptRuntimes) {
        const auto output = [&progress, key = std::string(rawValue(runtime))](
                                std::string_view text) { progress.write(key, text); };
        try {
            const auto log = runtime == ScriptRuntime::python
                                 ? target.installer.installPythonDependencies(
                                       target.workflow, stop.get_token(), output)
                                 : target.installer.installNodeDependencies(
                                       target.workflow, stop.get_token(), output);
            progress.finish(false);
            std::cout << (runtime == allScriptRuntimes.front() ? "" : "\n") << log << '\n';
        } catch (const CancellationError&) {
            progress.finish(false);
            std::cerr << "Install cancelled; the dependency folders are as they were.\n";
            return exitStatus::interrupted;
        } catch (const std::filesystem::filesystem_error& error) {
            progress.finish(false);
            status = fail(describeFilesystemError(error));
        } catch (const std::exception& error) {
            // The other runtime's install doesn't depend on this one: it still runs.
            progress.finish(false);
            status = fail(error.what());
        }
    }
    return status;
}

} // namespace quorlin::cli

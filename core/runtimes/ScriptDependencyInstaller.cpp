#include "ScriptDependencyInstaller.h"

#include "core/foundation/AtomicFile.h"
#include "core/runtimes/InterpreterLocator.h"
#include "core/runtimes/ManagedRuntimeCatalog.h"
#include "core/runtimes/ScriptDependencyInstallerError.h"
#include "core/runtimes/ScriptDependencyStaging.h"

#include <algorithm>
#include <system_error>

namespace quorlin {

// The files one install is made from.
struct ScriptDependencyInstaller::Manifest {
    ScriptRuntime runtime = ScriptRuntime::python;
    std::filesystem::path manifest;
    std::optional<std::filesystem::path> lockfile;

    std::vector<std::filesystem::path> files() const {
        std::vector<std::filesystem::path> all{manifest};
        if (lockfile) {
            all.push_back(*lockfile);
        }
        return all;
    }
};

namespace {

constexpr std::string_view requirementsPath = "scripts/requirements.txt";
constexpr std::string_view packageJSONPath = "scripts/package.json";
constexpr std::string_view packageLockName = "package-lock.json";

std::string runtimeName(ScriptRuntime runtime) {
    return runtime == ScriptRuntime::python ? "Python" : "Node";
}

std::string_view manifestPath(ScriptRuntime runtime) {
    return runtime == ScriptRuntime::python ? requirementsPath : packageJSONPath;
}

std::string upToDateText(ScriptRuntime runtime, const std::string& workflowID,
                         const std::filesystem::path& folder) {
    return runtimeName(runtime) + " workflow dependencies are up to date\nworkflow: " + workflowID +
           "\ntarget: " + folder.string();
}

std::string installedText(const std::string& workflowID, const ScriptDependencyTool& tool,
                          const std::filesystem::path& folder,
                          const std::optional<std::filesystem::path>& lockfile) {
    std::string text = runtimeName(tool.runtime) +
                       " workflow dependencies installed\nworkflow: " + workflowID +
                       "\nruntime: " + tool.description() + "\ntarget: " + folder.string();
    if (lockfile) {
        text += "\nlockfile: " + lockfile->string();
    }
    return text;
}

// Whether a requirements file pins its packages by hash; comments don't count.
bool requiresHashes(std::string_view requirements) {
    std::size_t start = 0;
    while (start < requirements.size()) {
        const auto end = std::min(requirements.find('\n', start), requirements.size());
        auto line = requirements.substr(start, end - start);
        start = end + 1;
        const auto comment = line.find('#');
        if (comment != std::string_view::npos &&
            (comment == 0 || line[comment - 1] == ' ' || line[comment - 1] == '\t')) {
            line = line.substr(0, comment);
        }
        if (line.find("--hash") != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

ScriptDependencyCommand pipCommand(const ScriptDependencyTool& tool,
                                   const DependencySource& requirements,
                                   const std::filesystem::path& target) {
    ScriptDependencyCommand command;
    command.executable = tool.executable;
    command.arguments = tool.leadingArguments;
    command.name = "pip";
    for (const char* word : {"install", "-r"}) {
        command.arguments.emplace_back(word);
    }
    command.arguments.push_back(requirements.path.string());
    command.arguments.emplace_back("--target");
    command.arguments.push_back(target.string());
    for (const char* word : {"--upgrade", "--disable-pip-version-check", "--no-input"}) {
        command.arguments.emplace_back(word);
    }
    if (requiresHashes(requirements.bytes)) {
        command.arguments.emplace_back("--require-hashes");
    }
    // So that pip's lines arrive as it writes them, not when its buffer fills.
    command.environment["PYTHONUNBUFFERED"] = "1";
    // A path in the file (a vendored wheel) is relative to the file, as its author meant.
    command.workingDirectory = requirements.path.parent_path();
    return command;
}

// npm installs into the folder that holds package.json: the copies go there first.
ScriptDependencyCommand npmCommand(const ScriptDependencyTool& tool,
                                   const std::vector<DependencySource>& sources,
                                   const std::filesystem::path& target) {
    writeFileAtomically(target / "package.json", sources.front().bytes);
    const bool locked = sources.size() > 1;
    if (locked) {
        writeFileAtomically(target / packageLockName, sources[1].bytes);
    }
    ScriptDependencyCommand command;
    command.executable = tool.executable;
    command.arguments = tool.leadingArguments;
    command.name = "npm";
    command.arguments.emplace_back(locked ? "ci" : "install");
    command.arguments.emplace_back("--prefix");
    command.arguments.push_back(target.string());
    return command;
}

} // namespace

std::string ScriptDependencyTool::description() const {
    if (managed) {
        return executable.string();
    }
    return executable.string() + " (the system's " +
           (runtime == ScriptRuntime::python ? "Python" : "npm") + ", not Quorlin-managed)";
}

std::string_view rawValue(ScriptDependencyCondition condition) {
    switch (condition) {
    case ScriptDependencyCondition::notNeeded:
        return "not-needed";
    case ScriptDependencyCondition::notInstalled:
        return "not-installed";
    case ScriptDependencyCondition::outOfDate:
        return "out-of-date";
    case ScriptDependencyCondition::current:
        return "current";
    }
    return "not-needed";
}

ScriptDependencyInstaller::ScriptDependencyInstaller(WorkflowBundleLocator locator)
    : locator_(std::move(locator)) {}

ScriptDependencyState ScriptDependencyInstaller::status() const {
    ScriptDependencyState state;
    std::string log = "Quorlin downloads runtimes and workflow dependencies into:\n" +
                      locator_.paths().managedRuntimesDirectory().string() + "\n";
    for (const auto runtime : allScriptRuntimes) {
        const auto candidates =
            interpreterCandidates(runtime, locator_.resources(), locator_.paths());
        const auto& managed = candidates.front(); // managed first, then the launcher
        std::string text = managed.available ? "installed (" + managed.detail + ")"
                                             : "not downloaded (" + managed.detail + ")";
        if (!managed.available) {
            const auto launcher = candidates.size() > 1 ? &candidates[1] : nullptr;
            text += launcher != nullptr && launcher->available
                        ? "; scripts run on " + launcher->path.string() + " meanwhile"
                        : "; no system interpreter was found either";
        }
        log += "\n" + runtimeName(runtime) + " runtime: " + text;
        const auto version = managedRuntimeDescriptor(runtime).version;
        if (runtime == ScriptRuntime::python) {
            state.pythonRuntimeInstalled = managed.available;
            state.pythonRuntimeVersion = version;
        } else {
            state.nodeRuntimeInstalled = managed.available;
            state.nodeRuntimeVersion = version;
        }
    }
    state.lastActionLog = std::move(log);
    return state;
}

std::filesystem::path ScriptDependencyInstaller::dependencyDirectory(std::string_view workflowID,
                                                                     ScriptRuntime runtime) const {
    return runtime == ScriptRuntime::python
               ? locator_.paths().pythonDependenciesDirectory(workflowID)
               : locator_.paths().nodeDependenciesDirectory(workflowID);
}

std::optional<std::filesystem::path>
ScriptDependencyInstaller::workflowResourcePath(const ScriptDependencyWorkflow& workflow,
                                                std::string_view resourcePath) const {
    std::vector<std::filesystem::path> bundles;
    if (workflow.bundleDirectory) {
        bundles.push_back(*workflow.bundleDirectory);
    } else {
        if (auto installed = locator_.activeInstalledWorkflowReference(workflow.id)) {
            bundles.push_back(std::move(installed->directory));
        }
        if (const auto workflows = locator_.resources().workflowsDirectory()) {
            bundles.push_back(*workflows / workflow.id);
        }
    }
    for (const auto& bundle : bundles) {
        // Absolute, so that the marker names the same file from any working folder.
        auto file = std::filesystem::absolute(bundle / resourcePath).lexically_normal();
        std::error_code error;
        if (std::filesystem::exists(file, error)) {
            return file;
        }
    }
    return std::nullopt;
}

std::optional<ScriptDependencyTool>
ScriptDependencyInstaller::installTool(ScriptRuntime runtime) const {
    const auto candidates = interpreterCandidates(runtime, locator_.resources(), locator_.paths());
    for (const auto& candidate : candidates) {
        if (!candidate.available) {
            continue;
        }
        const bool managed = candidate.source == InterpreterCandidate::Source::managed;
        if (runtime == ScriptRuntime::python) {
            return ScriptDependencyTool{runtime, candidate.path, {"-m", "pip"}, managed};
        }
        if (managed) {
            // A managed Node always brings its npm; without it the download is broken.
            const auto descriptor = managedRuntimeDescriptor(runtime);
            const auto npm = findInManagedRuntime(locator_.paths(), descriptor,
                                                  descriptor.packageManagerSuffixes);
            if (!npm) {
                return std::nullopt;
            }
            return ScriptDependencyTool{runtime, candidate.path, {npm->string()}, true};
        }
        break;
    }
    if (runtime == ScriptRuntime::node) {
        if (auto npm = executableOnPath("npm")) {
            return ScriptDependencyTool{runtime, std::move(*npm), {}, false};
        }
    }
    return std::nullopt;
}

std::optional<ScriptDependencyInstaller::Manifest>
ScriptDependencyInstaller::findManifest(const ScriptDependencyWorkflow& workflow,
                                        ScriptRuntime runtime) const {
    auto manifest = workflowResourcePath(workflow, manifestPath(runtime));
    if (!manifest) {
        return std::nullopt;
    }
    Manifest found{runtime, std::move(*manifest), std::nullopt};
    if (runtime == ScriptRuntime::node) {
        // Only a lockfile beside this very package.json belongs to it.
        auto lockfile = found.manifest.parent_path() / packageLockName;
        std::error_code error;
        if (std::filesystem::exists(lockfile, error)) {
            found.lockfile = std::move(lockfile);
        }
    }
    return found;
}

std::string ScriptDependencyInstaller::install(const std::string& workflowID,
                                               const Manifest& manifest,
                                               const std::stop_token& stopToken,
                                               const ScriptDependencyOutput& output) const {
    const auto runtime = manifest.runtime;
    const auto folder = dependencyDirectory(workflowID, runtime);
    if (dependenciesCurrent(folder, manifest.files())) {
        return upToDateText(runtime, workflowID, folder);
    }
    const auto tool = installTool(runtime);
    if (!tool) {
        throw ScriptDependencyInstallerError::runtimeNotInstalled(runtimeName(runtime));
    }
    ScriptDependencyStaging staging(folder, stopToken, output);
    // Another install may have finished while this one waited for the folder.
    if (dependenciesCurrent(folder, manifest.files())) {
        return upToDateText(runtime, workflowID, folder);
    }
    // Read once: the marker records the very bytes that were installed.
    std::vector<DependencySource> sources;
    for (const auto& file : manifest.files()) {
        sources.push_back(readDependencySource(file));
    }
    if (output) {
        output("Installing the " + runtimeName(runtime) + " dependencies of " + workflowID +
               " with " + tool->description() + "\n");
    }
    const auto command = runtime == ScriptRuntime::python
                             ? pipCommand(*tool, sources.front(), staging.directory())
                             : npmCommand(*tool, sources, staging.directory());
    runDependencyProcess(command, stopToken, output);
    writeDependencyMarker(staging.directory(), sources);
    staging.commit();
    return installedText(workflowID, *tool, folder, manifest.lockfile);
}

std::string
ScriptDependencyInstaller::installPythonDependencies(const ScriptDependencyWorkflow& workflow,
                                                     const std::stop_token& stopToken,
                                                     const ScriptDependencyOutput& output) const {
    if (const auto manifest = findManifest(workflow, ScriptRuntime::python)) {
        return install(workflow.id, *manifest, stopToken, output);
    }
    return workflow.id +
           " has no scripts/requirements.txt; no Python workflow dependencies needed.";
}

std::string
ScriptDependencyInstaller::installNodeDependencies(const ScriptDependencyWorkflow& workflow,
                                                   const std::stop_token& stopToken,
                                                   const ScriptDependencyOutput& output) const {
    if (const auto manifest = findManifest(workflow, ScriptRuntime::node)) {
        return install(workflow.id, *manifest, stopToken, output);
    }
    return workflow.id + " has no scripts/package.json; no Node workflow dependencies needed.";
}

std::optional<std::string> ScriptDependencyInstaller::installDependenciesIfNeeded(
    const ScriptDependencyWorkflow& workflow, ScriptRuntime runtime,
    const std::stop_token& stopToken, const ScriptDependencyOutput& output) const {
    if (workflow.id.empty()) {
        return std::nullopt;
    }
    const auto manifest = findManifest(workflow, runtime);
    if (!manifest) {
        return std::nullopt;
    }
    return install(workflow.id, *manifest, stopToken, output);
}

WorkflowDependencyStatus
ScriptDependencyInstaller::dependencyStatus(const ScriptDependencyWorkflow& workflow,
                                            ScriptRuntime runtime) const {
    WorkflowDependencyStatus status;
    status.runtime = runtime;
    status.tool = installTool(runtime);
    const auto manifest = findManifest(workflow, runtime);
    if (!manifest) {
        return status; // and no folder is made for nothing
    }
    status.manifest = manifest->manifest;
    status.lockfile = manifest->lockfile;
    const auto folder = dependencyDirectory(workflow.id, runtime);
    status.folder = folder;
    std::error_code error;
    if (!std::filesystem::exists(folder / dependencyMarkerFileName, error)) {
        status.condition = ScriptDependencyCondition::notInstalled;
    } else {
        status.condition = dependenciesCurrent(folder, manifest->files())
                               ? ScriptDependencyCondition::current
                               : ScriptDependencyCondition::outOfDate;
    }
    return status;
}

} // namespace quorlin

#include "core/runtimes/InterpreterLocator.h"

#include "core/runtimes/ManagedRuntimeCatalog.h"

#include <system_error>

namespace quorlin {

namespace {

InterpreterCandidate managedCandidate(ScriptRuntime runtime, const AppSupportPaths& paths) {
    const auto descriptor = managedRuntimeDescriptor(runtime);
    InterpreterCandidate candidate;
    candidate.source = InterpreterCandidate::Source::managed;
    candidate.detail = descriptor.displayName + " " + descriptor.version;
    try {
        candidate.path = paths.managedRuntimeVersionDirectory(runtime, descriptor.version);
        if (auto found = findInManagedRuntime(paths, descriptor, descriptor.executableSuffixes)) {
            candidate.path = std::move(*found);
            candidate.available = true;
        }
    } catch (const std::exception&) {
        // A data root that can't be made holds no runtime; the launcher may still do.
    }
    return candidate;
}

InterpreterCandidate launcherCandidate(ScriptRuntime runtime, const QuorlinResources& resources) {
    InterpreterCandidate candidate;
    candidate.source = InterpreterCandidate::Source::launcher;
    const char* name = runtime == ScriptRuntime::python ? "quorlin-python" : "quorlin-node";
    if (!resources.executableDirectory) {
        candidate.path = name;
        return candidate;
    }
    candidate.path = *resources.executableDirectory / name;
    std::error_code error;
    candidate.available = std::filesystem::exists(candidate.path, error);
    // The launcher is a link to the system's interpreter where the build made one.
    if (std::filesystem::is_symlink(candidate.path, error)) {
        candidate.detail = "runs " + std::filesystem::read_symlink(candidate.path, error).string();
    } else {
        candidate.detail = "the system's interpreter";
    }
    return candidate;
}

} // namespace

std::vector<InterpreterCandidate> interpreterCandidates(ScriptRuntime runtime,
                                                        const QuorlinResources& resources,
                                                        const AppSupportPaths& paths) {
    return {managedCandidate(runtime, paths), launcherCandidate(runtime, resources)};
}

std::optional<std::filesystem::path> chosenInterpreter(ScriptRuntime runtime,
                                                       const QuorlinResources& resources,
                                                       const AppSupportPaths& paths) {
    for (auto& candidate : interpreterCandidates(runtime, resources, paths)) {
        if (candidate.available) {
            return std::move(candidate.path);
        }
    }
    return std::nullopt;
}

} // namespace quorlin

#include "cli/RuntimesCommand.h"

#include "cli/InterruptWatcher.h"
#include "cli/TransferProgress.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/foundation/HttpClient.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/Json.h"
#include "core/runtimes/InterpreterLocator.h"
#include "core/runtimes/ManagedRuntimeInstaller.h"

#include <iostream>
#include <stop_token>
#include <unistd.h>

namespace quorlin::cli {

namespace {

constexpr ScriptRuntime runtimes[] = {ScriptRuntime::python, ScriptRuntime::node};

std::string title(ScriptRuntime runtime) {
    return runtime == ScriptRuntime::python ? "Python" : "Node";
}

std::string sourceName(InterpreterCandidate::Source source) {
    return source == InterpreterCandidate::Source::managed ? "managed" : "launcher";
}

nlohmann::json statusJson(ScriptRuntime runtime, const ManagedRuntimeDescriptor& descriptor,
                          const std::vector<InterpreterCandidate>& candidates) {
    nlohmann::json tried = nlohmann::json::array();
    nlohmann::json chosen = nullptr;
    for (const auto& candidate : candidates) {
        tried.push_back({{"source", sourceName(candidate.source)},
                         {"path", candidate.path.string()},
                         {"available", candidate.available},
                         {"detail", candidate.detail}});
        if (candidate.available && chosen.is_null()) {
            chosen = candidate.path.string();
        }
    }
    return {{"runtime", std::string(rawValue(runtime))},
            {"interpreter", chosen},
            {"candidates", tried},
            {"managedVersion", descriptor.version},
            {"archiveURL", descriptor.archiveURL}};
}

void printStatus(ScriptRuntime runtime, const ManagedRuntimeDescriptor& descriptor,
                 const std::vector<InterpreterCandidate>& candidates) {
    const InterpreterCandidate* chosen = nullptr;
    for (const auto& candidate : candidates) {
        if (candidate.available) {
            chosen = &candidate;
            break;
        }
    }
    std::cout << title(runtime) << ": scripts run on "
              << (chosen != nullptr ? chosen->path.string() : std::string("nothing (none found)"))
              << "\n";
    int order = 1;
    for (const auto& candidate : candidates) {
        std::string source = sourceName(candidate.source);
        source.resize(10, ' ');
        std::cout << "  " << order++ << ". " << source
                  << (candidate.available ? "found      " : "not found  ") << candidate.detail
                  << "\n     " << candidate.path.string() << "\n";
    }
    std::cout << "  managed build: " << descriptor.archiveURL << "\n";
}

ScriptRuntime runtimeOperand(const ParsedArguments& arguments) {
    const std::string& word = arguments.operands.at(0);
    if (auto runtime = scriptRuntimeFromRawValue(word)) {
        return *runtime;
    }
    throw UsageError(unknownWordMessage("runtime", word, {"python", "node"}), "runtimes install");
}

std::string stageText(RuntimeInstallProgress::Stage stage,
                      const ManagedRuntimeDescriptor& runtime) {
    const std::string name = runtime.displayName + " " + runtime.version;
    switch (stage) {
    case RuntimeInstallProgress::Stage::downloading:
        return "Downloading " + name;
    case RuntimeInstallProgress::Stage::verifying:
        return "Checking the download against its published checksum";
    case RuntimeInstallProgress::Stage::unpacking:
        return "Unpacking " + name;
    }
    return {};
}

} // namespace

int runtimesStatusCommand(const ParsedArguments& arguments) {
    const auto paths = AppSupportPaths::fromEnvironment();
    const auto& resources = QuorlinResources::installed();
    nlohmann::json all = nlohmann::json::array();
    for (const auto runtime : runtimes) {
        const auto descriptor = managedRuntimeDescriptor(runtime);
        const auto candidates = interpreterCandidates(runtime, resources, paths);
        if (arguments.has("--json")) {
            all.push_back(statusJson(runtime, descriptor, candidates));
        } else {
            printStatus(runtime, descriptor, candidates);
        }
    }
    if (arguments.has("--json")) {
        std::cout << prettySortedJson(all) << '\n';
    }
    return exitStatus::success;
}

int runtimesInstallCommand(const ParsedArguments& arguments) {
    const auto runtime = runtimeOperand(arguments);
    const auto descriptor = managedRuntimeDescriptor(runtime);
    auto client = std::make_shared<CurlHttpClient>();
    const ManagedRuntimeInstaller installer(AppSupportPaths::fromEnvironment(), client, client);
    TransferProgress progress(stderr, isatty(STDERR_FILENO) != 0);
    std::stop_source stop;
    std::string log;
    try {
        const InterruptWatcher interrupts([&stop] { stop.request_stop(); });
        log = installer.install(
            runtime,
            [&](const RuntimeInstallProgress& step) {
                if (step.stage == RuntimeInstallProgress::Stage::downloading &&
                    step.download.receivedBytes > 0) {
                    progress.download(step.download);
                } else {
                    progress.stage(stageText(step.stage, descriptor));
                }
            },
            stop.get_token());
    } catch (const HttpError& error) {
        progress.finish();
        if (error.kind() != HttpError::Kind::cancelled) {
            throw;
        }
        std::cerr << "Install cancelled; nothing was installed.\n";
        return exitStatus::interrupted;
    }
    progress.finish();
    std::cout << log << '\n';
    return exitStatus::success;
}

} // namespace quorlin::cli

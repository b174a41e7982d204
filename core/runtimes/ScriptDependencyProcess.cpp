#include "ScriptDependencyProcess.h"

#include "core/foundation/Cancellation.h"
#include "core/foundation/ChildProcess.h"
#include "core/foundation/Text.h"
#include "core/runtimes/ScriptDependencyInstallerError.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <system_error>
#include <unistd.h>

namespace quorlin {

namespace {

// Long enough for a large build from source, short enough that a package manager stuck on
// a dead network never holds a run for ever.
constexpr std::chrono::hours installTimeLimit{1};

ChildProcessRequest childRequest(const ScriptDependencyCommand& command,
                                 const ScriptDependencyOutput& output) {
    ChildProcessRequest request;
    // Through the shell only to send stdout to stderr: one stream keeps the package
    // manager's lines in the order it wrote them, and all of them reach output as they come.
    request.executable = "/bin/sh";
    request.arguments = {"-c", "exec \"$@\" 1>&2", "sh", command.executable.string()};
    request.arguments.insert(request.arguments.end(), command.arguments.begin(),
                             command.arguments.end());
    request.environment = processEnvironment(command.environment);
    request.workingDirectory = command.workingDirectory;
    request.timeout = installTimeLimit;
    request.onStandardError = output;
    return request;
}

ScriptDependencyInstallerError childFailure(const ScriptDependencyCommand& command,
                                            const ChildProcessError& error) {
    switch (error.kind()) {
    case ChildProcessError::Kind::timedOut:
        return ScriptDependencyInstallerError::processFailed(
            command.name +
            " did not finish within an hour and was stopped; nothing was installed.");
    case ChildProcessError::Kind::outputTooLarge:
        return ScriptDependencyInstallerError::processFailed(
            command.name + " printed more than " + byteSizeText(error.outputLimit()) +
            " and was stopped; nothing was installed.");
    case ChildProcessError::Kind::launchFailed:
    case ChildProcessError::Kind::ioFailed:
        break;
    }
    return ScriptDependencyInstallerError::processFailed("Could not run " + command.name + ": " +
                                                         error.what());
}

} // namespace

std::string runDependencyProcess(const ScriptDependencyCommand& command,
                                 const std::stop_token& stopToken,
                                 const ScriptDependencyOutput& output) {
    throwIfStopRequested(stopToken);
    ChildProcessResult result;
    try {
        result = runChildProcess(childRequest(command, output), stopToken);
    } catch (const ChildProcessError& error) {
        throw childFailure(command, error);
    }
    // A stopped child ends with whatever status its signal gave it; the stop is the news.
    throwIfStopRequested(stopToken);
    if (result.exitCode != 0) {
        std::string printed = trimmed(result.standardError);
        if (printed.empty()) {
            printed = command.name + " exited with status " + std::to_string(result.exitCode) +
                      " and printed nothing.";
        }
        throw ScriptDependencyInstallerError::processFailed(std::move(printed));
    }
    return std::move(result.standardError);
}

std::optional<std::filesystem::path> executableOnPath(std::string_view name) {
    const char* variable = std::getenv("PATH");
    const std::string_view folders = variable != nullptr ? variable : "";
    std::size_t start = 0;
    while (start <= folders.size()) {
        const auto end = std::min(folders.find(':', start), folders.size());
        const auto folder = folders.substr(start, end - start);
        start = end + 1;
        // An empty or relative entry means a folder below the working one; a package manager
        // is never taken from wherever the program happens to have been started.
        if (folder.empty() || folder.front() != '/') {
            continue;
        }
        auto candidate = std::filesystem::path(folder) / name;
        std::error_code error;
        if (std::filesystem::is_regular_file(candidate, error) &&
            ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

} // namespace quorlin

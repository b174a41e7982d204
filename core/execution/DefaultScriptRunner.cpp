#include "DefaultScriptRunner.h"

#include "core/foundation/ChildProcess.h"
#include "core/foundation/Text.h"
#include "core/runtimes/InterpreterLocator.h"

#include <chrono>
#include <system_error>

namespace quorlin {

namespace {

std::string utf8OrEmpty(const std::string& bytes) {
    return isValidUtf8(bytes) ? bytes : std::string();
}

} // namespace

DefaultScriptRunner::DefaultScriptRunner(WorkflowBundleLocator locator,
                                         RuntimeProvider runtimeProvider)
    : locator_(std::move(locator)), runtimeProvider_(std::move(runtimeProvider)) {
    if (!runtimeProvider_) {
        runtimeProvider_ = [resources = locator_.resources(),
                            paths = locator_.paths()](ScriptRuntime runtime) {
            return defaultRuntimePath(runtime, resources, paths);
        };
    }
}

std::filesystem::path DefaultScriptRunner::scriptPath(const ScriptInvocation& invocation,
                                                      const std::string& relativePath) const {
    const std::string& workflowID = invocation.workflowID;
    // A plain substring test, on purpose: no spelling of a parent step gets through.
    if (relativePath.find("..") != std::string::npos) {
        throw ScriptRunnerError::invalidPath(relativePath);
    }
    std::filesystem::path root;
    if (invocation.bundleDirectory) {
        root = *invocation.bundleDirectory;
    } else if (const auto installed = locator_.activeInstalledWorkflowReference(workflowID)) {
        root = installed->directory;
    } else if (const auto workflows = locator_.resources().workflowsDirectory()) {
        root = *workflows / workflowID;
    } else {
        throw ScriptRunnerError::workflowNotFound(workflowID);
    }
    // Appended as text, so an absolute relativePath stays inside the bundle.
    const std::filesystem::path script(root.string() + "/" + relativePath);
    std::error_code error;
    if (!std::filesystem::exists(script, error)) {
        throw ScriptRunnerError::scriptNotFound(relativePath);
    }
    return script.lexically_normal();
}

std::filesystem::path DefaultScriptRunner::defaultRuntimePath(ScriptRuntime runtime,
                                                              const QuorlinResources& resources,
                                                              const AppSupportPaths& paths) {
    if (auto interpreter = chosenInterpreter(runtime, resources, paths)) {
        return std::move(*interpreter);
    }
    throw ScriptRunnerError::runtimeNotFound(runtime);
}

ScriptResult DefaultScriptRunner::run(const ScriptInvocation& invocation,
                                      std::stop_token stopToken) {
    const auto script = scriptPath(invocation, invocation.spec.relativePath);
    const auto interpreter = runtimeProvider_(invocation.spec.runtime);

    ChildProcessRequest request;
    request.executable = interpreter;
    request.arguments = {script.string()};
    request.environment = processEnvironment({{"PYTHONUNBUFFERED", "1"}});
    for (const auto& [key, value] : invocation.environment) {
        request.environment[key] = value;
    }
    request.workingDirectory = invocation.workingDirectory;
    request.standardInput = invocation.inputJSON;
    request.timeout = std::chrono::duration<double>(std::max(0.0, invocation.spec.timeoutSeconds));
    request.outputLimit = invocation.spec.outputLimitBytes;
    request.onStandardError = invocation.onStandardError;

    const auto launched = std::chrono::steady_clock::now();
    ChildProcessResult finished;
    try {
        finished = runChildProcess(request, stopToken);
    } catch (const ChildProcessError& error) {
        if (error.kind() == ChildProcessError::Kind::timedOut) {
            throw ScriptRunnerError::timedOut(invocation.spec.timeoutSeconds);
        }
        if (error.kind() == ChildProcessError::Kind::outputTooLarge) {
            throw ScriptRunnerError::outputTooLarge(invocation.stepID, error.stream(),
                                                    error.outputLimit());
        }
        throw;
    }
    ScriptResult result;
    result.exitCode = finished.exitCode;
    result.stdoutData = std::move(finished.standardOutput);
    result.stderrData = std::move(finished.standardError);
    result.duration =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - launched).count();
    if (result.exitCode != 0) {
        throw ScriptRunnerError::nonZeroExitCode(result.exitCode, utf8OrEmpty(result.stderrData));
    }
    return result;
}

} // namespace quorlin

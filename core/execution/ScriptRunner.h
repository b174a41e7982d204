#pragma once

#include "core/definitions/ScriptRuntime.h"
#include "core/foundation/ChildProcess.h"
#include "core/foundation/Error.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

namespace quorlin {

struct ScriptSpec {
    ScriptRuntime runtime = ScriptRuntime::python;
    // Relative to the workflow's bundle directory.
    std::string relativePath;
    double timeoutSeconds = 60;
    // The most kept of stdout and of stderr each; a script that prints more fails.
    std::size_t outputLimitBytes = defaultChildOutputLimit;
};

struct ScriptInvocation {
    std::string workflowID;
    std::string stepID; // for the words of a failure
    // Where the scripts are, for a bundle run in place from its folder; otherwise they
    // are looked up by the workflow id.
    std::optional<std::filesystem::path> bundleDirectory;
    ScriptSpec spec;
    std::string inputJSON; // bytes for stdin
    // Laid over the inherited environment.
    std::map<std::string, std::string> environment;
    std::optional<std::filesystem::path> workingDirectory;
    // Each piece of the script's stderr as it arrives, on the running thread.
    std::function<void(std::string_view)> onStandardError;
};

struct ScriptResult {
    std::int32_t exitCode = 0;
    std::string stdoutData;
    std::string stderrData;
    double duration = 0; // seconds from launch to the end of reading
};

class ScriptRunnerError : public Error {
public:
    enum class Kind {
        workflowNotFound,
        scriptNotFound,
        runtimeNotFound,
        invalidPath,
        timedOut,
        nonZeroExitCode,
        invalidJSONOutput,
        outputTooLarge
    };

    static ScriptRunnerError workflowNotFound(const std::string& workflowID);
    static ScriptRunnerError scriptNotFound(const std::string& relativePath);
    static ScriptRunnerError runtimeNotFound(ScriptRuntime runtime);
    static ScriptRunnerError invalidPath(const std::string& relativePath);
    static ScriptRunnerError timedOut(double limitSeconds);
    static ScriptRunnerError nonZeroExitCode(std::int32_t code, const std::string& stderrText);
    static ScriptRunnerError invalidJSONOutput(const std::string& stdoutText);
    static ScriptRunnerError outputTooLarge(const std::string& stepID, const std::string& stream,
                                            std::size_t limitBytes);

    // text: the workflow id, path, stderr or stdout of the case, or the step that printed
    // too much; number: the time limit, the exit code or the output limit; runtime: for
    // runtimeNotFound; stream: "stdout" or "stderr" for outputTooLarge.
    ScriptRunnerError(Kind kind, std::string text, double number = 0,
                      ScriptRuntime runtime = ScriptRuntime::python,
                      const std::string& stream = {});

    Kind kind() const { return kind_; }
    const std::string& text() const { return text_; }

private:
    Kind kind_;
    std::string text_;
};

// Runs one script to its end. Returns only for exit status 0; every other ending is an
// error. A stop request terminates the script.
class ScriptRunner {
public:
    virtual ~ScriptRunner() = default;
    virtual ScriptResult run(const ScriptInvocation& invocation, std::stop_token stopToken) = 0;
};

} // namespace quorlin

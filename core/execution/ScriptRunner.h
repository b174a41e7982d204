#pragma once

#include "core/definitions/ScriptRuntime.h"
#include "core/foundation/Error.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stop_token>
#include <string>

namespace quorlin {

struct ScriptSpec {
    ScriptRuntime runtime = ScriptRuntime::python;
    // Relative to the workflow's bundle directory.
    std::string relativePath;
    double timeoutSeconds = 60;
};

struct ScriptInvocation {
    std::string workflowID;
    ScriptSpec spec;
    std::string inputJSON; // bytes for stdin
    // Laid over the inherited environment.
    std::map<std::string, std::string> environment;
    std::optional<std::filesystem::path> workingDirectory;
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
        invalidJSONOutput
    };

    static ScriptRunnerError workflowNotFound(const std::string& workflowID);
    static ScriptRunnerError scriptNotFound(const std::string& relativePath);
    static ScriptRunnerError runtimeNotFound(ScriptRuntime runtime);
    static ScriptRunnerError invalidPath(const std::string& relativePath);
    static ScriptRunnerError timedOut(double limitSeconds);
    static ScriptRunnerError nonZeroExitCode(std::int32_t code, const std::string& stderrText);
    static ScriptRunnerError invalidJSONOutput(const std::string& stdoutText);

    // text: the workflow id, path, stderr or stdout of the case; number: the time limit
    // or the exit code; runtime: for runtimeNotFound.
    ScriptRunnerError(Kind kind, std::string text, double number = 0,
                      ScriptRuntime runtime = ScriptRuntime::python);

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

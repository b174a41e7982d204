#include "ScriptRunner.h"

#include "core/foundation/Text.h"

#include <cmath>

namespace quorlin {

namespace {

std::string describe(ScriptRunnerError::Kind kind, const std::string& text, double number,
                     ScriptRuntime runtime, const std::string& stream) {
    using Kind = ScriptRunnerError::Kind;
    switch (kind) {
    case Kind::workflowNotFound:
        return "Workflow not found: " + text;
    case Kind::scriptNotFound:
        return "Workflow script not found: " + text;
    case Kind::runtimeNotFound:
        return std::string(rawValue(runtime)) +
               " runtime not found. Install it from Settings first.";
    case Kind::invalidPath:
        return "Invalid script path: " + text;
    case Kind::timedOut:
        // The limit is shown in whole seconds, the fraction dropped.
        return "Script timed out after " +
               std::to_string(static_cast<long long>(std::trunc(number))) + "s.";
    case Kind::nonZeroExitCode: {
        const std::string detail = trimmed(text);
        const std::string code = std::to_string(static_cast<long long>(number));
        return detail.empty() ? "Script failed with exit code " + code + "."
                              : "Script failed with exit code " + code + ": " + detail;
    }
    case Kind::invalidJSONOutput:
        return "Script output isn't valid JSON: " + text;
    case Kind::outputTooLarge:
        return "Step " + text + " wrote more than " +
               byteSizeText(static_cast<std::uint64_t>(number)) + " to " + stream +
               "; set max_output_bytes in its config to allow more.";
    }
    return text;
}

} // namespace

ScriptRunnerError::ScriptRunnerError(Kind kind, std::string text, double number,
                                     ScriptRuntime runtime, const std::string& stream)
    : Error(describe(kind, text, number, runtime, stream)), kind_(kind), text_(std::move(text)) {}

ScriptRunnerError ScriptRunnerError::outputTooLarge(const std::string& stepID,
                                                    const std::string& stream,
                                                    std::size_t limitBytes) {
    return {Kind::outputTooLarge, stepID, static_cast<double>(limitBytes), ScriptRuntime::python,
            stream};
}

ScriptRunnerError ScriptRunnerError::workflowNotFound(const std::string& workflowID) {
    return {Kind::workflowNotFound, workflowID};
}

ScriptRunnerError ScriptRunnerError::scriptNotFound(const std::string& relativePath) {
    return {Kind::scriptNotFound, relativePath};
}

ScriptRunnerError ScriptRunnerError::runtimeNotFound(ScriptRuntime runtime) {
    return {Kind::runtimeNotFound, {}, 0, runtime};
}

ScriptRunnerError ScriptRunnerError::invalidPath(const std::string& relativePath) {
    return {Kind::invalidPath, relativePath};
}

ScriptRunnerError ScriptRunnerError::timedOut(double limitSeconds) {
    return {Kind::timedOut, {}, limitSeconds};
}

ScriptRunnerError ScriptRunnerError::nonZeroExitCode(std::int32_t code,
                                                     const std::string& stderrText) {
    return {Kind::nonZeroExitCode, stderrText, static_cast<double>(code)};
}

ScriptRunnerError ScriptRunnerError::invalidJSONOutput(const std::string& stdoutText) {
    return {Kind::invalidJSONOutput, stdoutText};
}

} // namespace quorlin

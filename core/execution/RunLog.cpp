#include "RunLog.h"

#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/execution/NativeStepResult.h"
#include "core/foundation/Error.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <chrono>

namespace quorlin {

namespace {

std::vector<std::string> sortedKeys(const auto& map) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : map) {
        keys.push_back(key);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

} // namespace

void RunLog::record(const FlowStep& step, const GenericScriptStepRunResult& result) {
    if (auto text = trimmed(result.stdoutText); !text.empty()) {
        stdoutParts.push_back(std::move(text));
    }
    if (auto text = trimmed(result.stderrText); !text.empty()) {
        stderrParts.push_back(std::move(text));
    }
    previousOutputs[step.id] = result.previousOutput;
    stepOutputs[step.id] = result.outputs;
    stepTimings.push_back({step.id, step.name, result.duration});
    stepRecords.push_back({step.id, step.name, result.inputJSON, result.outputJSON, std::nullopt});
}

void RunLog::recordFailure(const FlowStep& step, SystemTime stepStartedAt,
                           const std::exception& error) {
    // No result exists, so the clock measures the step.
    stepTimings.push_back(
        {step.id, step.name, secondsBetween(stepStartedAt, std::chrono::system_clock::now())});

    // What the step could see, not what it resolved: its inputs may hold anything.
    nlohmann::json input;
    if (step.config) {
        input["config"] = toJson(*step.config);
    }
    input["previousOutputStepIDs"] = sortedKeys(previousOutputs);
    input["stepOutputStepIDs"] = sortedKeys(stepOutputs);
    const nlohmann::json errorPayload{{"message", error.what()},
                                      {"errorType", dynamicTypeName(error)}};
    stepRecords.push_back({step.id, step.name, auditPayloadJson(input), std::nullopt,
                           auditPayloadJson(errorPayload)});
}

} // namespace quorlin

#include "NativeStepResult.h"

#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/Json.h"

#include <chrono>

namespace quorlin {

std::string auditPayloadJson(const nlohmann::json& payload) {
    return prettySortedJson(payload);
}

GenericScriptStepRunResult nativeStepResult(const WorkflowValueMap& input,
                                            const WorkflowValueMap& output, SystemTime startedAt) {
    const std::string outputText = compactJson(toJson(output));
    GenericScriptStepRunResult result;
    result.stdoutText = outputText;
    result.previousOutput = outputText;
    result.outputs = output;
    result.inputJSON = auditPayloadJson(toJson(input));
    result.outputJSON = outputText;
    result.duration = secondsBetween(startedAt, std::chrono::system_clock::now());
    return result;
}

} // namespace quorlin

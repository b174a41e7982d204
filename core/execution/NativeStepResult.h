#pragma once

#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/foundation/LocalTime.h"

namespace quorlin {

// The result most native steps end in: the output map as working JSON (which is also
// what later steps see as this step's previous output), the input map as audit JSON.
GenericScriptStepRunResult nativeStepResult(const WorkflowValueMap& input,
                                            const WorkflowValueMap& output, SystemTime startedAt);

// The audit form of a payload: pretty-printed with sorted keys.
std::string auditPayloadJson(const nlohmann::json& payload);

} // namespace quorlin

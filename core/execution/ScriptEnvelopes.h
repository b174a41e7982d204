#pragma once

#include "core/definitions/WorkflowValue.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quorlin {

using PreviousOutputs = std::map<std::string, std::string>;

// stdin of a plain "script-run" step.
struct GenericScriptInput {
    std::string flowID;
    std::string flowName;
    std::string stepID;
    PreviousOutputs previousOutputs;
};

// What a script block learns about the run it is part of.
struct ScriptBlockExecutionContext {
    std::string workflowID;
    std::string flowName;
    std::string stepID;
    std::string blockID;
    std::string blockVersion;
    std::string bundleRoot;
    std::string stagingDirectory;
    PreviousOutputs previousOutputs;
};

// stdin of a script block.
struct ScriptBlockInputEnvelope {
    WorkflowValueMap inputs;
    ScriptBlockExecutionContext context;
};

// stdout of a script block.
struct ScriptBlockOutputEnvelope {
    WorkflowValueMap outputs;
    std::optional<WorkflowValueMap> audit;
};

nlohmann::ordered_json toJson(const GenericScriptInput& input);
nlohmann::ordered_json toJson(const ScriptBlockInputEnvelope& envelope);

// Reads a block's stdout; nullopt when it is not JSON or not of the envelope's shape.
std::optional<ScriptBlockOutputEnvelope> decodeScriptBlockOutputEnvelope(std::string_view text);

// Reads a plain script's stdout as a map of outputs; nullopt when it is not a JSON object.
std::optional<WorkflowValueMap> decodeWorkflowValueMap(std::string_view text);

} // namespace quorlin

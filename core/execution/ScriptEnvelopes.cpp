#include "ScriptEnvelopes.h"

#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/Json.h"

namespace quorlin {

namespace {

nlohmann::ordered_json toOrderedJson(const PreviousOutputs& outputs) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    for (const auto& [stepID, text] : outputs) {
        json[stepID] = text;
    }
    return json;
}

std::optional<WorkflowValueMap> mapFromJson(const nlohmann::json& json) {
    if (!json.is_object()) {
        return std::nullopt;
    }
    WorkflowValueMap map;
    for (const auto& [key, value] : json.items()) {
        map.emplace(key, workflowValueFromJson(value));
    }
    return map;
}

} // namespace

nlohmann::ordered_json toJson(const GenericScriptInput& input) {
    nlohmann::ordered_json json;
    json["flow_id"] = input.flowID;
    json["flow_name"] = input.flowName;
    json["step_id"] = input.stepID;
    json["previous_outputs"] = toOrderedJson(input.previousOutputs);
    return json;
}

nlohmann::ordered_json toJson(const ScriptBlockInputEnvelope& envelope) {
    nlohmann::ordered_json context;
    context["workflow_id"] = envelope.context.workflowID;
    context["flow_name"] = envelope.context.flowName;
    context["step_id"] = envelope.context.stepID;
    context["block_id"] = envelope.context.blockID;
    context["block_version"] = envelope.context.blockVersion;
    context["bundle_root"] = envelope.context.bundleRoot;
    context["staging_dir"] = envelope.context.stagingDirectory;
    context["previous_outputs"] = toOrderedJson(envelope.context.previousOutputs);

    nlohmann::ordered_json json;
    json["inputs"] = nlohmann::ordered_json::parse(toJson(envelope.inputs).dump());
    json["context"] = std::move(context);
    return json;
}

std::optional<ScriptBlockOutputEnvelope> decodeScriptBlockOutputEnvelope(std::string_view text) {
    const auto json = parseJsonOrDiscarded(text);
    if (!json.is_object() || !json.contains("outputs")) {
        return std::nullopt;
    }
    auto outputs = mapFromJson(json.at("outputs"));
    if (!outputs) {
        return std::nullopt;
    }
    ScriptBlockOutputEnvelope envelope{std::move(*outputs), std::nullopt};
    if (const auto audit = json.find("audit"); audit != json.end() && !audit->is_null()) {
        envelope.audit = mapFromJson(*audit);
        if (!envelope.audit) {
            return std::nullopt;
        }
    }
    return envelope;
}

std::optional<WorkflowValueMap> decodeWorkflowValueMap(std::string_view text) {
    return mapFromJson(parseJsonOrDiscarded(text));
}

} // namespace quorlin

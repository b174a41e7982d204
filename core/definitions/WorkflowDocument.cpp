#include "WorkflowDocument.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/RecordDecoding.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/Text.h"

namespace quorlin {

namespace {

ROIConfiguration decodeROI(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.optionalInteger("replaces_manual_minutes_per_run"),
            fields.optionalInteger("expected_runs_per_month")};
}

WorkflowLLMRequirement decodeLLMRequirement(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.optionalText("label"), fields.optionalText("default"),
            fields.optionalTextList("allowed"), fields.optionalText("quality_hint")};
}

std::map<std::string, WorkflowLLMRequirement> decodeLLMRequirements(const YamlNode& node,
                                                                    const std::string& path) {
    if (!node.isMapping()) {
        throwTypeMismatch(node, path, "a mapping");
    }
    std::map<std::string, WorkflowLLMRequirement> result;
    for (const auto& [role, value] : node.entries) {
        result.insert_or_assign(role, decodeLLMRequirement(value, keyPath(path, role)));
    }
    return result;
}

TriggerDefinition decodeTrigger(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.requiredText("type"), fields.optionalText("cron")};
}

StepOutputDefinition decodeStepOutput(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.requiredText("name"), fields.requiredText("type"),
            fields.optionalValueMap("schema")};
}

std::optional<StepErrorBehavior> decodeErrorBehavior(const Fields& fields) {
    const auto raw = fields.optionalText("on_error");
    if (!raw) {
        return std::nullopt;
    }
    if (*raw == "warn") {
        return StepErrorBehavior::warn;
    }
    if (*raw == "halt") {
        return StepErrorBehavior::halt;
    }
    throwTypeMismatch(*fields.optional("on_error"), fields.path("on_error"),
                      "\"warn\" or \"halt\"");
}

FlowStep decodeStep(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    FlowStep step;
    step.id = fields.requiredText("id");
    step.name = fields.requiredText("name");
    step.block = fields.optionalText("block");
    step.type = fields.requiredText("type");
    step.action = fields.optionalValueMap("action");
    step.inputs = fields.optionalValueMap("inputs");
    step.outputs = fields.optionalSequence("outputs", decodeStepOutput);
    step.config = fields.optionalValueMap("config");
    // The one default supplied on reading: no capabilities key means none.
    step.capabilities =
        fields.optionalTextList("capabilities").value_or(std::vector<std::string>{});
    step.onError = decodeErrorBehavior(fields);
    step.replacesManualMinutes = fields.optionalInteger("replaces_manual_minutes");
    return step;
}

ArtifactField decodeArtifactField(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.requiredText("label"), fields.requiredText("value")};
}

ArtifactDefinition decodeArtifact(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.requiredText("type"), fields.optionalText("path"), fields.optionalText("label"),
            fields.optionalText("action"), fields.optionalSequence("fields", decodeArtifactField)};
}

AuditConfiguration decodeAudit(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.optionalBool("record_llm_calls"), fields.optionalBool("record_cost"),
            fields.optionalBool("record_manual_minutes_replaced"),
            fields.optionalBool("record_step_timings"),
            fields.optionalBool("record_file_operations")};
}

StepFailurePolicy decodeFailurePolicy(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.optionalText("default"), fields.optionalText("quarantine_folder")};
}

FlowDefinition decodeFlow(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    FlowDefinition flow;
    flow.id = fields.requiredText("id");
    flow.name = fields.requiredText("name");
    flow.version = fields.requiredText("version");
    flow.description = fields.optionalText("description");
    flow.requiresProfileSchema = fields.optionalTextList("requires_profile_schema");
    flow.roi = fields.optionalRecord("roi", decodeROI);
    flow.llmRequirements = fields.optionalRecord("llm_requirements", decodeLLMRequirements);
    flow.triggers = fields.requiredSequence("triggers", decodeTrigger);
    flow.steps = fields.requiredSequence("steps", decodeStep);
    flow.artifacts = fields.optionalSequence("artifacts", decodeArtifact);
    flow.audit = fields.optionalRecord("audit", decodeAudit);
    flow.onStepFailure = fields.optionalRecord("on_step_failure", decodeFailurePolicy);
    return flow;
}

// Writes the optional fields that are present, under their file keys.
template <typename Value>
void putOptional(nlohmann::ordered_json& object, const char* key,
                 const std::optional<Value>& value) {
    if (value) {
        object[key] = *value;
    }
}

void putOptional(nlohmann::ordered_json& object, const char* key,
                 const std::optional<WorkflowValueMap>& value) {
    if (value) {
        object[key] = nlohmann::ordered_json(toJson(*value));
    }
}

nlohmann::ordered_json toJson(const TriggerDefinition& trigger) {
    nlohmann::ordered_json object{{"type", trigger.type}};
    putOptional(object, "cron", trigger.cron);
    return object;
}

nlohmann::ordered_json toJson(const StepOutputDefinition& output) {
    nlohmann::ordered_json object{{"name", output.name}, {"type", output.type}};
    putOptional(object, "schema", output.schema);
    return object;
}

nlohmann::ordered_json toJson(const ArtifactDefinition& artifact) {
    nlohmann::ordered_json object{{"type", artifact.type}};
    putOptional(object, "path", artifact.path);
    putOptional(object, "label", artifact.label);
    putOptional(object, "action", artifact.action);
    if (artifact.fields) {
        auto& fields = object["fields"] = nlohmann::ordered_json::array();
        for (const auto& field : *artifact.fields) {
            fields.push_back({{"label", field.label}, {"value", field.value}});
        }
    }
    return object;
}

template <typename Record> nlohmann::ordered_json arrayOf(const std::vector<Record>& records) {
    auto array = nlohmann::ordered_json::array();
    for (const auto& record : records) {
        array.push_back(toJson(record));
    }
    return array;
}

} // namespace

bool FlowStep::requiresNetworkCapability() const {
    for (const auto& capability : capabilities) {
        const auto word = lowercased(capability);
        if (word == "network" || word == "internet" || startsWith(word, "network.")) {
            return true;
        }
    }
    return false;
}

WorkflowDocument decodeWorkflowDocument(const YamlNode& root) {
    // An empty file reads as an empty scalar: it lacks the one required key.
    if (isYamlNull(root)) {
        throw DecodingError(DecodingError::Kind::keyNotFound, "", "flow", {}, root.mark);
    }
    const Fields fields(root, "");
    return {decodeFlow(fields.required("flow"), "flow")};
}

WorkflowDocument decodeWorkflowDocumentYaml(std::string_view text) {
    return decodeWorkflowDocument(parseYaml(text));
}

WorkflowDocument decodeWorkflowDocumentJson(const nlohmann::json& json) {
    return decodeWorkflowDocument(yamlNodeFromJson(json));
}

FlowStep decodeFlowStep(const YamlNode& node) {
    return decodeStep(node, "");
}

nlohmann::ordered_json toJson(const FlowStep& step) {
    nlohmann::ordered_json object{{"id", step.id}, {"name", step.name}};
    putOptional(object, "block", step.block);
    object["type"] = step.type;
    putOptional(object, "action", step.action);
    putOptional(object, "inputs", step.inputs);
    if (step.outputs) {
        object["outputs"] = arrayOf(*step.outputs);
    }
    putOptional(object, "config", step.config);
    object["capabilities"] = step.capabilities;
    if (step.onError) {
        object["on_error"] = *step.onError == StepErrorBehavior::warn ? "warn" : "halt";
    }
    putOptional(object, "replaces_manual_minutes", step.replacesManualMinutes);
    return object;
}

nlohmann::ordered_json toJson(const FlowDefinition& flow) {
    nlohmann::ordered_json object{{"id", flow.id}, {"name", flow.name}, {"version", flow.version}};
    putOptional(object, "description", flow.description);
    putOptional(object, "requires_profile_schema", flow.requiresProfileSchema);
    if (flow.roi) {
        auto& roi = object["roi"] = nlohmann::ordered_json::object();
        putOptional(roi, "replaces_manual_minutes_per_run", flow.roi->replacesManualMinutesPerRun);
        putOptional(roi, "expected_runs_per_month", flow.roi->expectedRunsPerMonth);
    }
    if (flow.llmRequirements) {
        auto& requirements = object["llm_requirements"] = nlohmann::ordered_json::object();
        for (const auto& [role, requirement] : *flow.llmRequirements) {
            auto& entry = requirements[role] = nlohmann::ordered_json::object();
            putOptional(entry, "label", requirement.label);
            putOptional(entry, "default", requirement.defaultProvider);
            putOptional(entry, "allowed", requirement.allowed);
            putOptional(entry, "quality_hint", requirement.qualityHint);
        }
    }
    object["triggers"] = arrayOf(flow.triggers);
    object["steps"] = arrayOf(flow.steps);
    if (flow.artifacts) {
        object["artifacts"] = arrayOf(*flow.artifacts);
    }
    if (flow.audit) {
        auto& audit = object["audit"] = nlohmann::ordered_json::object();
        putOptional(audit, "record_llm_calls", flow.audit->recordLLMCalls);
        putOptional(audit, "record_cost", flow.audit->recordCost);
        putOptional(audit, "record_manual_minutes_replaced",
                    flow.audit->recordManualMinutesReplaced);
        putOptional(audit, "record_step_timings", flow.audit->recordStepTimings);
        putOptional(audit, "record_file_operations", flow.audit->recordFileOperations);
    }
    if (flow.onStepFailure) {
        auto& policy = object["on_step_failure"] = nlohmann::ordered_json::object();
        putOptional(policy, "default", flow.onStepFailure->defaultBehavior);
        putOptional(policy, "quarantine_folder", flow.onStepFailure->quarantineFolder);
    }
    return object;
}

nlohmann::ordered_json toJson(const WorkflowDocument& document) {
    return nlohmann::ordered_json{{"flow", toJson(document.flow)}};
}

} // namespace quorlin

#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/YamlNode.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin {

// The records of a flow.yaml. Every optional field stays absent when the file leaves it
// out; the code that consumes it decides what absence means. The one default supplied
// on reading is FlowStep::capabilities (empty).

struct ROIConfiguration {
    std::optional<std::int64_t> replacesManualMinutesPerRun;
    std::optional<std::int64_t> expectedRunsPerMonth;
    friend bool operator==(const ROIConfiguration&, const ROIConfiguration&) = default;
};

struct WorkflowLLMRequirement {
    std::optional<std::string> label;
    std::optional<std::string> defaultProvider; // key "default"
    std::optional<std::vector<std::string>> allowed;
    std::optional<std::string> qualityHint;
    friend bool operator==(const WorkflowLLMRequirement&, const WorkflowLLMRequirement&) = default;
};

struct TriggerDefinition {
    std::string type;
    std::optional<std::string> cron;
    friend bool operator==(const TriggerDefinition&, const TriggerDefinition&) = default;
};

struct StepOutputDefinition {
    std::string name;
    std::string type;
    std::optional<WorkflowValueMap> schema;
    friend bool operator==(const StepOutputDefinition&, const StepOutputDefinition&) = default;
};

// Read, carried and shown; a failed step halts its run whatever this says.
enum class StepErrorBehavior { warn, halt };

struct FlowStep {
    std::string id;
    std::string name;
    std::optional<std::string> block;
    std::string type;
    std::optional<WorkflowValueMap> action;
    std::optional<WorkflowValueMap> inputs;
    std::optional<std::vector<StepOutputDefinition>> outputs;
    std::optional<WorkflowValueMap> config;
    std::vector<std::string> capabilities;
    std::optional<StepErrorBehavior> onError;
    std::optional<std::int64_t> replacesManualMinutes;

    // True when a capability, lowercased, is "network" or "internet" or begins with
    // "network.".
    bool requiresNetworkCapability() const;

    friend bool operator==(const FlowStep&, const FlowStep&) = default;
};

struct ArtifactField {
    std::string label;
    std::string value;
    friend bool operator==(const ArtifactField&, const ArtifactField&) = default;
};

struct ArtifactDefinition {
    std::string type;
    std::optional<std::string> path;
    std::optional<std::string> label;
    std::optional<std::string> action;
    std::optional<std::vector<ArtifactField>> fields;
    friend bool operator==(const ArtifactDefinition&, const ArtifactDefinition&) = default;
};

struct AuditConfiguration {
    std::optional<bool> recordLLMCalls;
    std::optional<bool> recordCost;
    std::optional<bool> recordManualMinutesReplaced;
    std::optional<bool> recordStepTimings;
    std::optional<bool> recordFileOperations;
    friend bool operator==(const AuditConfiguration&, const AuditConfiguration&) = default;
};

struct StepFailurePolicy {
    std::optional<std::string> defaultBehavior; // key "default"; plain text
    std::optional<std::string> quarantineFolder;
    friend bool operator==(const StepFailurePolicy&, const StepFailurePolicy&) = default;
};

struct FlowDefinition {
    std::string id;
    std::string name;
    std::string version;
    std::optional<std::string> description;
    std::optional<std::vector<std::string>> requiresProfileSchema;
    std::optional<ROIConfiguration> roi;
    std::optional<std::map<std::string, WorkflowLLMRequirement>> llmRequirements;
    std::vector<TriggerDefinition> triggers;
    std::vector<FlowStep> steps;
    std::optional<std::vector<ArtifactDefinition>> artifacts;
    std::optional<AuditConfiguration> audit;
    std::optional<StepFailurePolicy> onStepFailure;
    friend bool operator==(const FlowDefinition&, const FlowDefinition&) = default;
};

struct WorkflowDocument {
    FlowDefinition flow;
    friend bool operator==(const WorkflowDocument&, const WorkflowDocument&) = default;
};

// Decoders: any missing required key, any scalar that does not fit its field and any
// syntax error fails the whole document (DecodingError or YamlError); unknown keys are
// ignored at every level.
WorkflowDocument decodeWorkflowDocument(const YamlNode& root);
WorkflowDocument decodeWorkflowDocumentYaml(std::string_view text);
WorkflowDocument decodeWorkflowDocumentJson(const nlohmann::json& json);
FlowStep decodeFlowStep(const YamlNode& node);

// Encoders write keys under their file names in field order, leave out absent optional
// fields, and always write "capabilities".
nlohmann::ordered_json toJson(const WorkflowDocument& document);
nlohmann::ordered_json toJson(const FlowDefinition& flow);
nlohmann::ordered_json toJson(const FlowStep& step);

} // namespace quorlin

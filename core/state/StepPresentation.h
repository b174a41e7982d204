#pragma once

#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowValue.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// What kind of work a step is, for its colour: plain code, a model, or a person.
enum class StepAccent { deterministic, llm, human };

struct StepKeyValuePresentation {
    std::string id;
    std::string key;
    std::string value;
    friend bool operator==(const StepKeyValuePresentation&,
                           const StepKeyValuePresentation&) = default;
};

struct StepOutputPresentation {
    std::string id;
    std::string name;
    std::string type;
    std::vector<StepKeyValuePresentation> schema;
    friend bool operator==(const StepOutputPresentation&, const StepOutputPresentation&) = default;
};

// One step as the step sheet shows it, every value already text.
struct StepPresentation {
    std::string id;
    std::string title;
    std::string role;
    StepAccent accent = StepAccent::deterministic;
    std::string type;
    std::vector<StepKeyValuePresentation> actionItems;
    std::vector<StepKeyValuePresentation> inputItems;
    std::vector<StepKeyValuePresentation> configItems;
    std::vector<StepOutputPresentation> outputItems;
    std::vector<std::string> capabilities;
    bool requiresNetwork = false;
    std::optional<std::string> onError; // "halt" or "warn"
    std::optional<std::int64_t> replacesManualMinutes;
    friend bool operator==(const StepPresentation&, const StepPresentation&) = default;
};

StepPresentation makeStepPresentation(const FlowStep& step);

// An approval step is a person's, a step whose type names an LLM or that has an LLM role
// is a model's, the rest is code.
StepAccent accentFor(const FlowStep& step);

// A value as one line of text: strings as they are, numbers in decimal, arrays and
// objects (keys sorted, "key: value") joined by ", ".
std::string renderWorkflowValue(const WorkflowValue& value);

// One row per key, sorted, each with the id "<prefix>-<key>".
std::vector<StepKeyValuePresentation> makeKeyValueItems(const std::optional<WorkflowValueMap>& map,
                                                        const std::string& prefix);

// "naming_proposal" → "Naming Proposal".
std::string humanizedLLMRole(std::string_view role);

// Whether a plugin's permissions reach the network: "network", or one beginning with
// "network.", "gmail.", "drive." or "google.", in any letter case.
bool permissionsRequireNetwork(const std::vector<std::string>& permissions);

} // namespace quorlin

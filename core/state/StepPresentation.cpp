#include "core/state/StepPresentation.h"

#include "core/foundation/Text.h"

#include <nlohmann/json.hpp>

namespace quorlin {

namespace {

std::optional<std::string> configString(const FlowStep& step, const char* key) {
    if (!step.config) {
        return std::nullopt;
    }
    const auto found = step.config->find(key);
    if (found == step.config->end() || found->second.string() == nullptr) {
        return std::nullopt;
    }
    return *found->second.string();
}

template <typename Items> std::string joined(const Items& items) {
    std::string text;
    for (const auto& item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

} // namespace

std::string renderWorkflowValue(const WorkflowValue& value) {
    if (const auto* text = value.string()) {
        return *text;
    }
    if (const auto* integer = value.integer()) {
        return std::to_string(*integer);
    }
    if (const auto* real = value.real()) {
        return nlohmann::json(*real).dump(); // the shortest text that reads back the same
    }
    if (const auto* flag = value.boolean()) {
        return *flag ? "true" : "false";
    }
    if (const auto* array = value.array()) {
        std::vector<std::string> parts;
        for (const auto& element : *array) {
            parts.push_back(renderWorkflowValue(element));
        }
        return joined(parts);
    }
    if (const auto* object = value.object()) {
        std::vector<std::string> parts;
        for (const auto& [key, element] : *object) {
            parts.push_back(key + ": " + renderWorkflowValue(element));
        }
        return joined(parts);
    }
    return "null";
}

std::vector<StepKeyValuePresentation> makeKeyValueItems(const std::optional<WorkflowValueMap>& map,
                                                        const std::string& prefix) {
    std::vector<StepKeyValuePresentation> items;
    if (map) {
        for (const auto& [key, value] : *map) { // a std::map: already sorted by key
            items.push_back({prefix + "-" + key, key, renderWorkflowValue(value)});
        }
    }
    return items;
}

StepAccent accentFor(const FlowStep& step) {
    if (step.type.find("approval") != std::string::npos) {
        return StepAccent::human;
    }
    if (step.type.find("llm") != std::string::npos ||
        (step.config && step.config->contains("llm_role"))) {
        return StepAccent::llm;
    }
    return StepAccent::deterministic;
}

std::string humanizedLLMRole(std::string_view role) {
    std::string text;
    for (std::size_t start = 0; start <= role.size();) {
        const auto end = std::min(role.find('_', start), role.size());
        std::string word(role.substr(start, end - start));
        if (!word.empty()) {
            word[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(word[0])));
        }
        text += (start == 0 ? "" : " ") + word;
        start = end + 1;
    }
    return text;
}

bool permissionsRequireNetwork(const std::vector<std::string>& permissions) {
    for (const auto& permission : permissions) {
        const auto lower = lowercased(permission);
        if (lower == "network" || lower.starts_with("network.") || lower.starts_with("gmail.") ||
            lower.starts_with("drive.") || lower.starts_with("google.")) {
            return true;
        }
    }
    return false;
}

StepPresentation makeStepPresentation(const FlowStep& step) {
    StepPresentation presentation;
    presentation.id = step.id;
    presentation.title = step.name;
    presentation.role = configString(step, "llm_role").value_or(step.type);
    presentation.accent = accentFor(step);
    presentation.type = step.type;
    presentation.actionItems = makeKeyValueItems(step.action, step.id + "-action");
    presentation.inputItems = makeKeyValueItems(step.inputs, step.id + "-input");
    presentation.configItems = makeKeyValueItems(step.config, step.id + "-config");
    for (const auto& output : step.outputs.value_or(std::vector<StepOutputDefinition>{})) {
        const std::string id = step.id + "-output-" + output.name;
        presentation.outputItems.push_back(
            {id, output.name, output.type, makeKeyValueItems(output.schema, id + "-schema")});
    }
    presentation.capabilities = step.capabilities;
    presentation.requiresNetwork = step.requiresNetworkCapability();
    if (step.onError) {
        presentation.onError = *step.onError == StepErrorBehavior::halt ? "halt" : "warn";
    }
    presentation.replacesManualMinutes = step.replacesManualMinutes;
    return presentation;
}

} // namespace quorlin

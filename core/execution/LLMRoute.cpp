#include "LLMRoute.h"

#include "core/foundation/Text.h"

namespace quorlin {

namespace {

std::optional<std::string> nonBlank(const std::optional<std::string>& candidate) {
    if (!candidate) {
        return std::nullopt;
    }
    std::string text = trimmed(*candidate);
    return text.empty() ? std::nullopt : std::optional(text);
}

std::optional<std::string> nonBlankModel(std::string_view text) {
    std::string model = trimmed(text);
    return model.empty() ? std::nullopt : std::optional(std::move(model));
}

std::optional<std::string> routeOfRole(const LLMRouting& routing, const std::string& role) {
    if (role == namingProposalRole) {
        return routing.namingProposal;
    }
    const auto found = routing.additionalRoutes.find(role);
    return found == routing.additionalRoutes.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> documentDefault(const std::string& role,
                                           const FlowDefinition& workflow) {
    if (workflow.llmRequirements) {
        if (const auto found = workflow.llmRequirements->find(role);
            found != workflow.llmRequirements->end()) {
            return found->second.defaultProvider;
        }
    }
    return std::nullopt;
}

std::optional<std::string> stepDefault(const FlowStep& step) {
    if (step.config) {
        if (const auto found = step.config->find("default_llm_provider");
            found != step.config->end()) {
            if (const auto* text = found->second.string()) {
                return *text;
            }
        }
    }
    return std::nullopt;
}

} // namespace

std::string resolvedLLMRoute(const std::string& role, const FlowDefinition& workflow,
                             const FlowStep& step, const ClientProfileDocument& clientProfile) {
    const std::string& workflowID = workflow.id;
    const auto& routing = clientProfile.clientProfile.llmRouting;
    for (const auto& candidate :
         {routing.stepProvider(workflowID, step.id), routing.workflowDefault(workflowID),
          routeOfRole(routing, role)}) {
        if (auto route = nonBlank(candidate)) {
            return *route;
        }
    }
    if (auto route = nonBlank(documentDefault(role, workflow))) {
        return *route;
    }
    if (auto route = nonBlank(stepDefault(step))) {
        return *route;
    }
    return trimmed(routing.provider(role));
}

std::optional<std::string> ollamaModel(const std::string& route, const AppSettings& settings) {
    if (startsWith(route, ollamaRoutePrefix)) {
        return nonBlankModel(std::string_view(route).substr(ollamaRoutePrefix.size()));
    }
    if (route == "ollama" || route == "local" || route == "local-llm") {
        return nonBlankModel(settings.localLLMModel);
    }
    return std::nullopt;
}

std::optional<std::string> anthropicModel(const std::string& route) {
    if (route == claudeSonnetRoute) {
        return std::string(claudeSonnetModel);
    }
    if (startsWith(route, anthropicRoutePrefix)) {
        return nonBlankModel(std::string_view(route).substr(anthropicRoutePrefix.size()));
    }
    if (startsWith(route, claudeModelPrefix)) {
        return route;
    }
    return std::nullopt;
}

} // namespace quorlin

#include "ScriptEnvironment.h"

#include "core/execution/LLMRoute.h"
#include "core/foundation/Text.h"

namespace quorlin {

namespace {

// The step's config "llm_role" when it is text, else the naming role.
std::string llmRole(const FlowStep& step) {
    if (step.config) {
        if (const auto found = step.config->find("llm_role"); found != step.config->end()) {
            if (const auto* role = found->second.string()) {
                return *role;
            }
        }
    }
    return std::string(namingProposalRole);
}

void addRoute(std::map<std::string, std::string>& environment, const std::string& route) {
    if (startsWith(route, ollamaRoutePrefix)) {
        if (auto model = trimmed(route.substr(ollamaRoutePrefix.size())); !model.empty()) {
            environment["LLM_PROVIDER"] = "ollama";
            environment["OLLAMA_MODEL"] = std::move(model);
        }
    } else if (route == claudeSonnetRoute) {
        environment["LLM_PROVIDER"] = "anthropic";
        environment["ANTHROPIC_MODEL"] = std::string(claudeSonnetModel);
    }
}

} // namespace

std::map<std::string, std::string> scriptEnvironment(const AppSupportPaths& paths,
                                                     const FlowDefinition& workflow,
                                                     const FlowStep& step, ScriptRuntime runtime,
                                                     const AppSettings& settings,
                                                     const ClientProfileDocument& clientProfile,
                                                     const EnvironmentOverrides& overrides) {
    std::map<std::string, std::string> environment;
    if (auto key = trimmed(settings.anthropicAPIKey); !key.empty()) {
        environment["ANTHROPIC_API_KEY"] = std::move(key);
    }
    if (auto url = trimmed(settings.ollamaURL); !url.empty()) {
        environment["OLLAMA_BASE_URL"] = std::move(url);
    }
    addRoute(environment, resolvedLLMRoute(llmRole(step), workflow, step, clientProfile));
    if (runtime == ScriptRuntime::python) {
        environment["PYTHONPATH"] = paths.pythonDependenciesDirectory(workflow.id).string();
    } else {
        environment["NODE_PATH"] =
            (paths.nodeDependenciesDirectory(workflow.id) / "node_modules").string();
    }
    for (const auto& [key, value] : overrides) {
        if (!trimmed(key).empty()) {
            environment[key] = value;
        }
    }
    return environment;
}

} // namespace quorlin

#pragma once

#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/stores/AppSettings.h"

#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// The route names a step's environment understands: Claude Sonnet on Anthropic, or a
// model on the local Ollama server ("ollama:<model>").
inline constexpr std::string_view claudeSonnetRoute = "claude-sonnet";
inline constexpr std::string_view ollamaRoutePrefix = "ollama:";
// The Anthropic model the "claude-sonnet" route stands for.
inline constexpr std::string_view claudeSonnetModel = "claude-3-7-sonnet-20250219";
// "anthropic:<model>" names any Anthropic model; so does a bare "claude-..." model name.
inline constexpr std::string_view anthropicRoutePrefix = "anthropic:";
inline constexpr std::string_view claudeModelPrefix = "claude-";

// The provider route for an LLM role in one step ("claude-sonnet", "ollama:qwen2.5:7b"):
// the first non-blank of the step's route, the workflow's default, the role's route in
// the profile, the workflow document's default for the role, the step's
// config "default_llm_provider", and finally the profile's provider for the role.
std::string resolvedLLMRoute(const std::string& role, const FlowDefinition& workflow,
                             const FlowStep& step, const ClientProfileDocument& clientProfile);

// The Ollama model a route asks for: the model after "ollama:", or the settings' local
// model for "ollama", "local" and "local-llm"; trimmed, and nothing when blank or when
// the route is not an Ollama one.
std::optional<std::string> ollamaModel(const std::string& route, const AppSettings& settings);

// The Anthropic model a route asks for: Claude Sonnet's for "claude-sonnet", the model
// after "anthropic:" (trimmed), or a "claude-..." route as it stands; nothing when blank or
// when the route is not an Anthropic one.
std::optional<std::string> anthropicModel(const std::string& route);

} // namespace quorlin

#pragma once

#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/WorkflowDocument.h"

#include <string>
#include <string_view>

namespace quorlin {

// The route names a step's environment understands: Claude Sonnet on Anthropic, or a
// model on the local Ollama server ("ollama:<model>").
inline constexpr std::string_view claudeSonnetRoute = "claude-sonnet";
inline constexpr std::string_view ollamaRoutePrefix = "ollama:";
// The Anthropic model the "claude-sonnet" route stands for.
inline constexpr std::string_view claudeSonnetModel = "claude-3-7-sonnet-20250219";

// The provider route for an LLM role in one step ("claude-sonnet", "ollama:qwen2.5:7b"):
// the first non-blank of the step's route, the workflow's default, the role's route in
// the profile, the workflow document's default for the role, the step's
// config "default_llm_provider", and finally the profile's provider for the role.
std::string resolvedLLMRoute(const std::string& role, const FlowDefinition& workflow,
                             const FlowStep& step, const ClientProfileDocument& clientProfile);

} // namespace quorlin

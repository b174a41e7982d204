#pragma once

#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowLoader.h"

#include <string>

namespace quorlin {

// The provider route for an LLM role in one step ("claude-sonnet", "ollama:qwen2.5:7b"):
// the first non-blank of the step's route, the workflow's default, the role's route in
// the profile, the workflow document's default for the role, the step's
// config "default_llm_provider", and finally the profile's provider for the role.
std::string resolvedLLMRoute(const std::string& role, const std::string& workflowID,
                             const FlowStep& step, const ClientProfileDocument& clientProfile,
                             const WorkflowLoader& loader);

} // namespace quorlin

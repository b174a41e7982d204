#pragma once

#include "core/execution/ScriptSteps.h"
#include "core/execution/StepHandler.h"
#include "core/services/AnthropicClient.h"

#include <memory>

namespace quorlin {

// "llm-generate-structured": renders the step's prompt file from the bundle with its
// resolved "context" input, asks the routed model (Ollama or Anthropic) for one JSON
// object and shapes it into the step's outputs, with the call's cost. When the call fails
// or no provider is set up, the step's fallback strategy (a bundled script or a
// rule-based news summary) gives the outputs instead, so a scheduled run still yields
// something. The Ollama address is the run's settings', read on each call. A paid call is
// refused, like a failed one, once the client profile's monthly budget is spent.
class LLMGenerateStructuredStepHandler final : public StepHandler {
public:
    LLMGenerateStructuredStepHandler(std::shared_ptr<const AnthropicClient> anthropicClient,
                                     WorkflowScriptLauncher launcher);
    GenericScriptStepRunResult run(const StepContext& context) const override;

    struct Plan;
    struct Answer;

private:
    Answer generate(const Plan& plan, const StepContext& context) const;
    Answer fallback(const StepContext& context, const Plan& plan,
                    const std::exception& error) const;
    Answer runFallbackScript(const StepContext& context, const Plan& plan,
                             const std::string& reason) const;

    std::shared_ptr<const AnthropicClient> anthropicClient_;
    WorkflowScriptLauncher launcher_;
};

} // namespace quorlin

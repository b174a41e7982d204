#pragma once

#include "core/definitions/WorkflowDocument.h"
#include "core/execution/RunLog.h"

#include <string>
#include <vector>

namespace quorlin {

// The output keys an LLM step adds to what the model gave.
inline constexpr std::string_view llmCostOutputKey = "llm_cost_usd";
inline constexpr std::string_view llmFallbackUsedOutputKey = "llm_fallback_used";

// A comma-separated string or an array's string elements, each trimmed, empty ones
// dropped; anything else gives nothing.
std::vector<std::string> stringList(const WorkflowValue* value);

// The step's output from the model's object, by the step's config: wrapped under
// "result_key" when set, then the "passthrough_context_keys" copied from the context, the
// "static_outputs" laid over, and each "count_outputs" key set to the length of the
// context array it names.
WorkflowValueMap shapedLLMOutput(const WorkflowValueMap& modelOutput,
                                 const WorkflowValueMap& context, const FlowStep& step);

// A rule-based stand-in for a news briefing when no model answered: a headline for the
// context's "date", the reason, and the first eight of its "articles".
WorkflowValueMap fallbackNewsBriefing(const WorkflowValueMap& context, const FlowStep& step,
                                      const std::string& reason);

// The LLM cost a run's steps left: the first "llm_cost_usd" found (a number, or text that
// reads as one), in no particular order of steps, else 0. Costs are not summed: a run is
// expected to have one priced LLM step.
double llmCostUSD(const StepOutputs& stepOutputs);

// What a run's steps have cost so far, for a budget: every "llm_cost_usd" summed.
double llmSpendUSD(const StepOutputs& stepOutputs);

} // namespace quorlin

#include "LLMSteps.h"

#include "core/definitions/BlockReference.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/execution/LLMBudget.h"
#include "core/execution/LLMOutput.h"
#include "core/execution/LLMPrompt.h"
#include "core/execution/LLMRoute.h"
#include "core/execution/NativeStepResult.h"
#include "core/execution/StepValueResolution.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/services/OllamaClient.h"

#include <chrono>
#include <filesystem>

namespace quorlin {

// What the step asks of the model, read from its config and inputs before any call.
struct LLMGenerateStructuredStepHandler::Plan {
    WorkflowValueMap context;
    std::string role;
    std::string route;
    std::string promptTemplate;
    std::string prompt;
    std::string systemPrompt;
    std::int64_t maxTokens = 0;
    std::optional<double> timeoutSeconds;
};

// The model's object (or a fallback's) before shaping, with what it cost.
struct LLMGenerateStructuredStepHandler::Answer {
    WorkflowValueMap output;
    double costUSD = 0;
    bool fallbackUsed = false;
};

namespace {

using Plan = LLMGenerateStructuredStepHandler::Plan;
using Answer = LLMGenerateStructuredStepHandler::Answer;
using NativeError = GenericNativeWorkflowError;

constexpr std::string_view defaultRole = "naming_proposal";
constexpr std::string_view defaultSystemPrompt = "Return valid JSON only.";
constexpr std::int64_t defaultMaxTokens = 2048;
constexpr double defaultFallbackTimeoutSeconds = 30;

const WorkflowValue* valueIn(const std::optional<WorkflowValueMap>& map, std::string_view key) {
    if (!map) {
        return nullptr;
    }
    const auto found = map->find(std::string(key));
    return found == map->end() ? nullptr : &found->second;
}

std::optional<std::string> configString(const FlowStep& step, std::string_view key) {
    const auto* value = valueIn(step.config, key);
    if (value == nullptr || value->string() == nullptr) {
        return std::nullopt;
    }
    return *value->string();
}

// The config's text trimmed, nothing when absent or blank.
std::optional<std::string> configText(const FlowStep& step, std::string_view key) {
    std::string text = trimmed(configString(step, key).value_or(""));
    return text.empty() ? std::nullopt : std::optional(std::move(text));
}

std::optional<double> callTimeoutSeconds(const FlowStep& step) {
    for (const auto* value :
         {valueIn(step.config, "timeout_seconds"), valueIn(step.action, "timeout_seconds")}) {
        if (value != nullptr) {
            if (const auto seconds = value->timeIntervalValue()) {
                return seconds;
            }
        }
    }
    return std::nullopt;
}

WorkflowValueMap stepContextObject(const StepContext& context) {
    const auto inputs = resolvedInputs(context.step.inputs, context.log.stepOutputs);
    if (const auto found = inputs.find("context"); found != inputs.end()) {
        if (const auto* object = found->second.object()) {
            return *object;
        }
    }
    return {};
}

Plan planFor(const StepContext& context) {
    const FlowStep& step = context.step;
    Plan plan;
    plan.context = stepContextObject(context);
    plan.role = configString(step, "llm_role").value_or(std::string(defaultRole));
    plan.route =
        resolvedLLMRoute(plan.role, context.workflow.flow(), step, context.request.clientProfile);
    auto promptTemplate = configText(step, "prompt_template");
    if (!promptTemplate) {
        throw NativeError(NativeError::Kind::missingPromptTemplate, step.id);
    }
    plan.promptTemplate = std::move(*promptTemplate);
    plan.prompt = renderPromptTemplate(
        bundledText(plan.promptTemplate, context.workflow.reference.directory), plan.context);
    plan.systemPrompt =
        configText(step, "system_prompt").value_or(std::string(defaultSystemPrompt));
    const auto* maxTokens = valueIn(step.config, "max_tokens");
    plan.maxTokens =
        (maxTokens != nullptr ? maxTokens->intValue() : std::nullopt).value_or(defaultMaxTokens);
    plan.timeoutSeconds = callTimeoutSeconds(step);
    return plan;
}

[[noreturn]] void notConfigured(const std::string& detail) {
    throw NativeError(NativeError::Kind::missingLLMProviderConfiguration, detail);
}

WorkflowValueMap auditInput(const Plan& plan, const FlowStep& step) {
    WorkflowValueMap input{{"context", WorkflowValue(WorkflowValue::Object(plan.context))},
                           {"llm_role", WorkflowValue(plan.role)},
                           {"llm_route", WorkflowValue(plan.route)},
                           {"prompt_template", WorkflowValue(plan.promptTemplate)},
                           {"max_tokens", WorkflowValue(plan.maxTokens)}};
    if (plan.timeoutSeconds) {
        input["timeout_seconds"] = WorkflowValue(*plan.timeoutSeconds);
    }
    if (auto strategy = configText(step, "fallback_strategy")) {
        input["fallback_strategy"] = WorkflowValue(std::move(*strategy));
    }
    return input;
}

GenericScriptStepRunResult finished(const Plan& plan, const FlowStep& step, const Answer& answer,
                                    SystemTime startedAt) {
    WorkflowValueMap output = shapedLLMOutput(answer.output, plan.context, step);
    output.try_emplace(std::string(llmCostOutputKey), WorkflowValue(answer.costUSD));
    if (answer.fallbackUsed) {
        output[std::string(llmFallbackUsedOutputKey)] = WorkflowValue(true);
    }
    return nativeStepResult(auditInput(plan, step), output, startedAt);
}

ScriptRuntime fallbackRuntime(const FlowStep& step) {
    const std::string name = configText(step, "fallback_runtime").value_or("python");
    if (const auto runtime = scriptRuntimeFromRawValue(name)) {
        return *runtime;
    }
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message,
                              "Unsupported fallback runtime " + name + " for step " + step.id);
}

double fallbackTimeoutSeconds(const FlowStep& step) {
    const auto* value = valueIn(step.config, "fallback_timeout_seconds");
    return (value != nullptr ? value->timeIntervalValue() : std::nullopt)
        .value_or(defaultFallbackTimeoutSeconds);
}

ScriptBlockInputEnvelope fallbackEnvelope(const StepContext& context, const Plan& plan,
                                          const std::string& reason) {
    const FlowDefinition& workflow = context.workflow.flow();
    ScriptBlockInputEnvelope envelope;
    envelope.inputs = {{"context", WorkflowValue(WorkflowValue::Object(plan.context))},
                       {"reason", WorkflowValue(reason)}};
    envelope.context.workflowID = workflow.id;
    envelope.context.flowName = workflow.name;
    envelope.context.stepID = context.step.id;
    if (context.step.block) {
        const auto block = BlockReference::parse(*context.step.block);
        envelope.context.blockID = block.id;
        envelope.context.blockVersion = block.version;
    }
    envelope.context.bundleRoot =
        std::filesystem::absolute(context.workflow.reference.directory).string();
    envelope.context.stagingDirectory =
        std::filesystem::absolute(context.log.stagingDirectory).string();
    return envelope;
}

// The recorded runs' spend this month and what this run's earlier LLM steps cost. Asked
// only when a budget is set, so a run without one never reads the audit log.
double spentThisMonth(const StepContext& context) {
    if (context.request.clientProfile.clientProfile.monthlyLLMBudgetUSD <= 0) {
        return 0;
    }
    const auto& recorded = context.request.recordedLLMSpendThisMonthUSD;
    return (recorded ? recorded() : 0) + llmSpendUSD(context.log.stepOutputs);
}

} // namespace

LLMGenerateStructuredStepHandler::LLMGenerateStructuredStepHandler(
    std::shared_ptr<const AnthropicClient> anthropicClient, WorkflowScriptLauncher launcher)
    : anthropicClient_(std::move(anthropicClient)), launcher_(std::move(launcher)) {}

GenericScriptStepRunResult LLMGenerateStructuredStepHandler::run(const StepContext& context) const {
    const SystemTime startedAt = std::chrono::system_clock::now();
    // A missing or unreadable prompt is the workflow's own fault: no fallback hides it.
    const Plan plan = planFor(context);
    Answer answer;
    try {
        answer = generate(plan, context);
    } catch (const std::exception& error) {
        // A stopped run stops here; falling back would only keep it going.
        if (context.request.stopToken.stop_requested()) {
            throw;
        }
        answer = fallback(context, plan, error);
    }
    return finished(plan, context.step, answer, startedAt);
}

LLMGenerateStructuredStepHandler::Answer
LLMGenerateStructuredStepHandler::generate(const Plan& plan, const StepContext& context) const {
    const WorkflowRunRequest& request = context.request;
    const std::string route = trimmed(plan.route);
    if (route.empty()) {
        notConfigured("LLM route is empty");
    }
    if (auto model = ollamaModel(route, request.settings)) {
        const std::string url = trimmed(request.settings.ollamaURL);
        if (url.empty()) {
            notConfigured("Ollama URL is empty");
        }
        const OllamaPrompt prompt{std::move(*model), plan.systemPrompt, plan.prompt, plan.maxTokens,
                                  plan.timeoutSeconds};
        // A local model costs nothing.
        return {OllamaClient(url).generateJSON(prompt, request.stopToken), 0, false};
    }
    if (auto model = anthropicModel(route)) {
        const std::string key = trimmed(request.settings.anthropicAPIKey);
        if (key.empty()) {
            notConfigured("Anthropic API key is empty");
        }
        checkMonthlyLLMBudget(request.clientProfile.clientProfile.monthlyLLMBudgetUSD,
                              spentThisMonth(context));
        const AnthropicPrompt prompt{std::move(*model), plan.systemPrompt, plan.prompt,
                                     plan.maxTokens, plan.timeoutSeconds};
        auto reply = anthropicClient_->generateJSON(key, prompt, request.stopToken);
        return {std::move(reply.value), reply.costUSD, false};
    }
    throw NativeError(NativeError::Kind::unsupportedLLMRoute, route);
}

LLMGenerateStructuredStepHandler::Answer
LLMGenerateStructuredStepHandler::fallback(const StepContext& context, const Plan& plan,
                                           const std::exception& error) const {
    const auto strategy = configText(context.step, "fallback_strategy");
    if (!strategy) {
        throw; // called from run()'s handler: the original error, as it was
    }
    const std::string reason = error.what();
    if (*strategy == "news_briefing_summary") {
        return {fallbackNewsBriefing(plan.context, context.step, reason), 0, true};
    }
    if (*strategy == "bundled_script") {
        return runFallbackScript(context, plan, reason);
    }
    throw NativeError(NativeError::Kind::unsupportedLLMFallback, *strategy);
}

LLMGenerateStructuredStepHandler::Answer
LLMGenerateStructuredStepHandler::runFallbackScript(const StepContext& context, const Plan& plan,
                                                    const std::string& reason) const {
    const FlowStep& step = context.step;
    const auto script = configText(step, "fallback_script");
    if (!script) {
        throw NativeError(NativeError::Kind::missingFallbackScript, step.id);
    }
    ScriptSpec spec{fallbackRuntime(step), validateRelativeWorkflowPath(*script),
                    fallbackTimeoutSeconds(step), defaultChildOutputLimit};
    const auto input = compactJson(toJson(fallbackEnvelope(context, plan, reason)));
    const ScriptResult result = launcher_.launch(context, std::move(spec), input);
    const std::string stdoutText = isValidUtf8(result.stdoutData) ? result.stdoutData : "";
    const auto envelope = decodeScriptBlockOutputEnvelope(stdoutText);
    if (!envelope) {
        throw ScriptRunnerError::invalidJSONOutput(stdoutText.empty() ? "<empty stdout>"
                                                                      : stdoutText);
    }
    return {envelope->outputs, 0, true};
}

} // namespace quorlin

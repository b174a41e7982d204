#include "ScriptSteps.h"

#include "core/definitions/WorkflowLoader.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/NativeStepResult.h"
#include "core/execution/ScriptEnvironment.h"
#include "core/execution/StepValueResolution.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"

#include <filesystem>

namespace quorlin {

namespace {

constexpr double defaultTimeoutSeconds = 60;

const WorkflowValue* valueIn(const std::optional<WorkflowValueMap>& map, const std::string& key) {
    if (!map) {
        return nullptr;
    }
    const auto found = map->find(key);
    return found == map->end() ? nullptr : &found->second;
}

// The config value under key if it is a string, else the action value if it is one.
std::optional<std::string> configOrActionString(const FlowStep& step, const std::string& key) {
    for (const auto* value : {valueIn(step.config, key), valueIn(step.action, key)}) {
        if (value != nullptr && value->string() != nullptr) {
            return *value->string();
        }
    }
    return std::nullopt;
}

double scriptTimeoutSeconds(const FlowStep& step) {
    for (const auto* value :
         {valueIn(step.config, "timeout_seconds"), valueIn(step.action, "timeout_seconds")}) {
        if (value != nullptr) {
            if (const auto seconds = value->timeIntervalValue()) {
                return *seconds;
            }
        }
    }
    return defaultTimeoutSeconds;
}

// config "max_output_bytes", else action's; the checker has refused anything but a whole
// number above 0.
std::size_t scriptOutputLimit(const FlowStep& step) {
    for (const auto* value :
         {valueIn(step.config, "max_output_bytes"), valueIn(step.action, "max_output_bytes")}) {
        if (value != nullptr && value->integer() != nullptr && *value->integer() > 0) {
            return static_cast<std::size_t>(*value->integer());
        }
    }
    return defaultChildOutputLimit;
}

std::string plainScriptEntrypoint(const FlowStep& step) {
    if (auto entrypoint = configOrActionString(step, "entrypoint")) {
        return *entrypoint;
    }
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message,
                              "Missing entrypoint for step " + step.id);
}

// A block names its runtime by one of two spellings; blank falls back to the step's.
ScriptRuntime blockScriptRuntime(const BlockExecutionDefinition& execution, const FlowStep& step) {
    const std::string name = trimmed(execution.runtime.value_or(""));
    if (name.empty()) {
        return stepScriptRuntime(step);
    }
    if (const auto runtime = scriptRuntimeFromBlockValue(name)) {
        return *runtime;
    }
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message,
                              "Unsupported block runtime " + name + " for step " + step.id);
}

std::string blockScriptEntrypoint(const BlockExecutionDefinition& execution, const FlowStep& step) {
    std::string entrypoint = trimmed(execution.entrypoint.value_or(""));
    return entrypoint.empty() ? plainScriptEntrypoint(step) : entrypoint;
}

std::string utf8OrEmpty(const std::string& bytes) {
    return isValidUtf8(bytes) ? bytes : std::string();
}

} // namespace

ScriptRuntime stepScriptRuntime(const FlowStep& step) {
    if (const auto name = configOrActionString(step, "runtime")) {
        if (const auto runtime = scriptRuntimeFromRawValue(*name)) {
            return *runtime;
        }
    }
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message,
                              "Missing runtime for step " + step.id);
}

WorkflowScriptLauncher::WorkflowScriptLauncher(
    std::shared_ptr<ScriptRunner> runner, AppSupportPaths paths,
    std::shared_ptr<const ScriptDependencyInstaller> dependencies)
    : runner_(std::move(runner)), paths_(std::move(paths)), dependencies_(std::move(dependencies)) {
}

ScriptResult WorkflowScriptLauncher::launch(const StepContext& context, ScriptSpec spec,
                                            std::string input) const {
    const FlowDefinition& workflow = context.workflow.flow();
    const WorkflowRunRequest& request = context.request;
    ScriptInvocation invocation;
    invocation.workflowID = workflow.id;
    invocation.stepID = context.step.id;
    if (context.workflow.reference.source == WorkflowSourceKind::folder) {
        invocation.bundleDirectory = context.workflow.reference.directory;
    }
    invocation.environment =
        scriptEnvironment(paths_, workflow, context.step, spec.runtime, request.settings,
                          request.clientProfile, request.environmentOverrides);
    // Scripts run in their workflow's dependency folder, not in the bundle.
    invocation.workingDirectory = spec.runtime == ScriptRuntime::python
                                      ? paths_.pythonDependenciesDirectory(workflow.id)
                                      : paths_.nodeDependenciesDirectory(workflow.id);
    invocation.spec = std::move(spec);
    invocation.inputJSON = std::move(input);
    if (request.scriptErrorOutput) {
        invocation.onStandardError = [&request, &step = context.step](std::string_view text) {
            request.scriptErrorOutput(step.id, text);
        };
    }
    if (dependencies_) {
        // The manifests of the bundle this run loaded, whatever its source.
        dependencies_->installDependenciesIfNeeded(
            {workflow.id, context.workflow.reference.directory}, invocation.spec.runtime,
            request.stopToken, invocation.onStandardError);
    }
    return runner_->run(invocation, request.stopToken);
}

PlainScriptStepHandler::PlainScriptStepHandler(WorkflowScriptLauncher launcher)
    : launcher_(std::move(launcher)) {}

GenericScriptStepRunResult PlainScriptStepHandler::run(const StepContext& context) const {
    const FlowStep& step = context.step;
    const FlowDefinition& workflow = context.workflow.flow();
    const GenericScriptInput input{workflow.id, workflow.name, step.id,
                                   context.log.previousOutputs};
    const auto inputJSON = toJson(input);
    const ScriptResult script =
        launcher_.launch(context,
                         {stepScriptRuntime(step), plainScriptEntrypoint(step),
                          scriptTimeoutSeconds(step), scriptOutputLimit(step)},
                         compactJson(inputJSON));
    const std::string stdoutText = utf8OrEmpty(script.stdoutData);

    GenericScriptStepRunResult result;
    result.stdoutText = stdoutText;
    result.stderrText = utf8OrEmpty(script.stderrData);
    result.previousOutput = stdoutText;
    // A plain script may print plain text; only a JSON object gives outputs.
    result.outputs = decodeWorkflowValueMap(stdoutText).value_or(WorkflowValueMap{});
    result.inputJSON = auditPayloadJson(nlohmann::json::parse(inputJSON.dump()));
    if (!stdoutText.empty()) {
        result.outputJSON = stdoutText;
    }
    result.duration = script.duration;
    return result;
}

ScriptBlockStepHandler::ScriptBlockStepHandler(WorkflowScriptLauncher launcher)
    : launcher_(std::move(launcher)) {}

GenericScriptStepRunResult ScriptBlockStepHandler::run(const StepContext& context) const {
    const FlowStep& step = context.step;
    const LoadedWorkflow& loaded = context.workflow;
    const WorkflowBlockResolution& resolution = loaded.blockResolutions.at(step.id);
    const BlockExecutionDefinition& execution = *resolution.definition.execution;
    ScriptSpec spec{blockScriptRuntime(execution, step), blockScriptEntrypoint(execution, step),
                    execution.timeoutSeconds.value_or(scriptTimeoutSeconds(step)),
                    scriptOutputLimit(step)};

    ScriptBlockInputEnvelope envelope;
    envelope.inputs = resolvedInputs(step.inputs, context.log.stepOutputs);
    envelope.context = {loaded.flow().id,
                        loaded.flow().name,
                        step.id,
                        resolution.reference.id,
                        resolution.reference.version,
                        std::filesystem::absolute(loaded.reference.directory).string(),
                        std::filesystem::absolute(context.log.stagingDirectory).string(),
                        context.log.previousOutputs};
    const auto envelopeJSON = toJson(envelope);
    const ScriptResult script =
        launcher_.launch(context, std::move(spec), compactJson(envelopeJSON));
    const std::string stdoutText = utf8OrEmpty(script.stdoutData);

    const auto output = decodeScriptBlockOutputEnvelope(stdoutText);
    if (!output) {
        throw ScriptRunnerError::invalidJSONOutput(stdoutText.empty() ? "<empty stdout>"
                                                                      : stdoutText);
    }
    for (const auto& [name, value] : output->outputs) {
        if (!resolution.definition.outputs.contains(name)) {
            throw WorkflowBlockValidationError(WorkflowBlockValidationError::Kind::unknownOutput,
                                               step.id, resolution.reference.id, name);
        }
    }
    const std::string outputText = compactJson(toJson(output->outputs));

    GenericScriptStepRunResult result;
    result.stdoutText = outputText;
    result.stderrText = utf8OrEmpty(script.stderrData);
    result.previousOutput = outputText;
    result.outputs = output->outputs;
    result.inputJSON = auditPayloadJson(nlohmann::json::parse(envelopeJSON.dump()));
    result.outputJSON = stdoutText.empty() ? outputText : stdoutText;
    result.duration = script.duration;
    return result;
}

} // namespace quorlin

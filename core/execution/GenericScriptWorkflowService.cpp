#include "GenericScriptWorkflowService.h"

#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ApprovalItems.h"
#include "core/execution/ContextSteps.h"
#include "core/execution/GenericScriptOutputSummarizer.h"
#include "core/execution/LLMRoute.h"
#include "core/execution/NativeStepResult.h"
#include "core/execution/StepValueResolution.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Cancellation.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/foundation/Uuid.h"

#include <algorithm>
#include <chrono>

namespace quorlin {

namespace {

constexpr double defaultTimeoutSeconds = 60;

SystemTime now() {
    return std::chrono::system_clock::now();
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (std::size_t index = 0; index < parts.size(); ++index) {
        if (index > 0) {
            text += '\n';
        }
        text += parts[index];
    }
    return text;
}

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

ScriptRuntime plainScriptRuntime(const FlowStep& step) {
    if (const auto name = configOrActionString(step, "runtime")) {
        if (const auto runtime = scriptRuntimeFromRawValue(*name)) {
            return *runtime;
        }
    }
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message,
                              "Missing runtime for step " + step.id);
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
        return plainScriptRuntime(step);
    }
    if (name == "python" || name == "managed_runtime.python") {
        return ScriptRuntime::python;
    }
    if (name == "node" || name == "managed_runtime.node") {
        return ScriptRuntime::node;
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

std::vector<std::string> sortedKeys(const auto& map) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : map) {
        keys.push_back(key);
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

} // namespace

// One run's state, kept in the call's locals and handed over whole at the gate.
struct GenericScriptWorkflowService::Run {
    WorkflowBundleReference reference;
    FlowDefinition workflow;
    std::map<std::string, WorkflowBlockResolution> blockResolutions; // by step id
    SystemTime startedAt;
    std::filesystem::path stagingDirectory;
    PreviousOutputs previousOutputs;
    StepOutputs stepOutputs;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
    std::vector<std::string> stdoutParts;
    std::vector<std::string> stderrParts;

    void record(const FlowStep& step, const GenericScriptStepRunResult& result) {
        if (auto text = trimmed(result.stdoutText); !text.empty()) {
            stdoutParts.push_back(std::move(text));
        }
        if (auto text = trimmed(result.stderrText); !text.empty()) {
            stderrParts.push_back(std::move(text));
        }
        previousOutputs[step.id] = result.previousOutput;
        stepOutputs[step.id] = result.outputs;
        stepTimings.push_back({step.id, step.name, result.duration});
        stepRecords.push_back(
            {step.id, step.name, result.inputJSON, result.outputJSON, std::nullopt});
    }

    // The failed step's timing and record, then the failure that ends the run.
    GenericScriptWorkflowFailure failure(const FlowStep& step, SystemTime stepStartedAt,
                                         const std::exception& error) {
        stepTimings.push_back({step.id, step.name, secondsBetween(stepStartedAt, now())});

        nlohmann::json input;
        if (step.config) {
            input["config"] = toJson(*step.config);
        }
        input["previousOutputStepIDs"] = sortedKeys(previousOutputs);
        input["stepOutputStepIDs"] = sortedKeys(stepOutputs);
        const nlohmann::json errorPayload{{"message", error.what()},
                                          {"errorType", dynamicTypeName(error)}};
        stepRecords.push_back({step.id, step.name, auditPayloadJson(input), std::nullopt,
                               auditPayloadJson(errorPayload)});

        const auto folder = outputFolder(stepOutputs);
        return {error.what(),
                workflow.id,
                workflow.name,
                startedAt,
                secondsBetween(startedAt, now()),
                folder ? std::optional(folder->string()) : std::nullopt,
                stepTimings,
                stepRecords};
    }
};

GenericScriptWorkflowService::GenericScriptWorkflowService(WorkflowLoader loader,
                                                           std::shared_ptr<ScriptRunner> runner,
                                                           AppSupportPaths paths,
                                                           MainExecutor& mainExecutor)
    : loader_(std::move(loader)), runner_(std::move(runner)), paths_(std::move(paths)),
      mainExecutor_(mainExecutor), folderSteps_(paths_) {}

const std::set<std::string, std::less<>>& GenericScriptWorkflowService::supportedStepTypes() {
    static const std::set<std::string, std::less<>> types{"runtime-check",
                                                          "dependency-check",
                                                          "script-run",
                                                          "llm-generate-structured",
                                                          "settings-gate",
                                                          "native-google-read",
                                                          "filesystem-input-file",
                                                          "filesystem-input-folder",
                                                          "filesystem-output-folder",
                                                          "context-prepare",
                                                          "context-load",
                                                          "gmail-search",
                                                          "gmail-list-attachments",
                                                          "batch-approval",
                                                          "gmail-download-attachments",
                                                          "native-file-write"};
    return types;
}

GenericScriptWorkflowService::Run
GenericScriptWorkflowService::load(const std::string& flowID) const {
    Run run;
    run.reference = loader_.availableWorkflowReference(flowID);
    const auto document = loader_.loadWorkflow(loader_.workflowFile(run.reference));
    // Validated again at every run: the files may have changed since the list was made.
    for (auto& resolution : loader_.validateWorkflowBlocks(document, run.reference.directory)) {
        run.blockResolutions.insert_or_assign(resolution.stepID, std::move(resolution));
    }
    run.workflow = document.flow;
    return run;
}

GenericScriptWorkflowService::Run
GenericScriptWorkflowService::prepare(const std::string& flowID) const {
    Run run = load(flowID);
    run.startedAt = now();
    run.stagingDirectory =
        paths_.stagingDirectory() / "generic" / run.workflow.id / Uuid::random().uppercaseString();
    createDirectories(run.stagingDirectory);
    return run;
}

GenericScriptWorkflowRunResult
GenericScriptWorkflowService::run(const std::string& flowID, const WorkflowRunRequest& request) {
    Run run = prepare(flowID);
    runSteps(run, 0, GateMode::failAtGate, request);
    return finish(run);
}

GenericWorkflowApprovalCheckpoint
GenericScriptWorkflowService::runUntilApproval(const std::string& flowID,
                                               const WorkflowRunRequest& request) {
    Run run = prepare(flowID);
    const auto gate = runSteps(run, 0, GateMode::stopAtGate, request);
    if (!gate) {
        throw GenericWorkflowStepError(GenericWorkflowStepError::Kind::approvalRequired,
                                       "batch-approval");
    }
    const FlowStep& step = run.workflow.steps[*gate];
    return {run.workflow,
            run.workflow.id,
            run.workflow.name,
            step.id,
            resolvedInputs(step.inputs, run.stepOutputs),
            run.startedAt,
            run.stagingDirectory,
            std::move(run.previousOutputs),
            std::move(run.stepOutputs),
            std::move(run.stepTimings),
            std::move(run.stepRecords),
            std::move(run.stdoutParts),
            std::move(run.stderrParts)};
}

GenericScriptWorkflowRunResult GenericScriptWorkflowService::resumeFromApproval(
    const GenericWorkflowApprovalCheckpoint& checkpoint,
    const std::vector<ApprovalProposal>& approvedItems, const WorkflowRunRequest& request) {
    // The document is read again: an edit made while the user decided takes effect.
    Run run = load(checkpoint.flowID);
    const auto& steps = run.workflow.steps;
    const auto gate = std::find_if(steps.begin(), steps.end(), [&](const FlowStep& step) {
        return step.id == checkpoint.approvalStepID;
    });
    if (gate == steps.end()) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::message,
                                  "Missing approval step " + checkpoint.approvalStepID);
    }
    run.startedAt = checkpoint.startedAt;
    run.stagingDirectory = checkpoint.stagingDirectory;
    run.previousOutputs = checkpoint.previousOutputs;
    run.stepOutputs = checkpoint.stepOutputs;
    run.stepTimings = checkpoint.stepTimings;
    run.stepRecords = checkpoint.stepRecords;
    run.stdoutParts = checkpoint.stdoutParts;
    run.stderrParts = checkpoint.stderrParts;

    run.record(*gate, approvalStepResult(*gate, approvedItems));
    runSteps(run, static_cast<std::size_t>(gate - steps.begin()) + 1, GateMode::failAtGate,
             request);
    return finish(run);
}

std::optional<std::size_t>
GenericScriptWorkflowService::runSteps(Run& run, std::size_t firstIndex, GateMode mode,
                                       const WorkflowRunRequest& request) const {
    const auto& steps = run.workflow.steps;
    for (std::size_t index = firstIndex; index < steps.size(); ++index) {
        const FlowStep& step = steps[index];
        throwIfStopRequested(request.stopToken);
        if (!supportedStepTypes().contains(step.type)) {
            throw ExecutionEngineError(ExecutionEngineError::Kind::missingHandler, step.type);
        }
        if (mode == GateMode::stopAtGate && step.type == "batch-approval") {
            return index;
        }
        reportProgress(request, {step.id, GenericScriptWorkflowProgressState::running, index,
                                 steps.size(), std::nullopt});
        const SystemTime stepStartedAt = now();
        GenericScriptStepRunResult result;
        try {
            result = runWorkflowStep(run, step, request);
        } catch (const std::exception& error) {
            throw run.failure(step, stepStartedAt, error);
        }
        run.record(step, result);
        reportProgress(request, {step.id, GenericScriptWorkflowProgressState::finished, index,
                                 steps.size(), result.duration});
    }
    return std::nullopt;
}

GenericScriptStepRunResult
GenericScriptWorkflowService::runWorkflowStep(const Run& run, const FlowStep& step,
                                              const WorkflowRunRequest& request) const {
    if (const auto found = run.blockResolutions.find(step.id);
        found != run.blockResolutions.end()) {
        const auto& execution = found->second.definition.execution;
        if (execution && execution->kind == BlockExecutionKind::script) {
            return runScriptBlockStep(run, step, found->second, request);
        }
    }
    if (step.type == "script-run") {
        return runPlainScriptStep(run, step, request);
    }
    if (step.type == "batch-approval") {
        throw GenericWorkflowStepError(GenericWorkflowStepError::Kind::approvalRequired, step.id);
    }
    const auto& profile = request.clientProfile.clientProfile;
    if (step.type == "filesystem-input-file") {
        return folderSteps_.inputFile(run.workflow, step, toWorkflowValue(profile),
                                      request.environmentOverrides);
    }
    if (step.type == "filesystem-input-folder") {
        return folderSteps_.inputFolder(run.workflow, step, toWorkflowValue(profile),
                                        request.environmentOverrides);
    }
    if (step.type == "filesystem-output-folder") {
        return folderSteps_.outputFolder(run.workflow, step, toWorkflowValue(profile),
                                         request.environmentOverrides);
    }
    if (step.type == "context-prepare" || step.type == "context-load") {
        return runContextPrepareStep(run.reference.directory, step, run.stepOutputs,
                                     toWorkflowValue(profile), profile.gmail.targetYearMonth,
                                     run.stagingDirectory);
    }
    if (step.type == "native-file-write") {
        return runNativeFileWriteStep(step, run.stepOutputs);
    }
    // A supported type whose handler this build does not have yet.
    throw ExecutionEngineError(ExecutionEngineError::Kind::missingHandler, step.type);
}

ScriptResult GenericScriptWorkflowService::runScript(const Run& run, const FlowStep& step,
                                                     ScriptSpec spec, std::string input,
                                                     const WorkflowRunRequest& request) const {
    ScriptInvocation invocation;
    invocation.workflowID = run.workflow.id;
    invocation.environment =
        runtimeEnvironment(run.workflow.id, step, spec.runtime, request.settings,
                           request.clientProfile, request.environmentOverrides);
    // Scripts run in their workflow's dependency folder, not in the bundle.
    invocation.workingDirectory = spec.runtime == ScriptRuntime::python
                                      ? paths_.pythonDependenciesDirectory(run.workflow.id)
                                      : paths_.nodeDependenciesDirectory(run.workflow.id);
    invocation.spec = std::move(spec);
    invocation.inputJSON = std::move(input);
    return runner_->run(invocation, request.stopToken);
}

GenericScriptStepRunResult
GenericScriptWorkflowService::runPlainScriptStep(const Run& run, const FlowStep& step,
                                                 const WorkflowRunRequest& request) const {
    const GenericScriptInput input{run.workflow.id, run.workflow.name, step.id,
                                   run.previousOutputs};
    const auto inputJSON = toJson(input);
    const ScriptResult script = runScript(
        run, step,
        {plainScriptRuntime(step), plainScriptEntrypoint(step), scriptTimeoutSeconds(step)},
        compactJson(inputJSON), request);
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

GenericScriptStepRunResult
GenericScriptWorkflowService::runScriptBlockStep(const Run& run, const FlowStep& step,
                                                 const WorkflowBlockResolution& resolution,
                                                 const WorkflowRunRequest& request) const {
    const BlockExecutionDefinition& execution = *resolution.definition.execution;
    ScriptSpec spec{blockScriptRuntime(execution, step), blockScriptEntrypoint(execution, step),
                    execution.timeoutSeconds.value_or(scriptTimeoutSeconds(step))};

    ScriptBlockInputEnvelope envelope;
    envelope.inputs = resolvedInputs(step.inputs, run.stepOutputs);
    envelope.context = {run.workflow.id,
                        run.workflow.name,
                        step.id,
                        resolution.reference.id,
                        resolution.reference.version,
                        std::filesystem::absolute(run.reference.directory).string(),
                        std::filesystem::absolute(run.stagingDirectory).string(),
                        run.previousOutputs};
    const auto envelopeJSON = toJson(envelope);
    const ScriptResult script =
        runScript(run, step, std::move(spec), compactJson(envelopeJSON), request);
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

std::map<std::string, std::string> GenericScriptWorkflowService::runtimeEnvironment(
    const std::string& workflowID, const FlowStep& step, ScriptRuntime runtime,
    const AppSettings& settings, const ClientProfileDocument& clientProfile,
    const EnvironmentOverrides& overrides) const {
    std::map<std::string, std::string> environment;
    if (auto key = trimmed(settings.anthropicAPIKey); !key.empty()) {
        environment["ANTHROPIC_API_KEY"] = std::move(key);
    }
    if (auto url = trimmed(settings.ollamaURL); !url.empty()) {
        environment["OLLAMA_BASE_URL"] = std::move(url);
    }
    std::string role(namingProposalRole);
    if (const auto* value = step.config ? [&]() -> const WorkflowValue* {
            const auto found = step.config->find("llm_role");
            return found == step.config->end() ? nullptr : &found->second;
        }()
        : nullptr;
        value != nullptr && value->isString()) {
        role = *value->string();
    }
    const std::string route = resolvedLLMRoute(role, workflowID, step, clientProfile, loader_);
    if (startsWith(route, "ollama:")) {
        if (auto model = trimmed(route.substr(7)); !model.empty()) {
            environment["LLM_PROVIDER"] = "ollama";
            environment["OLLAMA_MODEL"] = std::move(model);
        }
    } else if (route == "claude-sonnet") {
        environment["LLM_PROVIDER"] = "anthropic";
        environment["ANTHROPIC_MODEL"] = "claude-3-7-sonnet-20250219";
    }
    if (runtime == ScriptRuntime::python) {
        environment["PYTHONPATH"] = paths_.pythonDependenciesDirectory(workflowID).string();
    } else {
        environment["NODE_PATH"] =
            (paths_.nodeDependenciesDirectory(workflowID) / "node_modules").string();
    }
    for (const auto& [key, value] : overrides) {
        if (!trimmed(key).empty()) {
            environment[key] = value;
        }
    }
    return environment;
}

GenericScriptWorkflowRunResult GenericScriptWorkflowService::finish(Run& run) const {
    GenericScriptWorkflowRunResult result;
    result.flowID = run.workflow.id;
    result.flowName = run.workflow.name;
    result.startedAt = run.startedAt;
    result.stdoutText = joined(run.stdoutParts);
    result.stderrText = joined(run.stderrParts);
    result.durationSeconds = secondsBetween(run.startedAt, now());
    result.outputSummary = GenericScriptOutputSummarizer::summary(result.stdoutText);
    result.outputFolder = GenericScriptOutputSummarizer::outputFolder(result.stdoutText);
    if (!result.outputFolder) {
        if (const auto folder = quorlin::outputFolder(run.stepOutputs)) {
            result.outputFolder = folder->string();
        }
    }
    result.stepTimings = std::move(run.stepTimings);
    result.stepRecords = std::move(run.stepRecords);
    return result;
}

void GenericScriptWorkflowService::reportProgress(
    const WorkflowRunRequest& request, const GenericScriptWorkflowProgress& progress) const {
    if (request.progress) {
        callOnMain(
            mainExecutor_, [callback = request.progress, progress] { callback(progress); },
            request.stopToken);
    }
}

} // namespace quorlin

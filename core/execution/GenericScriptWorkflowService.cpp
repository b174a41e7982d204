#include "GenericScriptWorkflowService.h"

#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ApprovalItems.h"
#include "core/execution/GenericScriptOutputSummarizer.h"
#include "core/execution/NativeStepResult.h"
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

        return {
            error.what(), workflow.id, workflow.name, startedAt, secondsBetween(startedAt, now()),
            std::nullopt, stepTimings, stepRecords};
    }
};

GenericScriptWorkflowService::GenericScriptWorkflowService(WorkflowLoader loader,
                                                           std::shared_ptr<ScriptRunner> runner,
                                                           AppSupportPaths paths,
                                                           MainExecutor& mainExecutor)
    : loader_(std::move(loader)), runner_(std::move(runner)), paths_(std::move(paths)),
      mainExecutor_(mainExecutor) {}

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
GenericScriptWorkflowService::prepare(const std::string& flowID) const {
    Run run;
    run.reference = loader_.availableWorkflowReference(flowID);
    run.workflow = loader_.loadWorkflowBundle(run.reference).flow;
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
    // The gate's inputs are handed on as written until step value resolution resolves
    // templates in them against the earlier steps' outputs.
    return {run.workflow,
            run.workflow.id,
            run.workflow.name,
            step.id,
            step.inputs.value_or(WorkflowValueMap{}),
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
    Run run;
    run.reference = loader_.availableWorkflowReference(checkpoint.flowID);
    run.workflow = loader_.loadWorkflowBundle(run.reference).flow;
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
    if (step.type == "script-run") {
        return runPlainScriptStep(run, step, request);
    }
    if (step.type == "batch-approval") {
        throw GenericWorkflowStepError(GenericWorkflowStepError::Kind::approvalRequired, step.id);
    }
    // A supported type whose handler this build does not have yet.
    throw ExecutionEngineError(ExecutionEngineError::Kind::missingHandler, step.type);
}

GenericScriptStepRunResult
GenericScriptWorkflowService::runPlainScriptStep(const Run& run, const FlowStep& step,
                                                 const WorkflowRunRequest& request) const {
    const ScriptRuntime runtime = plainScriptRuntime(step);
    const std::string entrypoint = plainScriptEntrypoint(step);
    const double timeout = scriptTimeoutSeconds(step);

    ScriptInvocation invocation;
    invocation.workflowID = run.workflow.id;
    invocation.spec = {runtime, entrypoint, timeout};
    const GenericScriptInput input{run.workflow.id, run.workflow.name, step.id,
                                   run.previousOutputs};
    invocation.inputJSON = compactJson(toJson(input));
    invocation.environment = runtimeEnvironment(run.workflow.id, step, runtime, request.settings,
                                                request.environmentOverrides);
    invocation.workingDirectory = runtime == ScriptRuntime::python
                                      ? paths_.pythonDependenciesDirectory(run.workflow.id)
                                      : paths_.nodeDependenciesDirectory(run.workflow.id);

    const ScriptResult script = runner_->run(invocation, request.stopToken);
    const std::string stdoutText = utf8OrEmpty(script.stdoutData);

    GenericScriptStepRunResult result;
    result.stdoutText = stdoutText;
    result.stderrText = utf8OrEmpty(script.stderrData);
    result.previousOutput = stdoutText;
    // A plain script may print plain text; only a JSON object gives outputs.
    result.outputs = decodeWorkflowValueMap(stdoutText).value_or(WorkflowValueMap{});
    result.inputJSON = auditPayloadJson(nlohmann::json::parse(compactJson(toJson(input))));
    if (!stdoutText.empty()) {
        result.outputJSON = stdoutText;
    }
    result.duration = script.duration;
    return result;
}

std::map<std::string, std::string> GenericScriptWorkflowService::runtimeEnvironment(
    const std::string& workflowID, const FlowStep& /*step*/, ScriptRuntime runtime,
    const AppSettings& settings, const EnvironmentOverrides& overrides) const {
    std::map<std::string, std::string> environment;
    if (auto key = trimmed(settings.anthropicAPIKey); !key.empty()) {
        environment["ANTHROPIC_API_KEY"] = std::move(key);
    }
    if (auto url = trimmed(settings.ollamaURL); !url.empty()) {
        environment["OLLAMA_BASE_URL"] = std::move(url);
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
    result.stepTimings = std::move(run.stepTimings);
    result.stepRecords = std::move(run.stepRecords);
    return result;
}

void GenericScriptWorkflowService::reportProgress(
    const WorkflowRunRequest& request, const GenericScriptWorkflowProgress& progress) const {
    if (request.progress) {
        callOnMain(mainExecutor_, [&] { request.progress(progress); });
    }
}

} // namespace quorlin

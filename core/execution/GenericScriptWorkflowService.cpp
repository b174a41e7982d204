#include "GenericScriptWorkflowService.h"

#include "core/definitions/StepTypes.h"
#include "core/execution/ApprovalItems.h"
#include "core/execution/ContextSteps.h"
#include "core/execution/GenericScriptOutputSummarizer.h"
#include "core/execution/StandardStepHandlers.h"
#include "core/execution/StepValueResolution.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Cancellation.h"
#include "core/foundation/FileError.h"
#include "core/foundation/Uuid.h"

#include <algorithm>
#include <chrono>

namespace quorlin {

namespace {

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

std::optional<std::string> outputFolderPath(const StepOutputs& stepOutputs) {
    const auto folder = outputFolder(stepOutputs);
    return folder ? std::optional(folder->string()) : std::nullopt;
}

} // namespace

GenericScriptWorkflowService::GenericScriptWorkflowService(WorkflowLoader loader,
                                                           std::shared_ptr<ScriptRunner> runner,
                                                           const AppSupportPaths& paths,
                                                           MainExecutor& mainExecutor)
    : GenericScriptWorkflowService(std::move(loader),
                                   standardStepHandlers({std::move(runner), paths}), paths,
                                   mainExecutor) {}

GenericScriptWorkflowService::GenericScriptWorkflowService(WorkflowLoader loader,
                                                           StepHandlerRegistry handlers,
                                                           AppSupportPaths paths,
                                                           MainExecutor& mainExecutor)
    : loader_(std::move(loader)), handlers_(std::move(handlers)), paths_(std::move(paths)),
      mainExecutor_(mainExecutor) {}

const std::set<std::string, std::less<>>& GenericScriptWorkflowService::supportedStepTypes() const {
    return handlers_.supportedStepTypes();
}

RunLog GenericScriptWorkflowService::startLog(const FlowDefinition& workflow) const {
    RunLog log;
    log.startedAt = now();
    log.stagingDirectory =
        paths_.stagingDirectory() / "generic" / workflow.id / Uuid::random().uppercaseString();
    createDirectories(log.stagingDirectory);
    return log;
}

GenericScriptWorkflowRunResult
GenericScriptWorkflowService::run(const LoadedWorkflow& workflow,
                                  const WorkflowRunRequest& request) {
    RunLog log = startLog(workflow.flow());
    runSteps(workflow, log, 0, GateMode::failAtGate, request);
    return finish(workflow.flow(), log);
}

GenericWorkflowApprovalCheckpoint
GenericScriptWorkflowService::runUntilApproval(const LoadedWorkflow& workflow,
                                               const WorkflowRunRequest& request) {
    RunLog log = startLog(workflow.flow());
    const auto gate = runSteps(workflow, log, 0, GateMode::stopAtGate, request);
    if (!gate) {
        throw GenericWorkflowStepError(GenericWorkflowStepError::Kind::approvalRequired,
                                       std::string(stepType::batchApproval));
    }
    const FlowDefinition& flow = workflow.flow();
    const FlowStep& step = flow.steps[*gate];
    auto approvalInputs = resolvedInputs(step.inputs, log.stepOutputs);
    return {flow,           flow.id,           flow.name, step.id, std::move(approvalInputs),
            std::move(log), workflow.reference};
}

GenericScriptWorkflowRunResult GenericScriptWorkflowService::resumeFromApproval(
    const GenericWorkflowApprovalCheckpoint& checkpoint,
    const std::vector<ApprovalProposal>& approvedItems, const WorkflowRunRequest& request) {
    const LoadedWorkflow workflow = loader_.loadRunnableWorkflow(checkpoint.bundle);
    const auto& steps = workflow.flow().steps;
    const auto gate = std::find_if(steps.begin(), steps.end(), [&](const FlowStep& step) {
        return step.id == checkpoint.approvalStepID;
    });
    if (gate == steps.end()) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::message,
                                  "Missing approval step " + checkpoint.approvalStepID);
    }
    RunLog log = checkpoint.log;
    // No progress for the gate: the user has already seen its row.
    log.record(*gate, approvalStepResult(*gate, approvedItems));
    runSteps(workflow, log, static_cast<std::size_t>(gate - steps.begin()) + 1,
             GateMode::failAtGate, request);
    return finish(workflow.flow(), log);
}

std::optional<std::size_t>
GenericScriptWorkflowService::runSteps(const LoadedWorkflow& workflow, RunLog& log,
                                       std::size_t firstIndex, GateMode mode,
                                       const WorkflowRunRequest& request) const {
    const auto& steps = workflow.flow().steps;
    for (std::size_t index = firstIndex; index < steps.size(); ++index) {
        const FlowStep& step = steps[index];
        throwIfStopRequested(request.stopToken);
        if (!handlers_.supports(step.type)) {
            throw ExecutionEngineError(ExecutionEngineError::Kind::missingHandler, step.type);
        }
        if (mode == GateMode::stopAtGate && step.type == stepType::batchApproval) {
            return index;
        }
        reportProgress(request, {step.id, GenericScriptWorkflowProgressState::running, index,
                                 steps.size(), std::nullopt});
        const SystemTime stepStartedAt = now();
        GenericScriptStepRunResult result;
        try {
            const StepContext context{workflow, step, log, request};
            result = handlers_.handlerFor(step, workflow).run(context);
        } catch (const std::filesystem::filesystem_error& error) {
            // The library's words name its own function; ours name the file and the reason.
            const Error composed(describeFilesystemError(error));
            log.recordFailure(step, stepStartedAt, composed);
            throw failure(workflow.flow(), log, composed);
        } catch (const std::exception& error) {
            log.recordFailure(step, stepStartedAt, error);
            throw failure(workflow.flow(), log, error);
        }
        log.record(step, result);
        reportProgress(request, {step.id, GenericScriptWorkflowProgressState::finished, index,
                                 steps.size(), result.duration});
    }
    return std::nullopt;
}

GenericScriptWorkflowFailure
GenericScriptWorkflowService::failure(const FlowDefinition& workflow, const RunLog& log,
                                      const std::exception& error) const {
    // Only the step outputs name a failed run's folder; its stdout is not summarised.
    return {error.what(),
            workflow.id,
            workflow.name,
            log.startedAt,
            secondsBetween(log.startedAt, now()),
            outputFolderPath(log.stepOutputs),
            log.stepTimings,
            log.stepRecords};
}

GenericScriptWorkflowRunResult GenericScriptWorkflowService::finish(const FlowDefinition& workflow,
                                                                    RunLog& log) const {
    GenericScriptWorkflowRunResult result;
    result.flowID = workflow.id;
    result.flowName = workflow.name;
    result.startedAt = log.startedAt;
    result.stdoutText = joined(log.stdoutParts);
    result.stderrText = joined(log.stderrParts);
    result.durationSeconds = secondsBetween(log.startedAt, now());
    result.outputSummary = GenericScriptOutputSummarizer::summary(result.stdoutText);
    result.outputFolder = GenericScriptOutputSummarizer::outputFolder(result.stdoutText);
    if (!result.outputFolder) {
        result.outputFolder = outputFolderPath(log.stepOutputs);
    }
    result.stepTimings = std::move(log.stepTimings);
    result.stepRecords = std::move(log.stepRecords);
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

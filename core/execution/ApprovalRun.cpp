#include "ApprovalRun.h"

#include "core/definitions/WorkflowLoader.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ApprovalItems.h"
#include "core/execution/ContextSteps.h"
#include "core/execution/LLMOutput.h"
#include "core/execution/RunResults.h"
#include "core/foundation/Uuid.h"

#include <algorithm>

namespace quorlin {

PreparedApprovalWorkflowRun prepareApprovalRun(GenericScriptWorkflowRunning& service,
                                               const LoadedWorkflow& workflow,
                                               const WorkflowRunRequest& request,
                                               const std::string& trigger) {
    auto checkpoint = service.runUntilApproval(workflow, request);
    const auto& steps = checkpoint.workflow.steps;
    const auto gate = std::find_if(steps.begin(), steps.end(), [&](const FlowStep& step) {
        return step.id == checkpoint.approvalStepID;
    });
    if (gate == steps.end()) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::invalidResourcePath,
                                  "Missing approval step " + checkpoint.approvalStepID);
    }

    PreparedApprovalWorkflowRun prepared;
    prepared.workflow = checkpoint.workflow;
    prepared.approvalStepID = checkpoint.approvalStepID;
    prepared.approvalStepIndex = static_cast<std::size_t>(gate - steps.begin());
    prepared.startedAt = checkpoint.log.startedAt;
    prepared.trigger = trigger;
    prepared.approvalItems = approvalItems(checkpoint);
    prepared.llmCostUSD = llmCostUSD(checkpoint.log.stepOutputs);
    prepared.stepTimings = checkpoint.log.stepTimings;
    prepared.stepRecords = checkpoint.log.stepRecords;
    prepared.outputFolder = outputFolder(checkpoint.log.stepOutputs);
    prepared.clientProfile = request.clientProfile;
    prepared.checkpoint = std::move(checkpoint);
    return prepared;
}

FinalizedWorkflowRun finalizeApprovedRun(GenericScriptWorkflowRunning& service,
                                         const PreparedApprovalWorkflowRun& prepared,
                                         const std::vector<ApprovalProposal>& approvedItems,
                                         WorkflowRunRequest request) {
    request.clientProfile = prepared.clientProfile;
    const auto result = service.resumeFromApproval(prepared.checkpoint, approvedItems, request);

    FinalizedWorkflowRun finalized;
    for (const auto& path : finalFiles(result)) {
        finalized.finalFiles.emplace_back(path);
    }
    finalized.outputFolder = result.outputFolder
                                 ? std::optional<std::filesystem::path>(*result.outputFolder)
                                 : prepared.outputFolder;

    AuditRun& run = finalized.auditRun;
    run.id = Uuid::random();
    run.flowID = result.flowID;
    run.flowName = result.flowName;
    run.timestamp = formatLocalMinute(prepared.startedAt);
    run.trigger = prepared.trigger;
    run.status = "Success";
    run.outputSummary = result.outputSummary;
    run.minutesSaved = minutesSavedPerRun(prepared.workflow);
    run.llmCostUSD = prepared.llmCostUSD;
    run.durationSeconds = result.durationSeconds;
    run.stepTimings = result.stepTimings;
    run.stepRecords = result.stepRecords;
    if (finalized.outputFolder) {
        run.outputFolder = finalized.outputFolder->string();
    }
    return finalized;
}

} // namespace quorlin

#pragma once

#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/LoadedWorkflow.h"
#include "core/execution/ApprovalProposal.h"
#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/stores/AuditRun.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

// A run parked at its approval gate, with what the gate proposes.
struct PreparedApprovalWorkflowRun {
    FlowDefinition workflow;
    std::string approvalStepID;
    std::size_t approvalStepIndex = 0;
    SystemTime startedAt;
    std::string trigger;
    std::vector<ApprovalProposal> approvalItems;
    double llmCostUSD = 0;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
    std::optional<std::filesystem::path> outputFolder;
    ClientProfileDocument clientProfile; // the profile the run started with, kept for filing
    GenericWorkflowApprovalCheckpoint checkpoint;
};

struct FinalizedWorkflowRun {
    AuditRun auditRun;
    std::optional<std::filesystem::path> outputFolder;
    std::vector<std::filesystem::path> finalFiles;
};

// Runs the workflow to its gate and gathers what the gate shows: its proposals, the LLM
// cost so far and the output folder. Blocks the calling worker thread.
PreparedApprovalWorkflowRun prepareApprovalRun(GenericScriptWorkflowRunning& service,
                                               const LoadedWorkflow& workflow,
                                               const WorkflowRunRequest& request,
                                               const std::string& trigger);

// Runs the steps behind the gate with the approved rows and builds the run's audit row.
// request.clientProfile is replaced by the profile the run started with.
FinalizedWorkflowRun finalizeApprovedRun(GenericScriptWorkflowRunning& service,
                                         const PreparedApprovalWorkflowRun& prepared,
                                         const std::vector<ApprovalProposal>& approvedItems,
                                         WorkflowRunRequest request);

} // namespace quorlin

#pragma once

#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/LoadedWorkflow.h"
#include "core/execution/ApprovalProposal.h"
#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/stores/AppSettings.h"

#include <functional>
#include <map>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

namespace quorlin {

using EnvironmentOverrides = std::map<std::string, std::string>;
using ProgressCallback = std::function<void(const GenericScriptWorkflowProgress&)>;
// A piece of what a step's script wrote to stderr, with the step's id; called on the
// worker thread that runs the step, as the script writes.
using ScriptErrorOutput = std::function<void(const std::string& stepID, std::string_view text)>;

// What a run needs besides the workflow: copies of the settings and the client profile,
// the environment laid over every script's, where progress goes (called on the main
// executor), the stop, and the month's LLM spend for the budget.
struct WorkflowRunRequest {
    AppSettings settings;
    ClientProfileDocument clientProfile;
    EnvironmentOverrides environmentOverrides;
    ProgressCallback progress;
    std::stop_token stopToken;
    ScriptErrorOutput scriptErrorOutput; // may be empty
    // What the LLM steps of the runs recorded this calendar month cost, asked when a paid
    // call is about to be made; empty where there is no audit log to ask.
    std::function<double()> recordedLLMSpendThisMonthUSD;
};

// The face of the run driver that the run coordinator holds. The three run operations
// block the calling worker thread until the run ends, stops at its gate, or fails. The
// workflow comes loaded and checked, once, by the caller.
class GenericScriptWorkflowRunning {
public:
    virtual ~GenericScriptWorkflowRunning() = default;

    // The step types a workflow may use; a run meeting any other fails before that step.
    virtual const std::set<std::string, std::less<>>& supportedStepTypes() const = 0;

    // Every step, first to last, for a workflow with no approval gate.
    virtual GenericScriptWorkflowRunResult run(const LoadedWorkflow& workflow,
                                               const WorkflowRunRequest& request) = 0;

    // The steps up to the first "batch-approval" step, then the checkpoint.
    virtual GenericWorkflowApprovalCheckpoint
    runUntilApproval(const LoadedWorkflow& workflow, const WorkflowRunRequest& request) = 0;

    // The steps behind the gate, with the rows the user approved. The workflow is read
    // again from disk, so an edit made while the user decided takes effect.
    virtual GenericScriptWorkflowRunResult
    resumeFromApproval(const GenericWorkflowApprovalCheckpoint& checkpoint,
                       const std::vector<ApprovalProposal>& approvedItems,
                       const WorkflowRunRequest& request) = 0;
};

} // namespace quorlin

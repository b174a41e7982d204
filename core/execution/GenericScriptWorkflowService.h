#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/execution/ScriptRunner.h"
#include "core/execution/StepHandlerRegistry.h"
#include "core/foundation/MainExecutor.h"

#include <memory>

namespace quorlin {

// The engine that executes one workflow, step by step, on the calling worker thread.
// Each call keeps its run in its own locals, so two flows may run at once. What a step
// does is its handler's business; the registry says which handler that is.
class GenericScriptWorkflowService final : public GenericScriptWorkflowRunning {
public:
    // With every built-in step handler.
    GenericScriptWorkflowService(WorkflowLoader loader, std::shared_ptr<ScriptRunner> runner,
                                 const AppSupportPaths& paths, MainExecutor& mainExecutor);
    GenericScriptWorkflowService(WorkflowLoader loader, StepHandlerRegistry handlers,
                                 AppSupportPaths paths, MainExecutor& mainExecutor);

    const std::set<std::string, std::less<>>& supportedStepTypes() const override;

    GenericScriptWorkflowRunResult run(const LoadedWorkflow& workflow,
                                       const WorkflowRunRequest& request) override;
    GenericWorkflowApprovalCheckpoint runUntilApproval(const LoadedWorkflow& workflow,
                                                       const WorkflowRunRequest& request) override;
    GenericScriptWorkflowRunResult
    resumeFromApproval(const GenericWorkflowApprovalCheckpoint& checkpoint,
                       const std::vector<ApprovalProposal>& approvedItems,
                       const WorkflowRunRequest& request) override;

private:
    enum class GateMode { failAtGate, stopAtGate };

    RunLog startLog(const FlowDefinition& workflow) const;
    // Runs steps from firstIndex on; returns the index of the gate when it stopped at one.
    std::optional<std::size_t> runSteps(const LoadedWorkflow& workflow, RunLog& log,
                                        std::size_t firstIndex, GateMode mode,
                                        const WorkflowRunRequest& request) const;
    GenericScriptWorkflowFailure failure(const FlowDefinition& workflow, const RunLog& log,
                                         const std::exception& error) const;
    GenericScriptWorkflowRunResult finish(const FlowDefinition& workflow, RunLog& log) const;
    void reportProgress(const WorkflowRunRequest& request,
                        const GenericScriptWorkflowProgress& progress) const;

    WorkflowLoader loader_;
    StepHandlerRegistry handlers_;
    AppSupportPaths paths_;
    MainExecutor& mainExecutor_;
};

} // namespace quorlin

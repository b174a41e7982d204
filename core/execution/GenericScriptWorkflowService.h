#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/execution/FolderSteps.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/execution/ScriptRunner.h"
#include "core/foundation/MainExecutor.h"

#include <memory>
#include <set>

namespace quorlin {

// The engine that executes one workflow, step by step, on the calling worker thread.
// Each call keeps its run in its own locals, so two flows may run at once.
class GenericScriptWorkflowService final : public GenericScriptWorkflowRunning {
public:
    GenericScriptWorkflowService(WorkflowLoader loader, std::shared_ptr<ScriptRunner> runner,
                                 AppSupportPaths paths, MainExecutor& mainExecutor);

    GenericScriptWorkflowRunResult run(const std::string& flowID,
                                       const WorkflowRunRequest& request) override;
    GenericWorkflowApprovalCheckpoint runUntilApproval(const std::string& flowID,
                                                       const WorkflowRunRequest& request) override;
    GenericScriptWorkflowRunResult
    resumeFromApproval(const GenericWorkflowApprovalCheckpoint& checkpoint,
                       const std::vector<ApprovalProposal>& approvedItems,
                       const WorkflowRunRequest& request) override;

    // The step types a workflow may use; any other fails the run before its step starts.
    static const std::set<std::string, std::less<>>& supportedStepTypes();

    // The environment of a script step, laid over the inherited one.
    std::map<std::string, std::string>
    runtimeEnvironment(const std::string& workflowID, const FlowStep& step, ScriptRuntime runtime,
                       const AppSettings& settings, const ClientProfileDocument& clientProfile,
                       const EnvironmentOverrides& overrides) const;

private:
    struct Run;
    enum class GateMode { failAtGate, stopAtGate };

    Run load(const std::string& flowID) const;
    Run prepare(const std::string& flowID) const;
    // Runs steps from index on; returns the index of the gate when it stopped at one.
    std::optional<std::size_t> runSteps(Run& run, std::size_t firstIndex, GateMode mode,
                                        const WorkflowRunRequest& request) const;
    GenericScriptStepRunResult runWorkflowStep(const Run& run, const FlowStep& step,
                                               const WorkflowRunRequest& request) const;
    GenericScriptStepRunResult runPlainScriptStep(const Run& run, const FlowStep& step,
                                                  const WorkflowRunRequest& request) const;
    GenericScriptStepRunResult runScriptBlockStep(const Run& run, const FlowStep& step,
                                                  const WorkflowBlockResolution& resolution,
                                                  const WorkflowRunRequest& request) const;
    // Runs a script of this workflow with the step's environment, in its dependency folder.
    ScriptResult runScript(const Run& run, const FlowStep& step, ScriptSpec spec, std::string input,
                           const WorkflowRunRequest& request) const;
    GenericScriptWorkflowRunResult finish(Run& run) const;
    void reportProgress(const WorkflowRunRequest& request,
                        const GenericScriptWorkflowProgress& progress) const;

    WorkflowLoader loader_;
    std::shared_ptr<ScriptRunner> runner_;
    AppSupportPaths paths_;
    MainExecutor& mainExecutor_;
    FolderSteps folderSteps_;
};

} // namespace quorlin

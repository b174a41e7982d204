#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/execution/ScriptRunner.h"
#include "core/execution/StepHandler.h"
#include "core/runtimes/ScriptDependencyInstaller.h"

#include <memory>

namespace quorlin {

// The runtime a step names in its config, else its action: "python" or "node". Throws
// WorkflowLoaderError "Missing runtime for step <id>" when it names neither.
ScriptRuntime stepScriptRuntime(const FlowStep& step);

// Runs one of a workflow's scripts for a step: with the step's environment, in the
// workflow's dependency folder for the runtime, under the run's stop. With an installer,
// the packages the workflow's bundle lists for the runtime are installed first when they
// aren't yet (or the list changed); what pip or npm print joins the step's stderr.
class WorkflowScriptLauncher {
public:
    WorkflowScriptLauncher(std::shared_ptr<ScriptRunner> runner, AppSupportPaths paths,
                           std::shared_ptr<const ScriptDependencyInstaller> dependencies = nullptr);

    ScriptResult launch(const StepContext& context, ScriptSpec spec, std::string input) const;

private:
    std::shared_ptr<ScriptRunner> runner_;
    AppSupportPaths paths_;
    std::shared_ptr<const ScriptDependencyInstaller> dependencies_;
};

// "script-run" with no script block: the script reads the run's previous outputs on stdin
// and may print anything; a JSON object printed becomes its outputs.
class PlainScriptStepHandler final : public StepHandler {
public:
    explicit PlainScriptStepHandler(WorkflowScriptLauncher launcher);
    GenericScriptStepRunResult run(const StepContext& context) const override;

private:
    WorkflowScriptLauncher launcher_;
};

// A step bound to a block that runs a script: the script reads the input envelope and
// must print an output envelope whose outputs the block declares.
class ScriptBlockStepHandler final : public StepHandler {
public:
    explicit ScriptBlockStepHandler(WorkflowScriptLauncher launcher);
    GenericScriptStepRunResult run(const StepContext& context) const override;

private:
    WorkflowScriptLauncher launcher_;
};

} // namespace quorlin

#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/execution/StepHandler.h"
#include "core/runtimes/ScriptDependencyInstaller.h"

#include <memory>

namespace quorlin {

// "runtime-check": the step's runtime must have an interpreter scripts can run on, the
// managed build or else the launcher of the system's; the output says which. Fails with
// "Download the Quorlin-managed <runtime> runtime first." when there is none.
class RuntimeCheckStepHandler final : public StepHandler {
public:
    RuntimeCheckStepHandler(QuorlinResources resources, AppSupportPaths paths);
    GenericScriptStepRunResult run(const StepContext& context) const override;

private:
    QuorlinResources resources_;
    AppSupportPaths paths_;
};

// "dependency-check": installs the packages the run's bundle lists for the step's runtime
// unless they are current, so the steps after it start ready. "installed" says whether
// the workflow lists any.
class DependencyCheckStepHandler final : public StepHandler {
public:
    explicit DependencyCheckStepHandler(std::shared_ptr<const ScriptDependencyInstaller> installer);
    GenericScriptStepRunResult run(const StepContext& context) const override;

private:
    std::shared_ptr<const ScriptDependencyInstaller> installer_;
};

} // namespace quorlin

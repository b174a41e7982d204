#pragma once

#include "core/definitions/LoadedWorkflow.h"
#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/execution/RunLog.h"

namespace quorlin {

// Everything a step may read while it runs: the workflow as loaded for this run, the
// step, what the earlier steps left (and where the run stages files), and the request
// with its settings, profile, overrides and stop.
struct StepContext {
    const LoadedWorkflow& workflow;
    const FlowStep& step;
    const RunLog& log;
    const WorkflowRunRequest& request;
};

// Runs the steps of one type (or one family of types). It is called on the run's
// worker thread, may block there, and reports failure by throwing; the driver records
// the failure and ends the run. Handlers keep no state between calls, so one instance
// serves every run at once.
class StepHandler {
public:
    virtual ~StepHandler() = default;
    virtual GenericScriptStepRunResult run(const StepContext& context) const = 0;
};

} // namespace quorlin

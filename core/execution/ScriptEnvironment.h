#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/ScriptRuntime.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/stores/AppSettings.h"

#include <map>
#include <string>

namespace quorlin {

// The environment of a script step, laid over the inherited one: the LLM provider keys
// and the route for the step's role, where the workflow's script dependencies live, and
// last the run's overrides (blank keys dropped), which win.
std::map<std::string, std::string> scriptEnvironment(const AppSupportPaths& paths,
                                                     const FlowDefinition& workflow,
                                                     const FlowStep& step, ScriptRuntime runtime,
                                                     const AppSettings& settings,
                                                     const ClientProfileDocument& clientProfile,
                                                     const EnvironmentOverrides& overrides);

} // namespace quorlin

#pragma once

#include "core/execution/ApprovalRun.h"
#include "core/execution/RunSession.h"

#include <cstdint>
#include <string>

namespace quorlin {

// Pure functions that turn a workflow, a run parked at its gate or a finished run into the
// session the user sees. Every word of a run in progress is written here.
namespace RunSessionBuilder {

// Stage running: every step pending but the first.
FlowRunSession makeGenericScriptRunningSession(const FlowDefinition& workflow,
                                               std::int64_t totalMinutesSaved,
                                               const std::string& trigger);

// Moves the step list to a progress report. Only the report's index counts, not its id.
FlowRunSession applyGenericScriptProgress(FlowRunSession session,
                                          const GenericScriptWorkflowProgress& progress);

// Stage running, paused at the gate until the user opens the proposals.
FlowRunSession makeApprovalWaitingSession(const PreparedApprovalWorkflowRun& prepared,
                                          std::int64_t totalMinutesSaved);
// Stage approval: the proposals table.
FlowRunSession makeApprovalSession(const PreparedApprovalWorkflowRun& prepared,
                                   std::int64_t totalMinutesSaved);
// Stage filing: the steps behind the gate are running.
FlowRunSession makeFilingSession(const PreparedApprovalWorkflowRun& prepared,
                                 std::int64_t totalMinutesSaved);

// Stage complete after a gate (or a rejection). The total is shown as given: the caller's
// total already counts this run.
FlowRunSession makeCompletedSession(const FinalizedWorkflowRun& finalized,
                                    std::int64_t totalMinutesSaved);

// Stage complete for a run without a gate; its note shows what the scripts printed.
FlowRunSession makeGenericScriptCompletedSession(const GenericScriptWorkflowRunResult& result,
                                                 std::int64_t totalMinutesSaved,
                                                 std::int64_t minutesSaved,
                                                 const std::string& trigger);

// Stage failed, keeping the steps as they stood.
FlowRunSession makeFailedSession(FlowRunSession session, const std::string& message,
                                 bool retryable);

// A session for a run that never got going: only the bootstrap step to show.
FlowRunSession makeBootstrapFailedSession(const std::string& flowID, const std::string& flowName,
                                          const std::string& trigger, std::int64_t totalMinutes);

// The session of a run started again after a retryable failure; retryCount counts the
// retries that led to it, and a running session says it is retrying.
FlowRunSession markedAsRetry(FlowRunSession session, std::int64_t retryCount);

StepAccent stepAccent(const FlowStep& step);

} // namespace RunSessionBuilder

} // namespace quorlin

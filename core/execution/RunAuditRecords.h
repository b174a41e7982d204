#pragma once

#include "core/execution/ApprovalRun.h"
#include "core/execution/RunSession.h"
#include "core/foundation/Error.h"
#include "core/stores/AuditRun.h"

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

namespace quorlin {

// A run that ended but whose audit row could not be written: the user must learn which
// run that was and why, since the history will not show it.
class RunNotRecordedError : public Error {
public:
    RunNotRecordedError(const AuditRun& run, const std::exception& cause);
};

// The audit rows the run coordinator writes, one builder per way a run can end. Each gives
// a row with a fresh id; writing it is the caller's business.

// A run without a gate that went through. It reports no LLM cost, on purpose: only runs
// that stop at a gate gather one.
AuditRun successAuditRun(const GenericScriptWorkflowRunResult& result, std::int64_t minutesSaved,
                         const std::string& trigger);

// A run that failed. A GenericScriptWorkflowFailure brings the steps that ran; without one
// the row is made from the session's step list, and error (when given) names the error's
// type in the record.
AuditRun failureAuditRun(const FlowRunSession& session, const FlowDefinition* workflow,
                         const std::string& message, const std::exception* error);

// Every proposal at the gate rejected: the gate's step is recorded with what was turned
// down, and no file is written.
AuditRun rejectionAuditRun(const PreparedApprovalWorkflowRun& prepared,
                           const std::vector<ApprovalProposal>& rejected, SystemTime now);

} // namespace quorlin

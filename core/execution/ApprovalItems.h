#pragma once

#include "core/execution/ApprovalProposal.h"
#include "core/execution/GenericScriptWorkflowRecords.h"

#include <vector>

namespace quorlin {

// The gate's own step result once the user has decided: the approved rows, whole, under
// "approved_table", so a later filing step reads back the names as the user left them.
GenericScriptStepRunResult approvalStepResult(const FlowStep& step,
                                              const std::vector<ApprovalProposal>& approvedItems);

} // namespace quorlin

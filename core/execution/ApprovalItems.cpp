#include "ApprovalItems.h"

#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/NativeStepResult.h"

#include <chrono>

namespace quorlin {

GenericScriptStepRunResult approvalStepResult(const FlowStep& /*step*/,
                                              const std::vector<ApprovalProposal>& approvedItems) {
    nlohmann::json table = nlohmann::json::array();
    for (const auto& item : approvedItems) {
        table.push_back(nlohmann::json::parse(toJson(item).dump()));
    }
    const WorkflowValueMap input{
        {"approved_count", static_cast<std::int64_t>(approvedItems.size())}};
    const WorkflowValueMap output{{"approved_table", workflowValueFromJson(table)}};
    return nativeStepResult(input, output, std::chrono::system_clock::now());
}

} // namespace quorlin

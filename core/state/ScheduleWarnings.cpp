#include "core/state/ScheduleWarnings.h"

#include "core/definitions/TriggerTypes.h"
#include "core/state/CronSchedule.h"
#include "core/state/CronScheduleError.h"

#include <string>

namespace quorlin {

std::vector<WorkflowWarning> scheduleWarnings(const FlowDefinition& flow) {
    std::vector<WorkflowWarning> warnings;
    for (std::size_t index = 0; index < flow.triggers.size(); ++index) {
        const auto& trigger = flow.triggers[index];
        if (trigger.type != triggerType::schedule && trigger.type != triggerType::scheduled) {
            continue;
        }
        const std::string expression = trigger.cron.value_or("");
        try {
            CronSchedule::validated(expression);
        } catch (const CronScheduleError& error) {
            std::string message = "Trigger " + std::to_string(index + 1) + ": " + error.what();
            if (error.kind() == CronScheduleError::Kind::malformed) {
                message += " (it reads '" + expression + "')";
            }
            warnings.push_back({"", std::move(message)});
        }
    }
    return warnings;
}

} // namespace quorlin

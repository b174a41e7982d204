#include "core/state/SchedulePresentation.h"

#include "core/definitions/TriggerTypes.h"
#include "core/foundation/Text.h"
#include "core/state/CronSchedule.h"
#include "core/state/CronScheduleError.h"

namespace quorlin {

std::optional<std::string> inheritedCronExpression(const FlowDefinition& flow) {
    for (const auto& trigger : flow.triggers) {
        if ((trigger.type == triggerType::scheduled || trigger.type == triggerType::schedule) &&
            trigger.cron) {
            return trigger.cron;
        }
    }
    return std::nullopt;
}

FlowSchedulePresentation
schedulePresentation(const FlowDefinition& flow,
                     const std::optional<WorkflowSchedulePreference>& preference,
                     const std::optional<std::string>& fallbackCronExpression, SystemTime now) {
    FlowSchedulePresentation presentation;
    presentation.inheritedCronExpression =
        fallbackCronExpression ? fallbackCronExpression : inheritedCronExpression(flow);
    if (preference) {
        presentation.isEnabled = preference->isEnabled;
        presentation.cronExpression = preference->cronExpression;
    } else {
        presentation.isEnabled = presentation.inheritedCronExpression.has_value();
    }
    std::string effective = trimmed(presentation.cronExpression);
    if (effective.empty()) {
        effective = presentation.inheritedCronExpression.value_or("");
    }
    if (effective.empty()) {
        presentation.nextRun = "Manual trigger";
        presentation.description = "Manual";
        if (presentation.isEnabled) {
            presentation.validationMessage =
                CronScheduleError(CronScheduleError::Kind::empty).what();
        }
        return presentation;
    }
    const auto schedule = CronSchedule::parse(effective);
    if (!schedule) {
        presentation.nextRun = "Invalid cron";
        presentation.description = "Invalid cron: " + effective;
        presentation.validationMessage =
            CronScheduleError(CronScheduleError::Kind::malformed).what();
    } else if (!presentation.isEnabled) {
        presentation.nextRun = "Disabled";
        presentation.description = "Schedule disabled";
    } else {
        presentation.nextRun = formattedNextRun(schedule->nextRun(now));
        presentation.description = schedule->localizedDescription();
    }
    return presentation;
}

} // namespace quorlin

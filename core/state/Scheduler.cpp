#include "core/state/Scheduler.h"

#include "core/foundation/Text.h"
#include "core/state/CronSchedule.h"

namespace quorlin {

std::optional<std::string> effectiveCronExpression(const ScheduledFlow& flow) {
    if (auto own = trimmed(flow.cronExpression); !own.empty()) {
        return own;
    }
    return flow.inheritedCronExpression;
}

namespace {

std::optional<CronSchedule> scheduleOf(const ScheduledFlow& flow) {
    if (!flow.isEnabled || !flow.isRunnable) {
        return std::nullopt;
    }
    const auto expression = effectiveCronExpression(flow);
    return expression ? CronSchedule::parse(*expression) : std::nullopt;
}

} // namespace

std::vector<std::string> Scheduler::dueFlows(const std::vector<ScheduledFlow>& flows,
                                             const IsActive& isActive, SystemTime now) {
    const std::string minuteKey = formatLocalMinute(now);
    std::vector<std::string> due;
    for (const auto& flow : flows) {
        if (!flow.isEnabled || !flow.isRunnable || (isActive && isActive(flow.id))) {
            continue;
        }
        if (const auto found = lastScheduledRunMinuteKeys_.find(flow.id);
            found != lastScheduledRunMinuteKeys_.end() && found->second == minuteKey) {
            continue;
        }
        const auto schedule = scheduleOf(flow);
        if (!schedule || !schedule->matches(now)) {
            continue;
        }
        lastScheduledRunMinuteKeys_[flow.id] = minuteKey;
        due.push_back(flow.id);
    }
    return due;
}

std::optional<SystemTime> Scheduler::nextWake(const std::vector<ScheduledFlow>& flows,
                                              SystemTime after) {
    std::optional<SystemTime> earliest;
    for (const auto& flow : flows) {
        if (const auto schedule = scheduleOf(flow)) {
            if (const auto next = schedule->nextRun(after);
                next && (!earliest || *next < *earliest)) {
                earliest = next;
            }
        }
    }
    return earliest;
}

} // namespace quorlin

#pragma once

#include "core/foundation/LocalTime.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

// A flow as the scheduler sees it: whether its schedule is on, whether this build can run
// it, and its expressions (the user's own, else the flow's).
struct ScheduledFlow {
    std::string id;
    bool isEnabled = false;
    bool isRunnable = false;
    std::string cronExpression;
    std::optional<std::string> inheritedCronExpression;
};

// The expression a flow runs by: the user's own trimmed, else the flow's; none when
// neither is there.
std::optional<std::string> effectiveCronExpression(const ScheduledFlow& flow);

// Decides which flows start by themselves. A round looks at the current minute only:
// there is no catch-up, so a minute nobody observed is lost, and a flow with a run in
// progress misses its turn (and may still fire later in the same minute, once that run
// has ended). Each flow fires at most once per minute, by the minute's local
// "yyyy-MM-dd HH:mm" key, kept in memory only.
class Scheduler {
public:
    using IsActive = std::function<bool(const std::string& flowID)>;

    // The flows to start now, in the order given; each is marked as fired for this minute
    // before it is returned, so a start that is refused is not tried again this minute.
    std::vector<std::string> dueFlows(const std::vector<ScheduledFlow>& flows,
                                      const IsActive& isActive, SystemTime now);

    // The earliest next run of any scheduled flow after the moment; none when no flow has
    // one. The wake of a sleeping machine is asked for then.
    static std::optional<SystemTime> nextWake(const std::vector<ScheduledFlow>& flows,
                                              SystemTime after);

private:
    std::map<std::string, std::string> lastScheduledRunMinuteKeys_;
};

} // namespace quorlin

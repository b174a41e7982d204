#pragma once

#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/LocalTime.h"
#include "core/stores/FlowLibraryPreferences.h"

#include <optional>
#include <string>

namespace quorlin {

// A flow's schedule as its settings and cards show it.
struct FlowSchedulePresentation {
    bool isEnabled = false;
    std::string cronExpression;                         // the user's own; "" for the flow's
    std::optional<std::string> inheritedCronExpression; // the flow's own
    std::string nextRun;                                // "2024-05-01 08:00", "Disabled", ...
    std::string description;                            // "Daily at 08:00", "Manual", ...
    std::optional<std::string> validationMessage;
    friend bool operator==(const FlowSchedulePresentation&,
                           const FlowSchedulePresentation&) = default;
};

// The flow's own expression: the first schedule trigger that has one.
std::optional<std::string> inheritedCronExpression(const FlowDefinition& flow);

// The schedule from the user's preference for the flow (when there is one) over the flow's
// own expression (fallback, else its first schedule trigger's). Without a preference a flow
// with an expression of its own is enabled. A bad expression is reported even when the
// schedule is off, so it can be mended before it is switched on. The next run is searched
// from now.
FlowSchedulePresentation
schedulePresentation(const FlowDefinition& flow,
                     const std::optional<WorkflowSchedulePreference>& preference,
                     const std::optional<std::string>& fallbackCronExpression, SystemTime now);

} // namespace quorlin

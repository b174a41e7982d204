#pragma once

#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowWarnings.h"

#include <vector>

namespace quorlin {

// The flow's schedule triggers whose cron expression can't be read, each with the words
// the schedule editor shows for it. Such a trigger never fires, though the flow loads.
std::vector<WorkflowWarning> scheduleWarnings(const FlowDefinition& flow);

} // namespace quorlin

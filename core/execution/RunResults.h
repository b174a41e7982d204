#pragma once

#include "core/definitions/WorkflowDocument.h"
#include "core/execution/GenericScriptWorkflowRecords.h"

#include <cstdint>
#include <string>
#include <vector>

namespace quorlin {

// The manual minutes one run of the workflow replaces; 0 when the workflow doesn't say.
std::int64_t minutesSavedPerRun(const FlowDefinition& workflow);

// The files a run delivered: the "final_files" of the last stdout line that is a JSON
// object with that key. A "final_files" that is not a list of texts throws DecodingError.
std::vector<std::string> finalFiles(const GenericScriptWorkflowRunResult& result);

} // namespace quorlin

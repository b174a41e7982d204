#pragma once

#include "core/definitions/WorkflowBlockValidator.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowWarnings.h"

#include <vector>

namespace quorlin {

// A workflow read once and checked as a run checks it, with what will still go wrong
// when it runs. The warnings never stop a run.
struct LintedWorkflow {
    WorkflowDocument document;
    std::vector<WorkflowBlockResolution> blockResolutions; // in step order
    std::vector<WorkflowWarning> warnings;
};

} // namespace quorlin

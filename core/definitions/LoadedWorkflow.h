#pragma once

#include "core/definitions/WorkflowBlockValidator.h"
#include "core/definitions/WorkflowBundleLocator.h"
#include "core/definitions/WorkflowDocument.h"

#include <map>
#include <string>

namespace quorlin {

// A workflow read and checked once, ready to run: the bundle it came from, its document,
// and the block each block-bound step resolved to, by step id.
struct LoadedWorkflow {
    WorkflowBundleReference reference;
    WorkflowDocument document;
    std::map<std::string, WorkflowBlockResolution> blockResolutions;

    const FlowDefinition& flow() const { return document.flow; }
};

} // namespace quorlin

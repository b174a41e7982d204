#pragma once

#include "core/definitions/WorkflowBlockValidator.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/YamlNode.h"

#include <filesystem>
#include <string>
#include <vector>

namespace quorlin {

// Something in a workflow that loads and validates but will fail, or quietly do nothing,
// when the flow runs. Never an error: the flow stays loadable and runnable.
struct WorkflowWarning {
    std::string stepID; // empty when it is about the flow as a whole
    std::string message;
    friend bool operator==(const WorkflowWarning&, const WorkflowWarning&) = default;
};

// What a run of this workflow will trip over: step and trigger types nothing knows, keys
// the decoder ignores that look like typos of keys it reads, script runtimes, script and
// prompt files that are not in the bundle, and templates that read a step that has not
// run yet. In step order, flow-wide ones first; each said once.
//
// raw is the YAML tree the document was decoded from; blocks are the document's block
// resolutions (from WorkflowBlockValidator); bundle block manifests are read again from
// bundleDirectory. Reads files, never writes, never throws for what it finds.
std::vector<WorkflowWarning> workflowWarnings(const WorkflowDocument& document, const YamlNode& raw,
                                              const std::filesystem::path& bundleDirectory,
                                              const std::vector<WorkflowBlockResolution>& blocks);

} // namespace quorlin

#pragma once

#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/Error.h"

#include <filesystem>
#include <string>
#include <vector>

namespace quorlin {

class WorkflowLoaderError : public Error {
public:
    enum class Kind { workflowNotFound, message };

    // payload: the workflow id for workflowNotFound, the whole text for message.
    WorkflowLoaderError(Kind kind, const std::string& payload);

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

enum class WorkflowSourceKind { bundled, installed };

// A workflow bundle found on disk: the directory holding its flow.yaml.
struct WorkflowBundleReference {
    std::string flowID;
    std::filesystem::path directory;
    WorkflowSourceKind source = WorkflowSourceKind::bundled;
};

// Turns a bundle on disk into a WorkflowDocument. It never runs code and never writes.
class WorkflowLoader {
public:
    explicit WorkflowLoader(QuorlinResources resources);

    // Reads and decodes one flow.yaml; YAML and decoding errors pass through unchanged.
    WorkflowDocument loadWorkflow(const std::filesystem::path& file) const;

    // The bundled workflows, one per folder of the resource "Workflows" directory that
    // holds a flow.yaml whose id can be read, in folder-name order. A folder that can't
    // be read is left out, so one bad file never hides the rest.
    std::vector<WorkflowBundleReference> bundledWorkflowReferences() const;

    // The bundle in force for a workflow id, or workflowNotFound.
    WorkflowBundleReference availableWorkflowReference(const std::string& workflowID) const;

    std::filesystem::path workflowFile(const WorkflowBundleReference& reference) const;
    WorkflowDocument loadWorkflowBundle(const WorkflowBundleReference& reference) const;

private:
    QuorlinResources resources_;
};

} // namespace quorlin

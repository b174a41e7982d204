#pragma once

#include "core/definitions/LintedWorkflow.h"
#include "core/definitions/LoadedWorkflow.h"
#include "core/definitions/WorkflowBlockValidator.h"
#include "core/definitions/WorkflowBundleLocator.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/Error.h"

#include <filesystem>
#include <string>
#include <vector>

namespace quorlin {

class WorkflowLoaderError : public Error {
public:
    enum class Kind { workflowNotFound, invalidResourcePath, message };

    // payload: the workflow id for workflowNotFound, the whole text otherwise.
    WorkflowLoaderError(Kind kind, const std::string& payload);

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

// Turns a bundle on disk into a WorkflowDocument and refuses one whose steps don't match
// their blocks. Bundled and installed workflows pass the same gate. It never runs code
// and never writes.
class WorkflowLoader {
public:
    WorkflowLoader(WorkflowBundleLocator locator,
                   WorkflowBlockValidator validator = WorkflowBlockValidator());

    // Reads and decodes one workflow file, with no block validation.
    WorkflowDocument loadWorkflow(const std::filesystem::path& file) const;

    // The file to read for a bundle: the manifest's entrypoint, else flow.yaml.
    std::filesystem::path workflowFile(const WorkflowBundleReference& reference) const;
    // Reads, decodes and validates the blocks of a bundle.
    WorkflowDocument loadWorkflowBundle(const WorkflowBundleReference& reference) const;

    WorkflowDocument loadBundledWorkflow(const std::string& workflowID) const;
    WorkflowDocument loadInstalledWorkflow(const std::string& flowID) const;

    // The active installed bundle of an id, else the bundled one, else workflowNotFound:
    // an installed workflow shadows a bundled one of the same id.
    WorkflowBundleReference availableWorkflowReference(const std::string& workflowID) const;
    WorkflowDocument loadAvailableWorkflow(const std::string& workflowID) const;
    // The available workflow with its block resolutions, as a run needs it.
    LoadedWorkflow loadRunnableWorkflow(const std::string& workflowID) const;
    LoadedWorkflow loadRunnableWorkflow(const WorkflowBundleReference& reference) const;

    std::vector<WorkflowBlockResolution>
    validateWorkflowBlocks(const WorkflowDocument& document,
                           const std::filesystem::path& bundleDirectory) const;

    // Loads and validates a bundle as loadWorkflowBundle does, failing the same way, and
    // adds what will still fail at run time. lintWorkflow reads <directory>/flow.yaml.
    LintedWorkflow lintWorkflowBundle(const WorkflowBundleReference& reference) const;
    LintedWorkflow lintWorkflow(const std::filesystem::path& bundleDirectory) const;

    const WorkflowBundleLocator& locator() const { return locator_; }

private:
    LintedWorkflow lintWorkflowFile(const std::filesystem::path& file,
                                    const std::filesystem::path& bundleDirectory) const;

    WorkflowBundleLocator locator_;
    WorkflowBlockValidator validator_;
};

} // namespace quorlin

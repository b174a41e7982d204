#include "WorkflowLoader.h"

#include "core/foundation/AtomicFile.h"

#include <algorithm>
#include <system_error>

namespace quorlin {

namespace {

std::string loaderMessage(WorkflowLoaderError::Kind kind, const std::string& payload) {
    switch (kind) {
    case WorkflowLoaderError::Kind::workflowNotFound:
        return "Workflow not found: " + payload;
    case WorkflowLoaderError::Kind::message:
        return payload;
    }
    return payload;
}

} // namespace

WorkflowLoaderError::WorkflowLoaderError(Kind kind, const std::string& payload)
    : Error(loaderMessage(kind, payload)), kind_(kind) {}

WorkflowLoader::WorkflowLoader(QuorlinResources resources) : resources_(std::move(resources)) {}

WorkflowDocument WorkflowLoader::loadWorkflow(const std::filesystem::path& file) const {
    return decodeWorkflowDocumentYaml(readFile(file));
}

std::vector<WorkflowBundleReference> WorkflowLoader::bundledWorkflowReferences() const {
    std::vector<WorkflowBundleReference> references;
    const auto workflows = resources_.workflowsDirectory();
    std::error_code error;
    if (!workflows || !std::filesystem::is_directory(*workflows, error)) {
        return references;
    }
    std::vector<std::filesystem::path> folders;
    for (const auto& entry : std::filesystem::directory_iterator(*workflows, error)) {
        if (entry.is_directory(error) &&
            std::filesystem::exists(entry.path() / "flow.yaml", error)) {
            folders.push_back(entry.path());
        }
    }
    std::sort(folders.begin(), folders.end());
    for (const auto& folder : folders) {
        try {
            const auto document = loadWorkflow(folder / "flow.yaml");
            references.push_back({document.flow.id, folder, WorkflowSourceKind::bundled});
        } catch (const std::exception&) {
            // A broken bundle is reported when it is run by name; the list stays usable.
        }
    }
    return references;
}

WorkflowBundleReference
WorkflowLoader::availableWorkflowReference(const std::string& workflowID) const {
    for (auto& reference : bundledWorkflowReferences()) {
        if (reference.flowID == workflowID) {
            return reference;
        }
    }
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::workflowNotFound, workflowID);
}

std::filesystem::path WorkflowLoader::workflowFile(const WorkflowBundleReference& reference) const {
    auto file = reference.directory / "flow.yaml";
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::workflowNotFound, reference.flowID);
    }
    return file;
}

WorkflowDocument
WorkflowLoader::loadWorkflowBundle(const WorkflowBundleReference& reference) const {
    return loadWorkflow(workflowFile(reference));
}

} // namespace quorlin

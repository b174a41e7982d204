#include "WorkflowRegistry.h"

namespace quorlin {

WorkflowRegistry::WorkflowRegistry(WorkflowLoader loader) : loader_(std::move(loader)) {}

std::vector<WorkflowRegistryEntry> WorkflowRegistry::availableEntries() const {
    std::vector<WorkflowRegistryEntry> entries;
    for (auto& reference : loader_.locator().availableWorkflowReferences()) {
        auto document = loader_.loadWorkflowBundle(reference);
        entries.push_back({std::move(reference), std::move(document)});
    }
    return entries;
}

} // namespace quorlin

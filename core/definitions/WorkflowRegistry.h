#pragma once

#include "core/definitions/WorkflowLoader.h"

#include <vector>

namespace quorlin {

struct WorkflowRegistryEntry {
    WorkflowBundleReference bundle;
    WorkflowDocument document;
};

// Loads every workflow in force. Strict: the first workflow that fails to load fails the
// whole call, so callers that must list the rest handle it.
class WorkflowRegistry {
public:
    explicit WorkflowRegistry(WorkflowLoader loader);

    std::vector<WorkflowRegistryEntry> availableEntries() const;

    const WorkflowLoader& loader() const { return loader_; }

private:
    WorkflowLoader loader_;
};

} // namespace quorlin

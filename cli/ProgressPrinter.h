#pragma once

#include "core/execution/GenericScriptWorkflowRecords.h"

#include <cstdio>
#include <string>

namespace quorlin::cli {

// Shows a run's steps as they go: on a terminal the line of the running step is
// redrawn when it ends; piped, each event is a plain line.
class ProgressPrinter {
public:
    explicit ProgressPrinter(std::FILE* out);

    void show(const GenericScriptWorkflowProgress& progress);
    // Ends a running line left open by a step that failed or was cancelled.
    void stepFailed();

private:
    std::FILE* out_;
    bool terminal_;
    bool lineOpen_ = false;
    std::string runningLabel_;
};

} // namespace quorlin::cli

#pragma once

#include "core/execution/RunSession.h"

#include <cstdio>
#include <map>
#include <string>

namespace quorlin::cli {

// Shows a run's steps as the sessions come in: on a terminal the line of the running step
// is redrawn when it ends; piped, each change is a plain line.
class ProgressPrinter {
public:
    // redraw: on a terminal, redraw the running step's line; off when other output (a
    // script's log) goes between the lines.
    ProgressPrinter(std::FILE* out, bool redraw);

    void show(const FlowRunSession& session);
    // Closes a running line left open, before other output.
    void finishLine();

private:
    void changed(const LiveStep& step, std::size_t index, std::size_t count);

    std::FILE* out_;
    bool terminal_;
    bool lineOpen_ = false;
    std::map<std::string, LiveStepState::Kind> shown_; // by step id
};

} // namespace quorlin::cli

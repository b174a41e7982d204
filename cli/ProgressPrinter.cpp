#include "cli/ProgressPrinter.h"

#include <unistd.h>

namespace quorlin::cli {

ProgressPrinter::ProgressPrinter(std::FILE* out, bool redraw)
    : out_(out), terminal_(redraw && isatty(fileno(out)) != 0) {}

void ProgressPrinter::show(const FlowRunSession& session) {
    for (std::size_t index = 0; index < session.liveSteps.size(); ++index) {
        const auto& step = session.liveSteps[index];
        const auto previous = shown_.find(step.id);
        if (previous == shown_.end() || previous->second != step.state.kind) {
            shown_[step.id] = step.state.kind;
            changed(step, index, session.liveSteps.size());
        }
    }
    std::fflush(out_);
}

void ProgressPrinter::changed(const LiveStep& step, std::size_t index, std::size_t count) {
    // Session titles are numbered ("2. Write the report"); the counter says it already.
    const std::string number = std::to_string(index + 1) + ". ";
    const std::string title =
        step.title.starts_with(number) ? step.title.substr(number.size()) : step.title;
    const std::string label =
        "[" + std::to_string(index + 1) + "/" + std::to_string(count) + "] " + title;
    using Kind = LiveStepState::Kind;
    if (step.state.kind == Kind::pending) {
        return;
    }
    if (terminal_) {
        if (lineOpen_) {
            std::fputs("\r\033[2K", out_);
        }
        switch (step.state.kind) {
        case Kind::running:
            std::fprintf(out_, "  … %s", label.c_str());
            lineOpen_ = true;
            return;
        case Kind::waiting:
            std::fprintf(out_, "  ⏸ %s — %s\n", label.c_str(), step.detail.c_str());
            break;
        default:
            std::fprintf(out_, "  ✓ %s\n", label.c_str());
            break;
        }
        lineOpen_ = false;
        return;
    }
    const char* word = step.state.kind == Kind::running   ? "started "
                       : step.state.kind == Kind::waiting ? "waiting "
                                                          : "finished";
    std::fprintf(out_, "%s %s\n", word, label.c_str());
}

void ProgressPrinter::finishLine() {
    if (lineOpen_) {
        std::fputs("\n", out_);
        lineOpen_ = false;
    }
    std::fflush(out_);
}

} // namespace quorlin::cli

#include "cli/ProgressPrinter.h"

#include <unistd.h>

namespace quorlin::cli {

namespace {

std::string label(const GenericScriptWorkflowProgress& progress) {
    return "[" + std::to_string(progress.stepIndex + 1) + "/" +
           std::to_string(progress.totalSteps) + "] " + progress.stepID;
}

} // namespace

ProgressPrinter::ProgressPrinter(std::FILE* out) : out_(out), terminal_(isatty(fileno(out)) != 0) {}

void ProgressPrinter::show(const GenericScriptWorkflowProgress& progress) {
    if (progress.state == GenericScriptWorkflowProgressState::running) {
        runningLabel_ = label(progress);
        if (terminal_) {
            std::fprintf(out_, "  … %s", runningLabel_.c_str());
            lineOpen_ = true;
        } else {
            std::fprintf(out_, "started  %s\n", runningLabel_.c_str());
        }
    } else {
        const double seconds = progress.durationSeconds.value_or(0);
        if (terminal_) {
            std::fprintf(out_, "\r\033[2K  ✓ %s  %.1fs\n", label(progress).c_str(), seconds);
            lineOpen_ = false;
        } else {
            std::fprintf(out_, "finished %s %.1fs\n", label(progress).c_str(), seconds);
        }
    }
    std::fflush(out_);
}

void ProgressPrinter::stepFailed() {
    if (terminal_ && lineOpen_) {
        std::fprintf(out_, "\r\033[2K  ✗ %s\n", runningLabel_.c_str());
        lineOpen_ = false;
    } else if (!terminal_ && !runningLabel_.empty()) {
        std::fprintf(out_, "failed   %s\n", runningLabel_.c_str());
    }
    std::fflush(out_);
}

} // namespace quorlin::cli

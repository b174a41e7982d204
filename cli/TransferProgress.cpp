#include "cli/TransferProgress.h"

#include <cmath>

namespace quorlin::cli {

namespace {

using Clock = std::chrono::steady_clock;

std::string megabytes(std::uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
    return text;
}

std::string duration(double seconds) {
    const auto whole = static_cast<long long>(std::ceil(seconds));
    return whole < 60 ? std::to_string(whole) + " s"
                      : std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
}

} // namespace

std::string transferText(const DownloadProgress& progress, double bytesPerSecond) {
    std::string text = megabytes(progress.receivedBytes);
    if (progress.totalBytes) {
        text += " of " + megabytes(*progress.totalBytes);
    }
    if (bytesPerSecond > 0) {
        text += ", " + megabytes(static_cast<std::uint64_t>(bytesPerSecond)) + "/s";
        if (progress.totalBytes && *progress.totalBytes >= progress.receivedBytes) {
            const auto left = static_cast<double>(*progress.totalBytes - progress.receivedBytes);
            text += ", " + duration(left / bytesPerSecond) + " left";
        }
    }
    return text;
}

TransferProgress::TransferProgress(std::FILE* out, bool terminal)
    : out_(out), terminal_(terminal) {}

TransferProgress::~TransferProgress() {
    finish();
}

void TransferProgress::stage(std::string_view text) {
    finish();
    label_ = std::string(text);
    started_ = Clock::now();
    last_ = {};
    if (terminal_) {
        std::fprintf(out_, "%s...", label_.c_str());
        lineOpen_ = true;
    } else {
        std::fprintf(out_, "%s\n", label_.c_str());
    }
    std::fflush(out_);
}

void TransferProgress::download(const DownloadProgress& progress) {
    last_ = progress;
    const auto now = Clock::now();
    if (!terminal_ || now - lastDrawn_ < std::chrono::milliseconds(100)) {
        return;
    }
    lastDrawn_ = now;
    const double seconds = std::chrono::duration<double>(now - started_).count();
    const double rate = seconds > 0.5 ? static_cast<double>(progress.receivedBytes) / seconds : 0.0;
    // \r and "erase to the end of the line": a shorter line leaves nothing behind.
    std::fprintf(out_, "\r\033[K%s: %s", label_.c_str(), transferText(progress, rate).c_str());
    lineOpen_ = true;
    std::fflush(out_);
}

void TransferProgress::finish() {
    if (last_.receivedBytes > 0) {
        const double seconds = std::chrono::duration<double>(Clock::now() - started_).count();
        const std::string done =
            label_ + ": " + megabytes(last_.receivedBytes) + " in " + duration(seconds);
        std::fprintf(out_, terminal_ ? "\r\033[K%s\n" : "%s\n", done.c_str());
        last_ = {};
        lineOpen_ = false;
    } else if (lineOpen_) {
        std::fprintf(out_, "\n");
        lineOpen_ = false;
    }
    std::fflush(out_);
}

} // namespace quorlin::cli

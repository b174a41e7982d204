#pragma once

#include "core/foundation/HttpDownload.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

namespace quorlin::cli {

// "12.3 MB of 30.1 MB, 4.1 MB/s, 5 s left": the bytes so far, the total when known, the
// rate and the time left at that rate when there is one.
std::string transferText(const DownloadProgress& progress, double bytesPerSecond);

// A download's progress on stderr. On a terminal one line is redrawn, at most ten times
// a second; otherwise each stage is one plain line, and the end of a download another.
class TransferProgress {
public:
    TransferProgress(std::FILE* out, bool terminal);
    ~TransferProgress();
    TransferProgress(const TransferProgress&) = delete;
    TransferProgress& operator=(const TransferProgress&) = delete;

    // A new stage ("Verifying the download"), ending any line in progress.
    void stage(std::string_view text);
    // A step of the download announced by the last stage.
    void download(const DownloadProgress& progress);
    // Ends the line in progress, before other output.
    void finish();

private:
    std::FILE* out_;
    bool terminal_;
    bool lineOpen_ = false;
    std::string label_;
    std::chrono::steady_clock::time_point started_;
    std::chrono::steady_clock::time_point lastDrawn_;
    DownloadProgress last_;
};

} // namespace quorlin::cli

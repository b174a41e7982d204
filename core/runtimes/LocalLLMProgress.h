#pragma once

#include "core/foundation/HttpDownload.h"

#include <functional>
#include <string>

namespace quorlin {

// A step of a long local model action, for a progress bar.
struct LocalLLMProgress {
    enum class Stage {
        downloading, // the Ollama archive; transfer counts its bytes
        verifying,   // the archive against its published checksum
        unpacking,
        starting, // the server, until it answers
        pulling,  // a model; status is the server's words, transfer the current layer's bytes
    };
    Stage stage = Stage::downloading;
    // "pulling manifest", "pulling 2bada8a74506", "verifying sha256 digest", ... for pulling.
    std::string status;
    // Bytes so far and in all, when the step moves bytes; zero otherwise.
    DownloadProgress transfer;
};

// Called on the calling thread, in order; may be empty.
using LocalLLMProgressCallback = std::function<void(const LocalLLMProgress&)>;

inline void reportProgress(const LocalLLMProgressCallback& progress, const LocalLLMProgress& step) {
    if (progress) {
        progress(step);
    }
}

} // namespace quorlin

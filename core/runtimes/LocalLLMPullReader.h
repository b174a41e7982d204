#pragma once

#include "core/runtimes/LocalLLMProgress.h"

#include <string>
#include <string_view>

namespace quorlin {

// Reads the reply to Ollama's POST /api/pull as it streams in: one JSON object a line,
// {"status": "...", "digest": "...", "total": N, "completed": M} while it works, then
// {"status": "success"}, or {"error": "..."} when it fails. Each status line becomes a
// pulling step of the progress callback.
class LocalLLMPullReader {
public:
    LocalLLMPullReader(std::string model, LocalLLMProgressCallback progress);

    // A piece of the reply, cut anywhere. Throws LocalLLMInstallerError(processFailed)
    // with the server's words for an error line, or for a line that is not a JSON object.
    void read(std::string_view piece);

    // The reply has ended: throws LocalLLMInstallerError(processFailed) unless it said
    // success.
    void finish();

    bool succeeded() const { return succeeded_; }

private:
    void readLine(std::string_view line);

    std::string model_;
    LocalLLMProgressCallback progress_;
    std::string pending_;
    bool succeeded_ = false;
};

// The words of a reply Ollama refused a request with: its JSON "error", else the body as
// text.
std::string ollamaRefusal(const std::string& body);

} // namespace quorlin

#include "cli/ScriptLog.h"

#include "core/foundation/Text.h"

#include <cstdio>

namespace quorlin::cli {

void ScriptLog::write(const std::string& stepID, std::string_view text) {
    const std::lock_guard lock(mutex_);
    auto& pending = pending_[stepID];
    pending += text;
    std::size_t end = 0;
    while ((end = pending.find('\n')) != std::string::npos) {
        takeLine(stepID, pending.substr(0, end));
        pending.erase(0, end + 1);
    }
}

void ScriptLog::finish(bool hint) {
    const std::lock_guard lock(mutex_);
    for (auto& [stepID, pending] : pending_) {
        if (!pending.empty()) {
            takeLine(stepID, pending);
            pending.clear();
        }
    }
    if (!hint) {
        return;
    }
    for (const auto& [stepID, count] : hidden_) {
        std::fprintf(stderr, "Step %s wrote %zu line(s) to stderr; --verbose shows them.\n",
                     stepID.c_str(), count);
    }
}

void ScriptLog::takeLine(const std::string& stepID, const std::string& line) {
    if (live_) {
        std::fprintf(stderr, "  %s| %s\n", stepID.c_str(), escapedControlBytes(line).c_str());
    } else {
        ++hidden_[stepID];
    }
}

} // namespace quorlin::cli

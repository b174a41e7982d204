#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace quorlin::cli {

// What the scripts write to stderr: shown line by line with --verbose, otherwise counted
// so the report can say that there is something to see. write is called from the run's
// worker thread.
class ScriptLog {
public:
    explicit ScriptLog(bool live) : live_(live) {}

    void write(const std::string& stepID, std::string_view text);

    // Lines not yet ended, and with hint, a line for each step whose log was not shown.
    void finish(bool hint);

private:
    void takeLine(const std::string& stepID, const std::string& line);

    bool live_;
    std::mutex mutex_;
    std::map<std::string, std::string> pending_; // by step id, the line not yet ended
    std::map<std::string, std::size_t> hidden_;  // by step id, lines not shown
};

} // namespace quorlin::cli

#pragma once

#include "core/foundation/ChildProcessError.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

inline constexpr std::size_t defaultChildOutputLimit = std::size_t{16} << 20U;

// What to start: the executable, its arguments (argv[0] is the executable's path and is
// added by the runner), the child's complete environment, and the bytes for its stdin.
struct ChildProcessRequest {
    std::filesystem::path executable;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;
    std::optional<std::filesystem::path> workingDirectory;
    std::string standardInput;
    // Absent: no limit.
    std::optional<std::chrono::duration<double>> timeout;
    // The most kept of stdout and of stderr each; a child that writes more is stopped.
    std::size_t outputLimit = defaultChildOutputLimit;
    // Handed each piece of stderr as it arrives, on the calling thread; for showing a
    // script's log live. The whole stderr is in the result all the same.
    std::function<void(std::string_view)> onStandardError{};
};

struct ChildProcessResult {
    // The exit status, or 128 + the signal number for a child ended by a signal, as a
    // shell reports it.
    int exitCode = 0;
    std::string standardOutput;
    std::string standardError;
};

// Runs one child process to its end. stdin is fed and stdout/stderr are drained at the
// same time, so neither a large input nor a chatty child can deadlock the pair.
//
// The child leads a process group of its own, and everything it starts stays in it
// unless it leaves on purpose. A stop request sends SIGTERM to the group once and keeps
// waiting for the child to go away (or for the time limit); a group still there three
// seconds after SIGTERM gets SIGKILL. On time-out the group gets SIGTERM and the call
// throws ChildProcessError(timedOut) at once, without waiting; the group is killed and
// the child reaped in the background. When the child exits, whatever is left of its group
// is killed: a step leaves no process behind. The child also gets SIGKILL when the thread
// that started it dies, so a killed application does not leave it running.
// A child that writes more than its output limit to stdout or to stderr is terminated as
// on time-out, and the call throws ChildProcessError(outputTooLarge) at once, so memory
// stays bounded whatever it prints. A child that exits without reading its stdin is not
// an error.
//
// The child gets only its three standard streams, no blocked signals and default signal
// actions. Safe to call from many threads at once.
ChildProcessResult runChildProcess(const ChildProcessRequest& request,
                                   const std::stop_token& stopToken = {});

// This process's environment with the overrides laid over it: what a child started on our
// behalf should see.
std::map<std::string, std::string>
processEnvironment(const std::map<std::string, std::string>& overrides = {});

} // namespace quorlin

#pragma once

// Starting the child of runChildProcess and keeping hold of it until it is reaped.
// Internal to ChildProcess.cpp.

#include "core/foundation/ChildProcess.h"
#include "core/foundation/ChildProcessPipes.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <sys/types.h>

namespace quorlin::child_process {

// How long a process group has between SIGTERM and SIGKILL.
inline constexpr std::chrono::seconds terminationGrace{3};

// Starts the request's executable with the pipes' child ends as its stdin, stdout and
// stderr. Throws ChildProcessError(launchFailed), or std::system_error when the spawn
// attributes can't be set up.
pid_t spawn(const ChildProcessRequest& request, const Pipe& input, const Pipe& output,
            const Pipe& errors);

// A launched child not yet reaped. Whatever way the call ends, the child is either reaped
// here or terminated and handed to a background reaper, so no zombie is left behind.
class RunningChild {
public:
    explicit RunningChild(pid_t pid);
    ~RunningChild();
    RunningChild(const RunningChild&) = delete;
    RunningChild& operator=(const RunningChild&) = delete;

    // Readable once the child has exited; not open where the kernel offers no pidfd.
    const FileDescriptor& exitNotice() const { return exitNotice_; }

    // SIGTERM to the child's whole process group, once.
    void terminate();
    // When SIGKILL follows a SIGTERM the group has not obeyed; nothing before terminate().
    std::optional<std::chrono::steady_clock::time_point> killDue() const;
    // SIGKILL to the group once the grace after SIGTERM is over.
    void killIfDue();

    // The exit code if the child has ended; with block, waits for it.
    std::optional<int> reap(bool block, const std::filesystem::path& executable);

private:
    pid_t pid_;
    FileDescriptor exitNotice_;
    std::optional<std::chrono::steady_clock::time_point> terminatedAt_;
    bool killed_ = false;
    bool reaped_ = false;
};

} // namespace quorlin::child_process

#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace quorlin {

// One `ollama serve` this program started. The command line exits right after starting
// it, so the server outlives its parent and is found again through a record file: its
// process id, and the start time the kernel gives the process, which tells it apart from
// a later process that got the same id. Nothing here ever signals a process it did not
// start.
class LocalLLMServerProcess {
public:
    // Starts executable with the arguments in a session of its own, so neither Ctrl-C at
    // a terminal nor the end of this process reaches it: stdin from /dev/null, stdout
    // and stderr to logFile (emptied first), the environment of this process with
    // extraEnvironment laid over it. Throws LocalLLMInstallerError(processFailed) when it
    // can't be started.
    // address: the server address it was started for, kept in the record.
    static LocalLLMServerProcess launch(const std::filesystem::path& executable,
                                        const std::vector<std::string>& arguments,
                                        const std::map<std::string, std::string>& extraEnvironment,
                                        const std::filesystem::path& logFile, std::string address);

    // The server a record file names while it still runs as that same process; nothing
    // when there is no record, it can't be read, or its process is gone. A record of a
    // process that is gone is removed.
    static std::optional<LocalLLMServerProcess> fromRecord(const std::filesystem::path& file);

    // Writes the record atomically; throws FileError.
    void writeRecord(const std::filesystem::path& file) const;

    pid_t pid() const { return pid_; }
    const std::filesystem::path& executable() const { return executable_; }
    const std::string& address() const { return address_; }

    // True while the process runs and is still the one started. Reaps it when it has
    // ended and is a child of this process, so no zombie stays.
    bool running() const;

    // SIGTERM to the server's process group (it and the model runners it started), then
    // a wait of up to grace in steps of step; a group whose leader is still there then
    // gets SIGKILL. Does nothing when the process is no longer the one started.
    void stop(std::chrono::milliseconds grace, std::chrono::milliseconds step) const;

private:
    LocalLLMServerProcess(pid_t pid, std::uint64_t startTime, std::filesystem::path executable,
                          std::string address);

    pid_t pid_;
    std::uint64_t startTime_;
    std::filesystem::path executable_;
    std::string address_;
};

} // namespace quorlin

#include "ChildProcessSpawn.h"

#include "core/foundation/ChildProcessError.h"

#include <cerrno>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace quorlin::child_process {

namespace {

using Kind = ChildProcessError::Kind;

void reapInBackground(pid_t pid) noexcept {
    const auto reap = [pid] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    };
    try {
        std::thread(reap).detach();
    } catch (const std::system_error&) {
        // No thread to spare: end the child outright and reap it here, so no zombie stays.
        ::kill(pid, SIGKILL);
        reap();
    }
}

// Called through syscall(): this glibc's <sys/pidfd.h> lacks C linkage for C++.
int openPidfd(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int exitCodeFromStatus(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

class SpawnFileActions {
public:
    SpawnFileActions() {
        if (const int error = ::posix_spawn_file_actions_init(&actions_); error != 0) {
            throw std::system_error(error, std::generic_category());
        }
    }
    ~SpawnFileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    SpawnFileActions(const SpawnFileActions&) = delete;
    SpawnFileActions& operator=(const SpawnFileActions&) = delete;
    posix_spawn_file_actions_t* get() { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
public:
    SpawnAttributes() {
        if (const int error = ::posix_spawnattr_init(&attributes_); error != 0) {
            throw std::system_error(error, std::generic_category());
        }
    }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &attributes_; }

private:
    posix_spawnattr_t attributes_{};
};

void check(int error) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category());
    }
}

std::string checkedCString(const std::string& text, const std::filesystem::path& executable) {
    if (text.find('\0') != std::string::npos) {
        throw ChildProcessError(Kind::launchFailed, executable,
                                "an argument or environment entry contains a NUL byte");
    }
    return text;
}

// Why a launch failed. posix_spawn reports a bad working directory with the same codes as a
// bad executable, so the directory is looked at again to name the right culprit.
std::string launchFailureReason(int error, const ChildProcessRequest& request) {
    if (request.workingDirectory) {
        struct stat info {};
        int directoryError = 0;
        const char* directory = request.workingDirectory->c_str();
        // Missing, or a folder we may not enter: errno says which.
        if (::stat(directory, &info) != 0 ||
            (S_ISDIR(info.st_mode) && ::access(directory, X_OK) != 0)) {
            directoryError = errno;
        } else if (!S_ISDIR(info.st_mode)) {
            directoryError = ENOTDIR;
        }
        if (directoryError != 0) {
            return "working directory " + request.workingDirectory->string() + ": " +
                   systemReason(directoryError);
        }
    }
    return systemReason(error);
}

} // namespace

pid_t spawn(const ChildProcessRequest& request, const Pipe& input, const Pipe& output,
            const Pipe& errors) {
    const auto& executable = request.executable;
    // A relative executable is found from our directory, not the child's new one.
    auto program = executable;
    if (request.workingDirectory && program.is_relative()) {
        std::error_code ignored; // on failure the path stays relative and spawn says why
        program = std::filesystem::absolute(program, ignored);
    }

    std::vector<std::string> arguments{checkedCString(executable.string(), executable)};
    for (const auto& argument : request.arguments) {
        arguments.push_back(checkedCString(argument, executable));
    }
    std::vector<std::string> environment;
    for (const auto& [name, value] : request.environment) {
        if (name.empty() || name.find('=') != std::string::npos) {
            throw ChildProcessError(Kind::launchFailed, executable,
                                    "invalid environment variable name \"" + name + "\"");
        }
        environment.push_back(checkedCString(name + "=" + value, executable));
    }
    const auto pointers = [](std::vector<std::string>& strings) {
        std::vector<char*> result;
        for (auto& text : strings) {
            result.push_back(text.data());
        }
        result.push_back(nullptr);
        return result;
    };
    auto argv = pointers(arguments);
    auto envp = pointers(environment);

    SpawnFileActions actions;
    check(::posix_spawn_file_actions_adddup2(actions.get(), input.readEnd.get(), STDIN_FILENO));
    check(::posix_spawn_file_actions_adddup2(actions.get(), output.writeEnd.get(), STDOUT_FILENO));
    check(::posix_spawn_file_actions_adddup2(actions.get(), errors.writeEnd.get(), STDERR_FILENO));
    // Descriptors some library opened without close-on-exec must not reach the child either.
    check(::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1));
    if (request.workingDirectory) {
        check(::posix_spawn_file_actions_addchdir_np(actions.get(),
                                                     request.workingDirectory->c_str()));
    }

    // The child starts with no blocked signals and default actions: it must not inherit
    // our blocked SIGPIPE, nor any signal the application chose to ignore.
    SpawnAttributes attributes;
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    check(::posix_spawnattr_setflags(attributes.get(),
                                     POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
    check(::posix_spawnattr_setsigmask(attributes.get(), &none));
    check(::posix_spawnattr_setsigdefault(attributes.get(), &all));

    pid_t pid = 0;
    if (const int error = ::posix_spawn(&pid, program.c_str(), actions.get(), attributes.get(),
                                        argv.data(), envp.data());
        error != 0) {
        throw ChildProcessError(Kind::launchFailed, executable,
                                launchFailureReason(error, request));
    }
    return pid;
}

RunningChild::RunningChild(pid_t pid) : pid_(pid), exitNotice_(openPidfd(pid)) {}

RunningChild::~RunningChild() {
    if (!reaped_) {
        terminate();
        reapInBackground(pid_);
    }
}

void RunningChild::terminate() {
    if (!terminated_) {
        terminated_ = true;
        ::kill(pid_, SIGTERM);
    }
}

std::optional<int> RunningChild::reap(bool block, const std::filesystem::path& executable) {
    int status = 0;
    pid_t result = 0;
    while ((result = ::waitpid(pid_, &status, block ? 0 : WNOHANG)) < 0 && errno == EINTR) {
    }
    if (result == 0) {
        return std::nullopt;
    }
    reaped_ = true;
    if (result < 0) { // ECHILD: someone else reaped it, e.g. with SIGCHLD ignored
        throw ChildProcessError(Kind::ioFailed, executable,
                                "exit status unavailable: " + systemReason(errno));
    }
    return exitCodeFromStatus(status);
}

} // namespace quorlin::child_process

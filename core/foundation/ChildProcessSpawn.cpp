#include "ChildProcessSpawn.h"

#include "core/foundation/ChildProcessError.h"

#include <cerrno>
#include <chrono>
#include <linux/close_range.h>
#include <optional>
#include <signal.h>
#include <string>
#include <sys/prctl.h>
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

// Waits for the child to exit without reaping it, up to the deadline when one is given;
// true once it has exited.
bool waitForExit(pid_t pid, std::optional<std::chrono::steady_clock::time_point> deadline) {
    while (true) {
        siginfo_t info{};
        const int flags = WEXITED | WNOWAIT | (deadline ? WNOHANG : 0);
        if (::waitid(P_PID, static_cast<id_t>(pid), &info, flags) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return true; // nothing left to wait for
        }
        if (info.si_pid != 0) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= *deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// The child has exited (it is a zombie, so its group id is still its own): whatever is
// left of its group goes with it, then it is reaped.
int killGroupAndReap(pid_t pid) {
    ::kill(-pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// For a child that was sent SIGTERM and is no longer waited for: the grace period,
// then SIGKILL for the whole group, then the reaping, so no zombie and no process of
// its group stays behind.
void reapInBackground(pid_t pid) noexcept {
    const auto reap = [pid] {
        if (!waitForExit(pid, std::chrono::steady_clock::now() + terminationGrace)) {
            ::kill(-pid, SIGKILL);
        }
        killGroupAndReap(pid);
    };
    try {
        std::thread(reap).detach();
    } catch (const std::system_error&) {
        // No thread to spare: end the group outright and reap it here.
        ::kill(-pid, SIGKILL);
        killGroupAndReap(pid);
    }
}

// Called through syscall(): this glibc's <sys/pidfd.h> lacks C linkage for C++.
int openPidfd(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

int exitCodeFromStatus(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string checkedCString(const std::string& text, const std::filesystem::path& executable) {
    if (text.find('\0') != std::string::npos) {
        throw ChildProcessError(Kind::launchFailed, executable,
                                "an argument or environment entry contains a NUL byte");
    }
    return text;
}

// Why a launch failed. chdir and exec fail with the same codes for a bad working directory
// as for a bad executable, so the directory is looked at again to name the right culprit.
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

// What the forked child needs, all prepared before the fork: after it only
// async-signal-safe calls are allowed, since the child is a copy of a threaded process.
struct ChildSetup {
    const char* program;
    char* const* argv;
    char* const* envp;
    const char* workingDirectory; // null: stay where we are
    int input;
    int output;
    int errors;
    int report;
    pid_t parent;
};

[[noreturn]] void failChild(int report) {
    const int error = errno;
    [[maybe_unused]] const auto ignored = ::write(report, &error, sizeof error);
    ::_exit(127);
}

[[noreturn]] void startChild(const ChildSetup& setup) {
    // Default actions for every signal: no handler or ignored signal of ours carries over.
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &defaults, nullptr); // fails harmlessly for SIGKILL and SIGSTOP
    }
    // A group of its own, so a time-out or a cancel reaches whatever it starts too; and it
    // dies with the thread that started it, should the application be killed outright.
    ::setpgid(0, 0);
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != setup.parent) {
        ::_exit(127); // the parent is already gone: nobody waits for this child
    }
    if (::dup2(setup.input, STDIN_FILENO) < 0 || ::dup2(setup.output, STDOUT_FILENO) < 0 ||
        ::dup2(setup.errors, STDERR_FILENO) < 0) {
        failChild(setup.report);
    }
    // Descriptors some library opened without close-on-exec must not reach the program.
    ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    if (setup.workingDirectory != nullptr && ::chdir(setup.workingDirectory) != 0) {
        failChild(setup.report);
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(setup.program, setup.argv, setup.envp);
    failChild(setup.report);
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

    // The child reports why it could not start through this pipe; close-on-exec makes a
    // successful exec close it, so end of file means the program runs.
    Pipe report = makePipe();
    const ChildSetup setup{program.c_str(),
                           argv.data(),
                           envp.data(),
                           request.workingDirectory ? request.workingDirectory->c_str() : nullptr,
                           input.readEnd.get(),
                           output.writeEnd.get(),
                           errors.writeEnd.get(),
                           report.writeEnd.get(),
                           ::getpid()};
    // Every signal stays blocked across fork, so none reaches the child before it has
    // reset its handlers.
    sigset_t all;
    sigset_t previous;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    const pid_t pid = ::fork();
    if (pid == 0) {
        startChild(setup);
    }
    const int forkError = errno;
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (pid < 0) {
        throw ChildProcessError(Kind::launchFailed, executable, systemReason(forkError));
    }
    report.writeEnd.reset();

    int childError = 0;
    ssize_t count = 0;
    while ((count = ::read(report.readEnd.get(), &childError, sizeof childError)) < 0 &&
           errno == EINTR) {
    }
    if (count > 0) {
        killGroupAndReap(pid);
        throw ChildProcessError(Kind::launchFailed, executable,
                                launchFailureReason(childError, request));
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
    if (!terminatedAt_) {
        terminatedAt_ = std::chrono::steady_clock::now();
        ::kill(-pid_, SIGTERM);
    }
}

std::optional<std::chrono::steady_clock::time_point> RunningChild::killDue() const {
    if (!terminatedAt_ || killed_) {
        return std::nullopt;
    }
    return *terminatedAt_ + terminationGrace;
}

void RunningChild::killIfDue() {
    if (const auto due = killDue(); due && std::chrono::steady_clock::now() >= *due) {
        killed_ = true;
        ::kill(-pid_, SIGKILL);
    }
}

std::optional<int> RunningChild::reap(bool block, const std::filesystem::path& executable) {
    siginfo_t info{};
    int result = 0;
    while ((result = ::waitid(P_PID, static_cast<id_t>(pid_), &info,
                              WEXITED | WNOWAIT | (block ? 0 : WNOHANG))) < 0 &&
           errno == EINTR) {
    }
    if (result < 0) { // ECHILD: someone else reaped it, e.g. with SIGCHLD ignored
        reaped_ = true;
        throw ChildProcessError(Kind::ioFailed, executable,
                                "exit status unavailable: " + systemReason(errno));
    }
    if (info.si_pid == 0) {
        return std::nullopt;
    }
    // The step is over: nothing it started may outlive it.
    reaped_ = true;
    return exitCodeFromStatus(killGroupAndReap(pid_));
}

} // namespace quorlin::child_process

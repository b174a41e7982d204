#include "ChildProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <locale>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sstream>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace quorlin {

namespace {

using Clock = std::chrono::steady_clock;
using Kind = ChildProcessError::Kind;

constexpr std::size_t readChunk = 64 * 1024;

std::string systemReason(int error) {
    std::array<char, 256> buffer{};
    return ::strerror_r(error, buffer.data(), buffer.size()); // GNU variant: returns the text
}

std::string formatSeconds(double seconds) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << seconds;
    return text.str();
}

std::string composeMessage(Kind kind, const std::filesystem::path& executable,
                           const std::string& detail, std::chrono::duration<double> timeout) {
    switch (kind) {
    case Kind::launchFailed:
        return "Could not start " + executable.string() + ": " + detail;
    case Kind::timedOut:
        return executable.string() + " timed out after " + formatSeconds(timeout.count()) + "s";
    case Kind::ioFailed:
        return "Could not exchange data with " + executable.string() + ": " + detail;
    }
    return executable.string() + ": " + detail;
}

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = std::exchange(other.descriptor_, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return descriptor_; }
    bool isOpen() const { return descriptor_ >= 0; }
    void reset() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
            descriptor_ = -1;
        }
    }

private:
    int descriptor_ = -1;
};

struct Pipe {
    FileDescriptor readEnd;
    FileDescriptor writeEnd;
};

// Our ends must never be 0, 1 or 2 (possible when the application runs with a standard
// stream closed): the child's dup2 onto those numbers would clobber one pipe with another.
void keepAboveStandardStreams(FileDescriptor& descriptor) {
    if (descriptor.get() > STDERR_FILENO) {
        return;
    }
    const int moved = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) {
        throw std::system_error(errno, std::generic_category());
    }
    descriptor = FileDescriptor(moved);
}

void setNonBlocking(const FileDescriptor& descriptor) {
    const int flags = ::fcntl(descriptor.get(), F_GETFL);
    if (flags < 0 || ::fcntl(descriptor.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        throw std::system_error(errno, std::generic_category());
    }
}

// Close-on-exec on both ends, so no other child started meanwhile from another thread
// inherits them; the child's copies made by dup2 lose the flag.
Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    Pipe pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
    keepAboveStandardStreams(pipe.readEnd);
    keepAboveStandardStreams(pipe.writeEnd);
    return pipe;
}

// Writing into a pipe whose reader is gone raises SIGPIPE in the writing thread, and its
// default action ends the whole application. Ignoring it process-wide would change a
// setting that belongs to the application, so instead it is blocked in this thread for
// the call; a SIGPIPE our own write raised is taken off the pending set before the old
// mask returns. One that was pending before the call is left for its owner.
class SigpipeBlock {
public:
    SigpipeBlock() {
        ::pthread_sigmask(SIG_BLOCK, &pipeOnly(), &previousMask_);
        sigset_t pending;
        ::sigpending(&pending);
        pendingBefore_ = ::sigismember(&pending, SIGPIPE) == 1;
    }
    ~SigpipeBlock() {
        if (raised_ && !pendingBefore_) {
            const timespec noWait{};
            while (::sigtimedwait(&pipeOnly(), nullptr, &noWait) < 0 && errno == EINTR) {
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

    void noteRaised() { raised_ = true; }

private:
    static const sigset_t& pipeOnly() {
        static const sigset_t set = [] {
            sigset_t s;
            ::sigemptyset(&s);
            ::sigaddset(&s, SIGPIPE);
            return s;
        }();
        return set;
    }

    sigset_t previousMask_{};
    bool pendingBefore_ = false;
    bool raised_ = false;
};

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

// A launched child not yet reaped. Whatever way the call ends, the child is either reaped
// here or terminated and handed to a background reaper, so no zombie is left behind.
class RunningChild {
public:
    explicit RunningChild(pid_t pid) : pid_(pid), exitNotice_(openPidfd(pid)) {}
    ~RunningChild() {
        if (!reaped_) {
            terminate();
            reapInBackground(pid_);
        }
    }
    RunningChild(const RunningChild&) = delete;
    RunningChild& operator=(const RunningChild&) = delete;

    // Readable once the child has exited; not open where the kernel offers no pidfd.
    const FileDescriptor& exitNotice() const { return exitNotice_; }

    void terminate() {
        if (!terminated_) {
            terminated_ = true;
            ::kill(pid_, SIGTERM);
        }
    }

    // The exit code if the child has ended; with block, waits for it.
    std::optional<int> reap(bool block, const std::filesystem::path& executable) {
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

private:
    pid_t pid_;
    FileDescriptor exitNotice_;
    bool terminated_ = false;
    bool reaped_ = false;
};

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
        if (::stat(request.workingDirectory->c_str(), &info) != 0) {
            directoryError = errno;
        } else if (!S_ISDIR(info.st_mode)) {
            directoryError = ENOTDIR;
        } else if (::access(request.workingDirectory->c_str(), X_OK) != 0) {
            directoryError = errno;
        }
        if (directoryError != 0) {
            return "working directory " + request.workingDirectory->string() + ": " +
                   systemReason(directoryError);
        }
    }
    return systemReason(error);
}

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

std::optional<Clock::time_point> deadlineFrom(const ChildProcessRequest& request,
                                              Clock::time_point launch) {
    if (!request.timeout) {
        return std::nullopt;
    }
    // Negative or NaN counts as zero; the cap keeps the sum far from overflow.
    const double seconds = request.timeout->count() > 0 ? request.timeout->count() : 0.0;
    const std::chrono::duration<double> bounded(std::min(seconds, 1e9));
    return launch + std::chrono::duration_cast<Clock::duration>(bounded);
}

int pollTimeout(const std::optional<Clock::time_point>& deadline, bool haveExitNotice) {
    // Without a pidfd nothing wakes us when the child exits, so look every 100 ms.
    int limit = haveExitNotice ? -1 : 100;
    if (deadline) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
        const auto clamped = std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, INT_MAX);
        limit = limit < 0 ? static_cast<int>(clamped) : std::min(limit, static_cast<int>(clamped));
    }
    return limit;
}

// Reads what one wake-up offers; closes the descriptor at end of file.
void readSome(FileDescriptor& descriptor, std::string& into, std::size_t most,
              const std::filesystem::path& executable) {
    const auto start = into.size();
    into.resize(start + most);
    ssize_t count = 0;
    while ((count = ::read(descriptor.get(), into.data() + start, most)) < 0 && errno == EINTR) {
    }
    into.resize(start + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count == 0) {
        descriptor.reset();
    } else if (count < 0 && errno != EAGAIN) {
        throw ChildProcessError(Kind::ioFailed, executable, systemReason(errno));
    }
}

// Once the child has exited everything it wrote is in the pipe. Only that much is taken: a
// grandchild still holding the pipe must not keep the call waiting.
void takeWhatIsLeft(FileDescriptor& descriptor, std::string& into,
                    const std::filesystem::path& executable) {
    int available = 0;
    if (!descriptor.isOpen() || ::ioctl(descriptor.get(), FIONREAD, &available) != 0) {
        return;
    }
    const auto wanted = into.size() + static_cast<std::size_t>(std::max(available, 0));
    while (descriptor.isOpen() && into.size() < wanted) {
        const auto before = into.size();
        readSome(descriptor, into, wanted - before, executable);
        if (into.size() == before) {
            return; // nothing more after all
        }
    }
}

// Writes as much as the pipe takes now. Closes our end when everything is written or the
// child has closed its stdin (EPIPE), which is the child's choice and not an error.
void feed(FileDescriptor& descriptor, std::string_view& pending, SigpipeBlock& sigpipe,
          const std::filesystem::path& executable) {
    while (!pending.empty()) {
        const ssize_t written = ::write(descriptor.get(), pending.data(), pending.size());
        if (written >= 0) {
            pending.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            return;
        } else if (errno == EPIPE) {
            sigpipe.noteRaised();
            pending = {};
        } else if (errno != EINTR) {
            throw ChildProcessError(Kind::ioFailed, executable, systemReason(errno));
        }
    }
    descriptor.reset();
}

} // namespace

ChildProcessError::ChildProcessError(Kind kind, const std::filesystem::path& executable,
                                     std::string detail, std::chrono::duration<double> timeout)
    : Error(composeMessage(kind, executable, detail, timeout)), kind_(kind), timeout_(timeout) {}

ChildProcessResult runChildProcess(const ChildProcessRequest& request, std::stop_token stopToken) {
    const auto& executable = request.executable;
    SigpipeBlock sigpipe;

    Pipe input;
    Pipe output;
    Pipe errors;
    Pipe wake; // the stop callback's way to interrupt poll
    try {
        input = makePipe();
        output = makePipe();
        errors = makePipe();
        wake = makePipe();
        for (const auto* end :
             {&input.writeEnd, &output.readEnd, &errors.readEnd, &wake.readEnd, &wake.writeEnd}) {
            setNonBlocking(*end);
        }
    } catch (const std::system_error& error) {
        throw ChildProcessError(Kind::launchFailed, executable, systemReason(error.code().value()));
    }

    const auto launch = Clock::now();
    const auto deadline = deadlineFrom(request, launch);
    std::optional<RunningChild> child;
    try {
        child.emplace(spawn(request, input, output, errors));
    } catch (const std::system_error& error) {
        throw ChildProcessError(Kind::launchFailed, executable, systemReason(error.code().value()));
    }
    // The child holds its own copies now; ours would hide its end of file.
    input.readEnd.reset();
    output.writeEnd.reset();
    errors.writeEnd.reset();

    // Declared after the wake pipe, so it is gone (and any running call finished) before the
    // pipe closes. A full pipe already wakes us, so a failed write loses nothing.
    const std::stop_callback onStop(stopToken, [end = wake.writeEnd.get()]() noexcept {
        const char byte = 1;
        [[maybe_unused]] const auto ignored = ::write(end, &byte, 1);
    });

    std::string_view pending = request.standardInput;
    if (pending.empty()) {
        input.writeEnd.reset();
    }
    ChildProcessResult result;
    std::optional<int> exitCode;
    const bool haveExitNotice = child->exitNotice().isOpen();
    while (!exitCode) {
        if (deadline && Clock::now() >= *deadline) {
            child->terminate();
            throw ChildProcessError(Kind::timedOut, executable, {}, *request.timeout);
        }
        std::array<pollfd, 5> watched{{
            {input.writeEnd.get(), POLLOUT, 0},
            {output.readEnd.get(), POLLIN, 0},
            {errors.readEnd.get(), POLLIN, 0},
            {wake.readEnd.get(), POLLIN, 0},
            {child->exitNotice().get(), POLLIN, 0},
        }}; // poll skips negative descriptors: closed pipes and a missing pidfd
        if (::poll(watched.data(), watched.size(), pollTimeout(deadline, haveExitNotice)) < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw ChildProcessError(Kind::ioFailed, executable, systemReason(errno));
        }
        if (watched[3].revents != 0) {
            std::array<char, 64> drained{};
            while (::read(wake.readEnd.get(), drained.data(), drained.size()) > 0) {
            }
            child->terminate();
        }
        if (watched[0].revents != 0) {
            feed(input.writeEnd, pending, sigpipe, executable);
        }
        if (watched[1].revents != 0) {
            readSome(output.readEnd, result.standardOutput, readChunk, executable);
        }
        if (watched[2].revents != 0) {
            readSome(errors.readEnd, result.standardError, readChunk, executable);
        }
        if (watched[4].revents != 0 || !haveExitNotice) {
            exitCode = child->reap(haveExitNotice, executable);
        }
    }
    takeWhatIsLeft(output.readEnd, result.standardOutput, executable);
    takeWhatIsLeft(errors.readEnd, result.standardError, executable);
    result.exitCode = *exitCode;
    return result;
}

} // namespace quorlin

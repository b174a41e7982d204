#include "ChildProcess.h"

#include "core/foundation/ChildProcessPipes.h"
#include "core/foundation/ChildProcessSpawn.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <initializer_list>
#include <poll.h>
#include <string_view>
#include <system_error>
#include <unistd.h>

extern char** environ; // the process environment, as POSIX names it

namespace quorlin {

namespace {

using namespace child_process;
using Clock = std::chrono::steady_clock;
using Kind = ChildProcessError::Kind;

constexpr std::size_t readChunk = 64 * 1024;

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

// How long poll may sleep: until the nearest of the deadlines, or for ever.
int pollTimeout(std::initializer_list<std::optional<Clock::time_point>> deadlines,
                bool haveExitNotice) {
    // Without a pidfd nothing wakes us when the child exits, so look every 100 ms.
    int limit = haveExitNotice ? -1 : 100;
    for (const auto& deadline : deadlines) {
        if (deadline) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
            const auto clamped = static_cast<int>(
                std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, INT_MAX));
            limit = limit < 0 ? clamped : std::min(limit, clamped);
        }
    }
    return limit;
}

// Past the limit the child is stopped and the call fails; what was read so far is dropped.
void checkOutputLimit(RunningChild& child, const std::string& captured, const char* stream,
                      const ChildProcessRequest& request) {
    if (captured.size() > request.outputLimit) {
        child.terminate();
        throw ChildProcessError::outputTooLarge(request.executable, stream, request.outputLimit);
    }
}

void passOn(const ChildProcessRequest& request, const std::string& captured, std::size_t from) {
    if (request.onStandardError && captured.size() > from) {
        request.onStandardError(std::string_view(captured).substr(from));
    }
}

} // namespace

ChildProcessResult runChildProcess(const ChildProcessRequest& request,
                                   const std::stop_token& stopToken) {
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
        child->killIfDue();
        const int timeout = pollTimeout({deadline, child->killDue()}, haveExitNotice);
        if (::poll(watched.data(), watched.size(), timeout) < 0) {
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
            checkOutputLimit(*child, result.standardOutput, "stdout", request);
        }
        if (watched[2].revents != 0) {
            const auto before = result.standardError.size();
            readSome(errors.readEnd, result.standardError, readChunk, executable);
            passOn(request, result.standardError, before);
            checkOutputLimit(*child, result.standardError, "stderr", request);
        }
        if (watched[4].revents != 0 || !haveExitNotice) {
            exitCode = child->reap(haveExitNotice, executable);
        }
    }
    takeWhatIsLeft(output.readEnd, result.standardOutput, executable);
    const auto before = result.standardError.size();
    takeWhatIsLeft(errors.readEnd, result.standardError, executable);
    passOn(request, result.standardError, before);
    checkOutputLimit(*child, result.standardOutput, "stdout", request);
    checkOutputLimit(*child, result.standardError, "stderr", request);
    result.exitCode = *exitCode;
    return result;
}

std::map<std::string, std::string>
processEnvironment(const std::map<std::string, std::string>& overrides) {
    std::map<std::string, std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view pair(*entry);
        const auto equals = pair.find('=');
        if (equals != std::string_view::npos) {
            environment.emplace(pair.substr(0, equals), pair.substr(equals + 1));
        }
    }
    for (const auto& [key, value] : overrides) {
        environment[key] = value;
    }
    return environment;
}

} // namespace quorlin

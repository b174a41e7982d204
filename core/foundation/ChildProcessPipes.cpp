#include "ChildProcessPipes.h"

#include "core/foundation/ChildProcessError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <system_error>

namespace quorlin::child_process {

namespace {

using Kind = ChildProcessError::Kind;

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

} // namespace

std::string systemReason(int error) {
    std::array<char, 256> buffer{};
    return ::strerror_r(error, buffer.data(), buffer.size()); // GNU variant: returns the text
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

SigpipeBlock::SigpipeBlock() {
    ::pthread_sigmask(SIG_BLOCK, &pipeOnly(), &previousMask_);
    sigset_t pending;
    ::sigpending(&pending);
    pendingBefore_ = ::sigismember(&pending, SIGPIPE) == 1;
}

SigpipeBlock::~SigpipeBlock() {
    if (raised_ && !pendingBefore_) {
        const timespec noWait{};
        while (::sigtimedwait(&pipeOnly(), nullptr, &noWait) < 0 && errno == EINTR) {
        }
    }
    ::pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

const sigset_t& SigpipeBlock::pipeOnly() {
    static const sigset_t set = [] {
        sigset_t s;
        ::sigemptyset(&s);
        ::sigaddset(&s, SIGPIPE);
        return s;
    }();
    return set;
}

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

} // namespace quorlin::child_process

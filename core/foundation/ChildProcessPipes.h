#pragma once

// The pipes between runChildProcess and its child, and the reading and writing over them.
// Internal to ChildProcess.cpp and ChildProcessSpawn.cpp.

#include <cstddef>
#include <filesystem>
#include <signal.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace quorlin::child_process {

// The system's words for an errno value.
std::string systemReason(int error);

// Closes the descriptor it owns when it goes out of scope.
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

// A pipe with close-on-exec on both ends, neither of them a standard stream's number.
// Throws std::system_error.
Pipe makePipe();

// Throws std::system_error.
void setNonBlocking(const FileDescriptor& descriptor);

// Writing into a pipe whose reader is gone raises SIGPIPE in the writing thread, and its
// default action ends the whole application. Ignoring it process-wide would change a
// setting that belongs to the application, so instead it is blocked in this thread for
// the call; a SIGPIPE our own write raised is taken off the pending set before the old
// mask returns. One that was pending before the call is left for its owner.
class SigpipeBlock {
public:
    SigpipeBlock();
    ~SigpipeBlock();
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

    void noteRaised() { raised_ = true; }

private:
    static const sigset_t& pipeOnly();

    sigset_t previousMask_{};
    bool pendingBefore_ = false;
    bool raised_ = false;
};

// Reads what one wake-up offers; closes the descriptor at end of file.
void readSome(FileDescriptor& descriptor, std::string& into, std::size_t most,
              const std::filesystem::path& executable);

// Once the child has exited everything it wrote is in the pipe. Only that much is taken: a
// grandchild still holding the pipe must not keep the call waiting.
void takeWhatIsLeft(FileDescriptor& descriptor, std::string& into,
                    const std::filesystem::path& executable);

// Writes as much as the pipe takes now. Closes our end when everything is written or the
// child has closed its stdin (EPIPE), which is the child's choice and not an error.
void feed(FileDescriptor& descriptor, std::string_view& pending, SigpipeBlock& sigpipe,
          const std::filesystem::path& executable);

} // namespace quorlin::child_process

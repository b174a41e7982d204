#include "core/foundation/FileLock.h"

#include "core/foundation/FileError.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace quorlin {

std::optional<FileLock> FileLock::lock(const std::filesystem::path& file, bool wait) {
    const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        throw FileError(FileError::Kind::writeFailed, file, std::strerror(errno));
    }
    FileLock held(descriptor);
    int result = 0;
    do {
        result = ::flock(descriptor, LOCK_EX | (wait ? 0 : LOCK_NB));
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
        return held;
    }
    if (errno == EWOULDBLOCK) {
        return std::nullopt;
    }
    throw FileError(FileError::Kind::writeFailed, file, std::strerror(errno));
}

FileLock FileLock::acquire(const std::filesystem::path& file) {
    return std::move(*lock(file, true));
}

std::optional<FileLock> FileLock::tryAcquire(const std::filesystem::path& file) {
    return lock(file, false);
}

std::optional<FileLock> FileLock::acquireUnlessStopped(const std::filesystem::path& file,
                                                       const std::stop_token& stopToken,
                                                       const std::function<void()>& onWait) {
    for (bool waited = false;; waited = true) {
        if (auto held = tryAcquire(file)) {
            return held;
        }
        if (stopToken.stop_requested()) {
            return std::nullopt;
        }
        if (!waited && onWait) {
            onWait();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

FileLock::~FileLock() {
    if (descriptor_ >= 0) {
        ::close(descriptor_); // closing releases the lock
    }
}

FileLock::FileLock(FileLock&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
    if (this != &other) {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
        descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
}

} // namespace quorlin

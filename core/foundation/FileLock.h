#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>

namespace quorlin {

// An exclusive advisory lock (flock) on a file, created if need be, held until the object
// goes away. Processes that agree to take it, and separate openers in one process, exclude
// each other; the system drops it when the holder dies, so a crash never leaves it taken.
class FileLock {
public:
    // Waits until the lock is free. Throws FileError when the file can't be opened.
    static FileLock acquire(const std::filesystem::path& file);
    // Nothing when someone else holds it now.
    static std::optional<FileLock> tryAcquire(const std::filesystem::path& file);
    // Waits in short tries (flock itself can't be interrupted), so that a stop request
    // ends the wait: nothing then. onWait is called once, when the lock is found taken.
    static std::optional<FileLock> acquireUnlessStopped(const std::filesystem::path& file,
                                                        const std::stop_token& stopToken,
                                                        const std::function<void()>& onWait = {});

    ~FileLock();
    FileLock(FileLock&& other) noexcept;
    FileLock& operator=(FileLock&& other) noexcept;
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    explicit FileLock(int descriptor) : descriptor_(descriptor) {}
    static std::optional<FileLock> lock(const std::filesystem::path& file, bool wait);

    int descriptor_ = -1;
};

} // namespace quorlin

#include "AtomicFile.h"

#include "core/foundation/Text.h"
#include "core/foundation/Uuid.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace quorlin {

namespace {

// Closes the descriptor when it goes out of scope.
class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    ~FileDescriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_;
};

void writeAll(int descriptor, std::string_view bytes, const std::filesystem::path& path) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw FileError(FileError::Kind::writeFailed, path, std::strerror(errno));
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

} // namespace

std::string readFile(const std::filesystem::path& path, std::size_t maxBytes) {
    // Non-blocking, so that opening a pipe nobody writes to returns at once; the check
    // below then refuses it.
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) {
        throw FileError(FileError::Kind::readFailed, path, std::strerror(errno));
    }
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) {
        throw FileError(FileError::Kind::readFailed, path, std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) {
        throw FileError(FileError::Kind::readFailed, path, "it is not a regular file");
    }
    const auto tooLarge = [&] {
        return FileError(FileError::Kind::readFailed, path,
                         "it is larger than " + byteSizeText(maxBytes));
    };
    if (static_cast<std::uintmax_t>(info.st_size) > maxBytes) {
        throw tooLarge();
    }
    std::string content;
    content.reserve(static_cast<std::size_t>(info.st_size));
    char buffer[64 * 1024];
    while (true) {
        const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            throw FileError(FileError::Kind::readFailed, path, std::strerror(errno));
        }
        if (count == 0) {
            return content;
        }
        // The file may have grown since it was measured.
        if (content.size() + static_cast<std::size_t>(count) > maxBytes) {
            throw tooLarge();
        }
        content.append(buffer, static_cast<std::size_t>(count));
    }
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes, unsigned mode) {
    const auto temporary = path.parent_path() / ("." + path.filename().string() + "." +
                                                 Uuid::random().uppercaseString() + ".tmp");
    FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                               static_cast<mode_t>(mode)));
    if (file.get() < 0) {
        throw FileError(FileError::Kind::writeFailed, path, std::strerror(errno));
    }
    try {
        // A secret's file is never readable by others, whatever the umask allowed.
        if (mode == privateFileMode && ::fchmod(file.get(), privateFileMode) != 0) {
            throw FileError(FileError::Kind::writeFailed, path, std::strerror(errno));
        }
        writeAll(file.get(), bytes, path);
        if (::fsync(file.get()) != 0 || ::close(file.release()) != 0) {
            throw FileError(FileError::Kind::writeFailed, path, std::strerror(errno));
        }
        if (::rename(temporary.c_str(), path.c_str()) != 0) {
            throw FileError(FileError::Kind::writeFailed, path, std::strerror(errno));
        }
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
    // Make the rename itself durable; a failure here leaves a complete file either way.
    FileDescriptor directory(::open(path.parent_path().empty() ? "." : path.parent_path().c_str(),
                                    O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() >= 0) {
        ::fsync(directory.get());
    }
}

void createDirectories(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) {
        throw FileError(FileError::Kind::createDirectoryFailed, path, error.message());
    }
}

} // namespace quorlin

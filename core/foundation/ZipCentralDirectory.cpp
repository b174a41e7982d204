#include "ZipCentralDirectory.h"

#include "core/foundation/ArchiveError.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string_view>

namespace quorlin {

namespace {

constexpr std::uint32_t endSignature = 0x06054b50;
constexpr std::uint32_t zip64LocatorSignature = 0x07064b50;
constexpr std::uint32_t zip64EndSignature = 0x06064b50;
constexpr std::uint32_t headerSignature = 0x02014b50;
constexpr std::size_t endRecordSize = 22;
constexpr std::size_t zip64LocatorSize = 20;
constexpr std::size_t zip64EndSize = 56;
constexpr std::size_t headerSize = 46;
constexpr std::size_t maxCommentSize = 0xFFFF;

[[noreturn]] void malformed(const std::filesystem::path& archive, const std::string& what) {
    throw ArchiveError(ArchiveError::Kind::readFailed, archive, what);
}

// Little-endian fields of a byte block, every read bounds-checked.
class Bytes {
public:
    Bytes(std::string data, std::filesystem::path archive)
        : data_(std::move(data)), archive_(std::move(archive)) {}

    std::uint64_t read(std::size_t offset, std::size_t width) const {
        if (offset > data_.size() || width > data_.size() - offset) {
            malformed(archive_, "a record runs past the end of the file");
        }
        std::uint64_t value = 0;
        for (std::size_t index = width; index > 0; --index) {
            value = (value << 8U) | static_cast<unsigned char>(data_[offset + index - 1]);
        }
        return value;
    }

    std::string text(std::size_t offset, std::size_t length) const {
        read(offset, 0);
        if (length > data_.size() - offset) {
            malformed(archive_, "a name runs past the end of the file");
        }
        return data_.substr(offset, length);
    }

    std::size_t size() const { return data_.size(); }

private:
    std::string data_;
    std::filesystem::path archive_;
};

class ZipFile {
public:
    explicit ZipFile(const std::filesystem::path& archive)
        : archive_(archive), in_(archive, std::ios::binary) {
        in_.seekg(0, std::ios::end);
        if (!in_) {
            malformed(archive_, "the file can't be opened");
        }
        size_ = static_cast<std::uint64_t>(in_.tellg());
    }

    std::uint64_t size() const { return size_; }

    Bytes block(std::uint64_t offset, std::uint64_t length) {
        if (offset > size_ || length > size_ - offset) {
            malformed(archive_, "a record points past the end of the file");
        }
        std::string data(static_cast<std::size_t>(length), '\0');
        in_.seekg(static_cast<std::streamoff>(offset));
        in_.read(data.data(), static_cast<std::streamsize>(length));
        if (!in_) {
            malformed(archive_, "the file can't be read");
        }
        return {std::move(data), archive_};
    }

private:
    std::filesystem::path archive_;
    std::ifstream in_;
    std::uint64_t size_ = 0;
};

struct Directory {
    std::uint64_t entries = 0;
    std::uint64_t size = 0;
    std::uint64_t offset = 0;
};

// The end record is the last thing in the file, followed only by its comment.
Directory locateDirectory(ZipFile& file, const std::filesystem::path& archive) {
    if (file.size() < endRecordSize) {
        malformed(archive, "not a zip file");
    }
    const auto tailSize = std::min<std::uint64_t>(file.size(), endRecordSize + maxCommentSize);
    const auto tailStart = file.size() - tailSize;
    const auto tail = file.block(tailStart, tailSize);
    std::optional<std::size_t> end;
    for (std::size_t at = tail.size() - endRecordSize + 1; at-- > 0;) {
        if (tail.read(at, 4) == endSignature &&
            at + endRecordSize + tail.read(at + 20, 2) == tail.size()) {
            end = at;
            break;
        }
    }
    if (!end) {
        malformed(archive, "not a zip file");
    }
    Directory directory{tail.read(*end + 10, 2), tail.read(*end + 12, 4), tail.read(*end + 16, 4)};
    const bool zip64 = directory.entries == 0xFFFF || directory.size == 0xFFFFFFFF ||
                       directory.offset == 0xFFFFFFFF;
    if (zip64) {
        const auto locatorAt = tailStart + *end;
        if (locatorAt < zip64LocatorSize) {
            malformed(archive, "the zip64 locator is missing");
        }
        const auto locator = file.block(locatorAt - zip64LocatorSize, zip64LocatorSize);
        if (locator.read(0, 4) != zip64LocatorSignature) {
            malformed(archive, "the zip64 locator is missing");
        }
        const auto record = file.block(locator.read(8, 8), zip64EndSize);
        if (record.read(0, 4) != zip64EndSignature) {
            malformed(archive, "the zip64 end record is missing");
        }
        directory = {record.read(32, 8), record.read(40, 8), record.read(48, 8)};
    }
    return directory;
}

} // namespace

std::vector<std::string> zipCentralDirectoryNames(const std::filesystem::path& archive,
                                                  std::size_t maxEntries) {
    ZipFile file(archive);
    const auto directory = locateDirectory(file, archive);
    if (directory.entries > maxEntries) {
        throw ArchiveError(ArchiveError::Kind::tooManyEntries, archive, std::to_string(maxEntries));
    }
    const auto headers = file.block(directory.offset, directory.size);
    std::vector<std::string> names;
    std::size_t at = 0;
    for (std::uint64_t index = 0; index < directory.entries; ++index) {
        if (headers.read(at, 4) != headerSignature) {
            malformed(archive, "the central directory is damaged");
        }
        const auto nameLength = static_cast<std::size_t>(headers.read(at + 28, 2));
        const auto extraLength = static_cast<std::size_t>(headers.read(at + 30, 2));
        const auto commentLength = static_cast<std::size_t>(headers.read(at + 32, 2));
        names.push_back(headers.text(at + headerSize, nameLength));
        at += headerSize + nameLength + extraLength + commentLength;
    }
    return names;
}

} // namespace quorlin

#include "Archive.h"

#include "core/foundation/ArchiveSupport.h"
#include "core/foundation/ZipCentralDirectory.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <system_error>

#include <archive.h>
#include <archive_entry.h>

namespace quorlin {

namespace {

using namespace archive_support;

enum class ArchiveFormat { zip, tar };

ArchiveHandle openReader(const std::filesystem::path& file, ArchiveFormat format) {
    ArchiveHandle reader(archive_read_new());
    const bool ready =
        reader && (format == ArchiveFormat::zip
                       ? archive_read_support_format_zip(reader.get()) == ARCHIVE_OK
                       : archive_read_support_format_tar(reader.get()) == ARCHIVE_OK &&
                             archive_read_support_filter_all(reader.get()) >= ARCHIVE_WARN);
    if (!ready) {
        throw ArchiveError(ArchiveError::Kind::readFailed, file,
                           reader ? errorText(reader.get()) : "out of memory");
    }
    if (archive_read_open_filename(reader.get(), file.c_str(), 64 * 1024) != ARCHIVE_OK) {
        throw ArchiveError(ArchiveError::Kind::readFailed, file, errorText(reader.get()));
    }
    return reader;
}

ArchiveHandle openZipReader(const std::filesystem::path& file) {
    return openReader(file, ArchiveFormat::zip);
}

// Steps to the next header; false at the end of the archive.
bool nextHeader(archive* reader, archive_entry*& entry, const std::filesystem::path& file) {
    const int status = archive_read_next_header(reader, &entry);
    if (status == ARCHIVE_EOF) {
        return false;
    }
    if (status < ARCHIVE_WARN) {
        throw ArchiveError(ArchiveError::Kind::readFailed, file, errorText(reader));
    }
    return true;
}

// Names are UTF-8 in any archive made by a current tool; the plain form is the fallback
// for the rest, taken byte for byte.
std::string entryName(archive_entry* entry) {
    if (const char* name = archive_entry_pathname_utf8(entry)) {
        return name;
    }
    const char* name = archive_entry_pathname(entry);
    return name != nullptr ? name : std::string();
}

ArchiveEntryInfo::Type entryType(archive_entry* entry) {
    if (archive_entry_hardlink(entry) != nullptr) {
        return ArchiveEntryInfo::Type::other;
    }
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
        return ArchiveEntryInfo::Type::file;
    case AE_IFDIR:
        return ArchiveEntryInfo::Type::directory;
    case AE_IFLNK:
        return ArchiveEntryInfo::Type::symlink;
    default:
        return ArchiveEntryInfo::Type::other;
    }
}

// The name without its trailing "/", or nothing when it is absolute or climbs out with "..".
std::optional<std::string> containedName(std::string name) {
    while (!name.empty() && name.back() == '/') {
        name.pop_back();
    }
    if (name.empty() || name.front() == '/') {
        return std::nullopt;
    }
    for (std::size_t start = 0; start <= name.size();) {
        const std::size_t slash = std::min(name.find('/', start), name.size());
        if (std::string_view(name).substr(start, slash - start) == "..") {
            return std::nullopt;
        }
        start = slash + 1;
    }
    return name;
}

// Whether a symbolic link named name, pointing at target, stays inside the tree it is
// unpacked into, judged by the words alone: not absolute, and never climbing above the
// top with "..".
bool linkStaysInside(const std::string& name, std::string_view target) {
    if (target.empty() || target.front() == '/') {
        return false;
    }
    std::size_t depth = std::count(name.begin(), name.end(), '/'); // the link's folder
    for (std::size_t start = 0; start <= target.size();) {
        const std::size_t slash = std::min(target.find('/', start), target.size());
        const auto part = target.substr(start, slash - start);
        if (part == "..") {
            if (depth == 0) {
                return false;
            }
            --depth;
        } else if (!part.empty() && part != ".") {
            ++depth;
        }
        start = slash + 1;
    }
    return true;
}

constexpr const char* disagreement = "its central directory and its entries disagree";

std::vector<ArchiveEntryInfo> readEntries(const std::filesystem::path& archive,
                                          const ArchiveLimits& limits) {
    const auto reader = openZipReader(archive);
    std::vector<ArchiveEntryInfo> entries;
    std::uint64_t declaredBytes = 0;
    archive_entry* entry = nullptr;
    while (nextHeader(reader.get(), entry, archive)) {
        if (entries.size() == limits.maxEntries) {
            throw ArchiveError(ArchiveError::Kind::tooManyEntries, archive,
                               std::to_string(limits.maxEntries));
        }
        const auto size = archive_entry_size_is_set(entry) != 0 && archive_entry_size(entry) > 0
                              ? static_cast<std::uint64_t>(archive_entry_size(entry))
                              : std::uint64_t{0};
        if (size > limits.maxTotalBytes - declaredBytes) {
            throw ArchiveError(ArchiveError::Kind::tooLarge, archive,
                               std::to_string(limits.maxTotalBytes));
        }
        declaredBytes += size;
        entries.push_back({entryName(entry), entryType(entry), size});
    }
    return entries;
}

class Extraction {
public:
    Extraction(const std::filesystem::path& archive, const std::filesystem::path& destination,
               ArchiveFormat format, const ArchiveLimits& limits)
        : file_(archive), format_(format), reader_(openReader(archive, format)),
          writer_(archive_write_disk_new()), limits_(limits) {
        std::error_code error;
        destination_ = std::filesystem::canonical(destination, error);
        if (error || !writer_) {
            throw ArchiveError(ArchiveError::Kind::writeFailed, destination, error.message());
        }
        // Our callers check names before extracting; these are defence in depth. Paths
        // are made absolute under the destination below, so NOABSOLUTEPATHS can't be
        // used: containedName() refuses absolute names instead.
        const int flags = ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                          ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME;
        archive_write_disk_set_options(writer_.get(), flags);
    }

    void run(const std::function<bool(std::string_view)>& skip) {
        archive_entry* entry = nullptr;
        while (nextHeader(reader_.get(), entry, file_)) {
            const std::string name = entryName(entry);
            if (++entries_ > limits_.maxEntries) {
                fail(ArchiveError::Kind::tooManyEntries, std::to_string(limits_.maxEntries));
            }
            if (skip && skip(name)) {
                archive_read_data_skip(reader_.get());
                continue;
            }
            unpack(entry, name);
        }
        if (archive_write_close(writer_.get()) != ARCHIVE_OK) {
            fail(ArchiveError::Kind::writeFailed, errorText(writer_.get()), destination_);
        }
        if (format_ == ArchiveFormat::tar) {
            checkLinksLeadInside();
        }
    }

private:
    [[noreturn]] void fail(ArchiveError::Kind kind, std::string detail,
                           const std::filesystem::path& where = {}) const {
        throw ArchiveError(kind, where.empty() ? file_ : where, std::move(detail));
    }

    void unpack(archive_entry* entry, const std::string& name) {
        const auto contained = containedName(name);
        if (!contained || !seen_.insert(*contained).second) {
            fail(ArchiveError::Kind::unsafeEntry, name);
        }
        const auto type = entryType(entry);
        if (format_ == ArchiveFormat::tar && archive_entry_hardlink(entry) != nullptr) {
            linkToEarlierEntry(entry, name);
        } else if (type == ArchiveEntryInfo::Type::other) {
            fail(ArchiveError::Kind::unsupportedEntry, name);
        }
        archive_entry_copy_pathname(entry, (destination_ / *contained).c_str());
        if (type == ArchiveEntryInfo::Type::symlink) {
            const char* target = archive_entry_symlink_utf8(entry);
            if (format_ == ArchiveFormat::tar) {
                if (target == nullptr || !linkStaysInside(*contained, target)) {
                    fail(ArchiveError::Kind::unsafeEntry, name + " -> " + (target ? target : ""));
                }
                links_.push_back(*contained);
            }
            if (target != nullptr) {
                archive_entry_copy_symlink(entry, target);
            }
        }
        // Keep the modes, but make sure the owner can always finish unpacking and remove
        // the result again. Set-id and sticky bits have no business in an archive, and
        // nobody but the owner may change what was unpacked.
        const mode_t owner = type == ArchiveEntryInfo::Type::directory ? 0700 : 0600;
        archive_entry_set_perm(entry, (archive_entry_perm(entry) & 0755) | owner);
        if (archive_write_header(writer_.get(), entry) < ARCHIVE_WARN) {
            fail(ArchiveError::Kind::writeFailed, name + ": " + errorText(writer_.get()),
                 destination_);
        }
        if (type == ArchiveEntryInfo::Type::file) {
            copyData(name);
        }
        if (archive_write_finish_entry(writer_.get()) < ARCHIVE_WARN) {
            fail(ArchiveError::Kind::writeFailed, name + ": " + errorText(writer_.get()),
                 destination_);
        }
    }

    // A tar's hard link names an entry unpacked before it; anything else is refused.
    void linkToEarlierEntry(archive_entry* entry, const std::string& name) {
        const auto target = containedName(archive_entry_hardlink(entry));
        if (!target || !seen_.contains(*target)) {
            fail(ArchiveError::Kind::unsafeEntry, name + " => " + archive_entry_hardlink(entry));
        }
        archive_entry_copy_hardlink(entry, (destination_ / *target).c_str());
    }

    // The words of each link stayed inside, but a link may lead through another; so once
    // all are on disk, each is followed to where it really ends.
    void checkLinksLeadInside() const {
        const std::string top = destination_.string() + "/";
        for (const auto& link : links_) {
            std::error_code error;
            const auto resolved = std::filesystem::weakly_canonical(destination_ / link, error);
            if (error || !resolved.string().starts_with(top)) {
                fail(ArchiveError::Kind::unsafeEntry, link + " leads out of the archive");
            }
        }
    }

    void copyData(const std::string& name) {
        const void* block = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        while (true) {
            const int status = archive_read_data_block(reader_.get(), &block, &size, &offset);
            if (status == ARCHIVE_EOF) {
                return;
            }
            if (status < ARCHIVE_WARN) {
                fail(ArchiveError::Kind::readFailed, name + ": " + errorText(reader_.get()));
            }
            if (size > limits_.maxTotalBytes - bytes_) {
                fail(ArchiveError::Kind::tooLarge, std::to_string(limits_.maxTotalBytes));
            }
            bytes_ += size;
            if (archive_write_data_block(writer_.get(), block, size, offset) < ARCHIVE_WARN) {
                fail(ArchiveError::Kind::writeFailed, name + ": " + errorText(writer_.get()),
                     destination_);
            }
        }
    }

    std::filesystem::path file_;
    std::filesystem::path destination_;
    ArchiveFormat format_;
    ArchiveHandle reader_;
    ArchiveHandle writer_;
    ArchiveLimits limits_;
    std::set<std::string> seen_;
    std::vector<std::string> links_;
    std::size_t entries_ = 0;
    std::uint64_t bytes_ = 0;
};

} // namespace

std::vector<ArchiveEntryInfo> listZipEntries(const std::filesystem::path& archive,
                                             const ArchiveLimits& limits) {
    const Utf8LocaleScope utf8;
    // libarchive reports "\" in a name as "/"; the names as written come from the central
    // directory. Both readers must see the same entries, or the archive says two things.
    auto names = zipCentralDirectoryNames(archive, limits.maxEntries);
    auto entries = readEntries(archive, limits);
    std::map<std::string, std::vector<std::string>> written;
    for (auto& name : names) {
        auto reported = name;
        std::replace(reported.begin(), reported.end(), '\\', '/');
        written[reported].push_back(std::move(name));
    }
    for (auto& entry : entries) {
        auto found = written.find(entry.name);
        if (found == written.end() || found->second.empty()) {
            throw ArchiveError(ArchiveError::Kind::readFailed, archive, disagreement);
        }
        entry.name = std::move(found->second.back());
        found->second.pop_back();
    }
    if (std::any_of(written.begin(), written.end(),
                    [](const auto& remaining) { return !remaining.second.empty(); })) {
        throw ArchiveError(ArchiveError::Kind::readFailed, archive, disagreement);
    }
    return entries;
}

void extractZip(const std::filesystem::path& archive, const std::filesystem::path& destination,
                const ArchiveLimits& limits, const std::function<bool(std::string_view)>& skip) {
    const Utf8LocaleScope utf8;
    Extraction(archive, destination, ArchiveFormat::zip, limits).run(skip);
}

void extractTar(const std::filesystem::path& archive, const std::filesystem::path& destination,
                const ArchiveLimits& limits) {
    const Utf8LocaleScope utf8;
    Extraction(archive, destination, ArchiveFormat::tar, limits).run({});
}

} // namespace quorlin

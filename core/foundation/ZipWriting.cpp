// writeZip of Archive.h: the writing side, over libarchive.

#include "core/foundation/Archive.h"
#include "core/foundation/ArchiveError.h"
#include "core/foundation/ArchiveSupport.h"
#include "core/foundation/Uuid.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <system_error>

namespace quorlin {

namespace {

using namespace archive_support;

[[noreturn]] void sourceFailed(const std::filesystem::path& archive,
                               const std::filesystem::path& source, const std::string& reason) {
    throw ArchiveError(ArchiveError::Kind::writeFailed, archive, source.string() + ": " + reason);
}

void writeHeader(archive* writer, archive_entry* entry, const std::filesystem::path& file) {
    if (archive_write_header(writer, entry) < ARCHIVE_WARN) {
        throw ArchiveError(ArchiveError::Kind::writeFailed, file, errorText(writer));
    }
}

void writeFileData(archive* writer, const std::filesystem::path& source,
                   const std::filesystem::path& file) {
    std::ifstream in(source, std::ios::binary);
    if (!in) {
        sourceFailed(file, source, std::strerror(errno));
    }
    std::array<char, 64 * 1024> buffer{};
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        const auto count = static_cast<std::size_t>(in.gcount());
        if (count > 0 && archive_write_data(writer, buffer.data(), count) < 0) {
            throw ArchiveError(ArchiveError::Kind::writeFailed, file, errorText(writer));
        }
    }
    if (in.bad()) {
        sourceFailed(file, source, "read error");
    }
}

void addZipEntry(archive* writer, const ZipEntrySource& source, const std::filesystem::path& file) {
    struct stat info {};
    if (::lstat(source.source.c_str(), &info) != 0) {
        sourceFailed(file, source.source, std::strerror(errno));
    }
    const EntryHandle entry(archive_entry_new());
    archive_entry_set_pathname_utf8(entry.get(), source.name.c_str());
    archive_entry_set_mtime(entry.get(), info.st_mtime, 0);
    archive_entry_set_perm(entry.get(), info.st_mode & 0777);
    if (S_ISREG(info.st_mode)) {
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_size(entry.get(), info.st_size);
        writeHeader(writer, entry.get(), file);
        writeFileData(writer, source.source, file);
    } else if (S_ISDIR(info.st_mode)) {
        archive_entry_set_filetype(entry.get(), AE_IFDIR);
        writeHeader(writer, entry.get(), file);
    } else if (S_ISLNK(info.st_mode)) {
        std::error_code error;
        const auto target = std::filesystem::read_symlink(source.source, error);
        if (error) {
            sourceFailed(file, source.source, error.message());
        }
        archive_entry_set_filetype(entry.get(), AE_IFLNK);
        archive_entry_set_symlink_utf8(entry.get(), target.c_str());
        writeHeader(writer, entry.get(), file);
    } else {
        throw ArchiveError(ArchiveError::Kind::unsupportedEntry, file, source.name);
    }
}

void writeZipFile(const std::filesystem::path& temporary, const std::filesystem::path& file,
                  const std::vector<ZipEntrySource>& entries) {
    const ArchiveHandle writer(archive_write_new());
    if (!writer || archive_write_set_format_zip(writer.get()) != ARCHIVE_OK ||
        archive_write_open_filename(writer.get(), temporary.c_str()) != ARCHIVE_OK) {
        throw ArchiveError(ArchiveError::Kind::writeFailed, file,
                           writer ? errorText(writer.get()) : "out of memory");
    }
    for (const auto& entry : entries) {
        addZipEntry(writer.get(), entry, file);
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK) {
        throw ArchiveError(ArchiveError::Kind::writeFailed, file, errorText(writer.get()));
    }
}

} // namespace

void writeZip(const std::filesystem::path& archive, const std::vector<ZipEntrySource>& entries) {
    // Written beside the target and renamed over it, so a reader never sees half a zip.
    const auto temporary = archive.parent_path() / ("." + archive.filename().string() + "." +
                                                    Uuid::random().uppercaseString() + ".tmp");
    try {
        const Utf8LocaleScope utf8;
        writeZipFile(temporary, archive, entries);
        std::filesystem::rename(temporary, archive);
    } catch (const std::filesystem::filesystem_error& error) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw ArchiveError(ArchiveError::Kind::writeFailed, archive, error.code().message());
    } catch (...) {
        std::error_code ignored; // the first failure is the one worth reporting
        std::filesystem::remove(temporary, ignored);
        throw;
    }
}

} // namespace quorlin

#pragma once

#include "core/foundation/ArchiveError.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

struct ArchiveEntryInfo {
    enum class Type { file, directory, symlink, other };

    std::string name; // as written in the archive, a directory usually ending in "/"
    Type type = Type::file;
    std::uint64_t size = 0; // uncompressed, as the archive declares it
};

// Bounds on what one archive may hold, so that a hostile one can't fill the disk or keep
// the reader busy for ever. The total counts uncompressed bytes of file data.
struct ArchiveLimits {
    std::size_t maxEntries = std::numeric_limits<std::size_t>::max();
    std::uint64_t maxTotalBytes = std::numeric_limits<std::uint64_t>::max();
};

// Lists a zip archive's entries in archive order without unpacking anything.
std::vector<ArchiveEntryInfo> listZipEntries(const std::filesystem::path& archive,
                                             const ArchiveLimits& limits = {});

// Unpacks every entry of a zip archive into an existing destination directory. Symbolic
// links are created as links and never followed, file modes are kept (the owner can
// always read, write and remove what was unpacked; set-id bits are dropped). An entry
// whose name is absolute or steps out with "..", a name given twice, a hard link or a
// device throws before that entry is written. Entries for which skip() answers true are
// not unpacked. The limits are enforced on the bytes actually unpacked.
void extractZip(const std::filesystem::path& archive, const std::filesystem::path& destination,
                const ArchiveLimits& limits = {},
                const std::function<bool(std::string_view name)>& skip = {});

// Unpacks a tar archive, compressed or not (gzip, xz, zstd, bzip2: told by its content),
// into an existing destination directory, by the rules of extractZip and two more, since
// a tar may hold links: a symbolic link must lead to a place inside the destination (its
// target neither absolute nor climbing out with "..", and still inside once every link is
// on disk), and a hard link must name an entry unpacked before it. A refused archive may
// leave part of itself unpacked: callers unpack into a staging folder they remove.
void extractTar(const std::filesystem::path& archive, const std::filesystem::path& destination,
                const ArchiveLimits& limits = {});

// One entry of a zip to write: the name it gets in the archive and the file, directory or
// symbolic link (stored as a link) on disk that it is made from.
struct ZipEntrySource {
    std::string name;
    std::filesystem::path source;
};

// Writes a zip archive of the entries, in the order given, replacing the file at once
// when it is complete.
void writeZip(const std::filesystem::path& archive, const std::vector<ZipEntrySource>& entries);

} // namespace quorlin

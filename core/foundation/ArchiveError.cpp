#include "ArchiveError.h"

namespace quorlin {

namespace {

std::string describe(ArchiveError::Kind kind, const std::filesystem::path& archive,
                     const std::string& detail) {
    using Kind = ArchiveError::Kind;
    const std::string name = archive.string();
    switch (kind) {
    case Kind::readFailed:
        return "Couldn't read the archive " + name + ": " + detail;
    case Kind::writeFailed:
        return "Couldn't write " + name + ": " + detail;
    case Kind::unsafeEntry:
        return "The archive " + name + " holds an unsafe entry name: " + detail;
    case Kind::unsupportedEntry:
        return "The archive " + name + " holds an entry that can't be unpacked: " + detail;
    case Kind::tooManyEntries:
        return "The archive " + name + " holds more than " + detail + " entries";
    case Kind::tooLarge:
        return "The archive " + name + " unpacks to more than " + detail + " bytes";
    }
    return detail;
}

} // namespace

ArchiveError::ArchiveError(Kind kind, const std::filesystem::path& archive, std::string detail)
    : Error(describe(kind, archive, detail)), kind_(kind), detail_(std::move(detail)) {}

} // namespace quorlin

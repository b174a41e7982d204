#pragma once

#include "core/foundation/Error.h"

#include <filesystem>
#include <string>

namespace quorlin {

class ArchiveError : public Error {
public:
    enum class Kind {
        readFailed,
        writeFailed,
        unsafeEntry,
        unsupportedEntry,
        tooManyEntries,
        tooLarge
    };

    // detail: libarchive's or the system's words for readFailed and writeFailed, the
    // entry's name for unsafeEntry and unsupportedEntry, the limit for tooManyEntries and
    // tooLarge.
    ArchiveError(Kind kind, const std::filesystem::path& archive, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }

private:
    Kind kind_;
    std::string detail_;
};

} // namespace quorlin

#include "ScratchDirectory.h"

#include "AtomicFile.h"
#include "Uuid.h"

#include <string>
#include <system_error>

namespace quorlin {

namespace {

std::filesystem::path systemTemporaryDirectory() {
    std::error_code error;
    auto base = std::filesystem::temp_directory_path(error);
    if (error) {
        throw FileError(FileError::Kind::createDirectoryFailed, "temporary directory",
                        error.message());
    }
    return base;
}

} // namespace

ScratchDirectory::ScratchDirectory(std::string_view prefix)
    : ScratchDirectory(systemTemporaryDirectory(), prefix) {}

ScratchDirectory::ScratchDirectory(const std::filesystem::path& parent, std::string_view prefix)
    : path_(parent / (std::string(prefix) + Uuid::random().uppercaseString())) {
    createDirectories(path_);
    std::error_code error;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, error);
    if (error) {
        const std::string reason = error.message();
        std::filesystem::remove_all(path_, error);
        throw FileError(FileError::Kind::createDirectoryFailed, path_, reason);
    }
}

void ScratchDirectory::removeLeftovers(const std::filesystem::path& parent,
                                       std::string_view prefix) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(parent, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().filename().string().starts_with(prefix)) {
            std::error_code ignored;
            std::filesystem::remove_all(entry->path(), ignored);
        }
    }
}

ScratchDirectory::~ScratchDirectory() {
    // Best effort: a destructor can't report, and a leftover scratch directory in the
    // system's temp dir harms nothing.
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

} // namespace quorlin

#pragma once

#include "core/foundation/FileLock.h"
#include "core/foundation/ScratchDirectory.h"
#include "core/runtimes/ScriptDependencyProcess.h"

#include <filesystem>
#include <optional>
#include <stop_token>

namespace quorlin {

// A dependency folder's new content in the making. It is built in a hidden sibling of the
// folder, which takes the folder's place only in commit(); one never committed is removed
// with everything in it, so an install that fails or is stopped leaves the folder as it
// was. Two stagings of one folder take turns on a lock beside it, and under that lock
// whatever a killed install left behind is cleared first.
class ScriptDependencyStaging {
public:
    // Waits while another install holds the folder, saying so once through output; a stop
    // then throws CancellationError. Throws FileError when the lock file or the staging
    // folder can't be made.
    ScriptDependencyStaging(std::filesystem::path target, const std::stop_token& stopToken,
                            const ScriptDependencyOutput& output);

    const std::filesystem::path& directory() const { return staging_->path(); }

    // Puts the staged content where the folder was. On failure (FileError) the folder is
    // as it was.
    void commit();

private:
    std::filesystem::path target_;
    FileLock lock_; // declared before the staging folder: released after it
    std::optional<ScratchDirectory> staging_;
};

} // namespace quorlin

#include "ScriptDependencyStaging.h"

#include "core/foundation/Cancellation.h"
#include "core/foundation/FileError.h"
#include "core/foundation/Text.h"
#include "core/foundation/Uuid.h"

#include <chrono>
#include <system_error>
#include <thread>

namespace quorlin {

namespace {

std::string hiddenSiblingPrefix(const std::filesystem::path& target, std::string_view kind) {
    return "." + target.filename().string() + "." + std::string(kind) + "-";
}

// Staging and replaced folders of this target that a killed install left behind. Only
// called under the target's lock, so none of them is in use.
void removeLeftovers(const std::filesystem::path& target) {
    const auto staged = hiddenSiblingPrefix(target, "tmp");
    const auto replaced = hiddenSiblingPrefix(target, "old");
    std::error_code error;
    std::filesystem::directory_iterator entry(target.parent_path(), error), end;
    for (; !error && entry != end; entry.increment(error)) {
        const auto name = entry->path().filename().string();
        if (startsWith(name, staged) || startsWith(name, replaced)) {
            std::error_code ignored; // a leftover that stays is cleared next time
            std::filesystem::remove_all(entry->path(), ignored);
        }
    }
}

FileLock waitForLock(const std::filesystem::path& file, const std::stop_token& stopToken,
                     const ScriptDependencyOutput& output) {
    auto lock = FileLock::acquireUnlessStopped(file, stopToken, [&output] {
        if (output) {
            output("Waiting for another install of these dependencies to finish...\n");
        }
    });
    throwIfStopRequested(stopToken);
    return std::move(*lock);
}

void renameOrThrow(const std::filesystem::path& from, const std::filesystem::path& to) {
    std::error_code error;
    std::filesystem::rename(from, to, error);
    if (error) {
        throw FileError(FileError::Kind::writeFailed, to, error.message());
    }
}

} // namespace

ScriptDependencyStaging::ScriptDependencyStaging(std::filesystem::path target,
                                                 const std::stop_token& stopToken,
                                                 const ScriptDependencyOutput& output)
    : target_(std::move(target)),
      lock_(waitForLock(target_.parent_path() / ("." + target_.filename().string() + ".lock"),
                        stopToken, output)) {
    removeLeftovers(target_);
    staging_.emplace(target_.parent_path(), hiddenSiblingPrefix(target_, "tmp"));
}

void ScriptDependencyStaging::commit() {
    std::error_code error;
    if (!std::filesystem::exists(target_, error)) {
        renameOrThrow(staging_->path(), target_);
        return;
    }
    // A directory can't be renamed over a full one: move the old aside, then drop it. A
    // crash in between leaves no folder and no marker, which the next run installs anew.
    const auto replaced = target_.parent_path() /
                          (hiddenSiblingPrefix(target_, "old") + Uuid::random().uppercaseString());
    renameOrThrow(target_, replaced);
    try {
        renameOrThrow(staging_->path(), target_);
    } catch (const FileError&) {
        std::filesystem::rename(replaced, target_, error); // best effort: put the old back
        throw;
    }
    std::filesystem::remove_all(replaced, error); // a leftover is cleared next time
}

} // namespace quorlin

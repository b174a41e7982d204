#include "WorkflowVersionPlacement.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/Uuid.h"

#include <system_error>

namespace quorlin {

namespace fs = std::filesystem;

WorkflowVersionPlacement::WorkflowVersionPlacement(fs::path flowDirectory, std::string version)
    : flowDirectory_(std::move(flowDirectory)), version_(std::move(version)) {
    const std::string token = Uuid::random().uppercaseString();
    staging_ = flowDirectory_ / (".installing-" + token);
    replaced_ = flowDirectory_ / (".replaced-" + token);
}

WorkflowVersionPlacement::~WorkflowVersionPlacement() {
    if (!committed_) {
        rollBack();
    }
}

void WorkflowVersionPlacement::place(const fs::path& packageRoot) {
    createdFlowDirectory_ = !fs::exists(flowDirectory_);
    createDirectories(flowDirectory_);
    // copy_symlinks: a link would be copied as a link, never followed (there should be none).
    fs::copy(packageRoot, staging_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const auto target = versionDirectory();
    if (fs::exists(fs::symlink_status(target))) {
        fs::rename(target, replaced_);
    }
    fs::rename(staging_, target);
    placed_ = true;
}

void WorkflowVersionPlacement::commit() {
    committed_ = true;
    // The new version is in force; an old copy that won't go away is only clutter.
    std::error_code ignored;
    fs::remove_all(replaced_, ignored);
}

void WorkflowVersionPlacement::rollBack() noexcept {
    // Each step is best effort: the first failure already reached the caller, and the
    // remaining steps still undo what they can.
    std::error_code ignored;
    fs::remove_all(staging_, ignored);
    if (placed_) {
        fs::remove_all(versionDirectory(), ignored);
    }
    if (fs::exists(fs::symlink_status(replaced_, ignored))) {
        fs::rename(replaced_, versionDirectory(), ignored);
    }
    if (createdFlowDirectory_) {
        fs::remove(flowDirectory_, ignored); // only when empty
    }
}

} // namespace quorlin

#include "QuorlinResources.h"

#include <system_error>
#include <vector>

namespace quorlin {

namespace {

std::optional<std::filesystem::path> runningExecutableDirectory() {
    std::error_code error;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return std::nullopt;
    }
    return executable.parent_path();
}

std::optional<std::filesystem::path>
firstResourceDirectory(const std::optional<std::filesystem::path>& executableDirectory) {
    std::vector<std::filesystem::path> candidates;
    if (executableDirectory) {
        candidates.push_back(*executableDirectory / ".." / "share" / "quorlin");
        candidates.push_back(*executableDirectory / "resources");
    }
    candidates.emplace_back(QUORLIN_SOURCE_RESOURCES_DIR);
    for (const auto& candidate : candidates) {
        std::error_code error;
        if (std::filesystem::is_directory(candidate / "Workflows", error)) {
            return std::filesystem::weakly_canonical(candidate, error);
        }
    }
    return std::nullopt;
}

} // namespace

const QuorlinResources& QuorlinResources::installed() {
    static const QuorlinResources resources = [] {
        QuorlinResources found;
        found.executableDirectory = runningExecutableDirectory();
        found.resourceDirectory = firstResourceDirectory(found.executableDirectory);
        return found;
    }();
    return resources;
}

std::optional<std::filesystem::path> QuorlinResources::workflowsDirectory() const {
    if (!resourceDirectory) {
        return std::nullopt;
    }
    return *resourceDirectory / "Workflows";
}

} // namespace quorlin

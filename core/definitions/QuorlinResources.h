#pragma once

#include <filesystem>
#include <optional>

namespace quorlin {

// Where the files shipped with the program are: the resource directory (bundled
// "Workflows", defaults) and the directory of the running executable (bundled
// interpreter launchers).
struct QuorlinResources {
    std::optional<std::filesystem::path> resourceDirectory;
    std::optional<std::filesystem::path> executableDirectory;

    // The resources of this installation, found once: the first of
    // <exe dir>/../share/quorlin, <exe dir>/resources and the source tree's resources/
    // that holds a "Workflows" folder.
    static const QuorlinResources& installed();

    // The "Workflows" folder of the resource directory, if there is one.
    std::optional<std::filesystem::path> workflowsDirectory() const;
};

} // namespace quorlin

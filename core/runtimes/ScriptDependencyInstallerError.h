#pragma once

#include "core/foundation/Error.h"

#include <string>

namespace quorlin {

// What goes wrong putting a runtime or a workflow's script dependencies on disk.
class ScriptDependencyInstallerError : public Error {
public:
    enum class Kind {
        resourceMissing,     // a manifest went away while it was being read
        runtimeNotInstalled, // no interpreter or package manager to install with
        processFailed,       // pip, npm or an unpacker failed; the detail says how
        downloadFailed,      // a runtime archive could not be fetched
    };

    // path: the file that is missing.
    static ScriptDependencyInstallerError resourceMissing(std::string path);
    // runtime: "Python" or "Node".
    static ScriptDependencyInstallerError runtimeNotInstalled(std::string runtime);
    // detail: what the program printed, or why it could not run; shown as it stands.
    static ScriptDependencyInstallerError processFailed(std::string detail);
    static ScriptDependencyInstallerError downloadFailed(std::string detail);

    Kind kind() const { return kind_; }
    // The path, the runtime's name or the detail, by kind.
    const std::string& detail() const { return detail_; }

private:
    ScriptDependencyInstallerError(Kind kind, std::string detail);
    static std::string compose(Kind kind, const std::string& detail);

    Kind kind_;
    std::string detail_;
};

} // namespace quorlin

#include "ScriptDependencyInstallerError.h"

#include <utility>

namespace quorlin {

ScriptDependencyInstallerError::ScriptDependencyInstallerError(Kind kind, std::string detail)
    : Error(compose(kind, detail)), kind_(kind), detail_(std::move(detail)) {}

std::string ScriptDependencyInstallerError::compose(Kind kind, const std::string& detail) {
    switch (kind) {
    case Kind::resourceMissing:
        return "Dependency resource not found: " + detail;
    case Kind::runtimeNotInstalled:
        return "Download the Quorlin-managed " + detail + " runtime first.";
    case Kind::processFailed:
        return detail;
    case Kind::downloadFailed:
        return "Failed to download runtime: " + detail;
    }
    return detail;
}

ScriptDependencyInstallerError ScriptDependencyInstallerError::resourceMissing(std::string path) {
    return {Kind::resourceMissing, std::move(path)};
}

ScriptDependencyInstallerError
ScriptDependencyInstallerError::runtimeNotInstalled(std::string runtime) {
    return {Kind::runtimeNotInstalled, std::move(runtime)};
}

ScriptDependencyInstallerError ScriptDependencyInstallerError::processFailed(std::string detail) {
    return {Kind::processFailed, std::move(detail)};
}

ScriptDependencyInstallerError ScriptDependencyInstallerError::downloadFailed(std::string detail) {
    return {Kind::downloadFailed, std::move(detail)};
}

} // namespace quorlin

#include "WorkflowInstallerError.h"

namespace quorlin {

namespace {

using Kind = WorkflowInstallerError::Kind;

std::string describe(Kind kind, const std::string& payload) {
    switch (kind) {
    case Kind::invalidPackageExtension:
        return "Not an installable workflow plugin package: " + payload;
    case Kind::missingEntrypoint:
        return "Plugin package is missing the workflow entrypoint: " + payload;
    case Kind::invalidManifest:
        return "Invalid workflow manifest: " + payload;
    case Kind::invalidPackageContents:
        return "Invalid workflow plugin contents: " + payload;
    case Kind::checksumMismatch:
        return "Workflow plugin checksum verification failed: " + payload;
    case Kind::pathTraversal:
        return "Workflow plugin contains an unsafe path: " + payload;
    case Kind::symlinkNotAllowed:
        return "Workflow plugin must not contain a symbolic link: " + payload;
    case Kind::missingManifest:
        return "Plugin package is missing manifest.yaml";
    case Kind::invalidFlowID:
        return "Not a valid workflow id: " + payload;
    }
    return payload;
}

} // namespace

WorkflowInstallerError::WorkflowInstallerError(Kind kind, std::string payload)
    : Error(describe(kind, payload)), kind_(kind), payload_(std::move(payload)) {}

} // namespace quorlin

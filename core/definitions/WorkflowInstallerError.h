#pragma once

#include "core/foundation/Error.h"

#include <string>

namespace quorlin {

class WorkflowInstallerError : public Error {
public:
    enum class Kind {
        invalidPackageExtension,
        missingEntrypoint,
        invalidManifest,
        invalidPackageContents,
        checksumMismatch,
        pathTraversal,
        symlinkNotAllowed,
        missingManifest,
        invalidFlowID,
    };

    // payload: the file's name for invalidPackageExtension, the entrypoint for
    // missingEntrypoint, a text for invalidManifest and invalidPackageContents, a path
    // for checksumMismatch, pathTraversal and symlinkNotAllowed, the id for
    // invalidFlowID; unused for missingManifest.
    explicit WorkflowInstallerError(Kind kind, std::string payload = {});

    Kind kind() const { return kind_; }
    const std::string& payload() const { return payload_; }

private:
    Kind kind_;
    std::string payload_;
};

} // namespace quorlin

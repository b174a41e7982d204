#pragma once

#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowPluginManifest.h"
#include "core/foundation/Error.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

class WorkflowPackagerError : public Error {
public:
    enum class Kind { notABundle, manifestWithoutChecksums, unsupportedFile };

    // payload: the directory for notABundle, the relative path for unsupportedFile;
    // unused for manifestWithoutChecksums.
    explicit WorkflowPackagerError(Kind kind, const std::string& payload = {});

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

struct WorkflowPackResult {
    std::string flowID;
    std::string version;
    std::filesystem::path packageFile;
    std::size_t fileCount = 0;      // regular files in the package, listing included
    bool manifestGenerated = false; // the bundle had no manifest.yaml
};

// Makes a plugin package that WorkflowInstaller accepts from a workflow bundle directory.
// The bundle itself is never modified: a missing manifest and the checksum listing are
// generated in a scratch directory and added to the archive beside the bundle's files.
class WorkflowPackager {
public:
    // Packs bundleDirectory into output, or into <flow id>-<version>.quorlinflow in the
    // current directory. Symbolic links and names the installer would refuse throw the
    // installer's errors (same words); an existing manifest must pass the installer's
    // manifest checks against the bundle and name a checksum file.
    WorkflowPackResult pack(const std::filesystem::path& bundleDirectory,
                            const std::optional<std::filesystem::path>& output = {}) const;

    // The manifest written for a bundle without one: id, version and name from the flow,
    // entrypoint "flow.yaml", the runtimes of its script-run steps, no permissions or
    // artifacts, and the listing "checksums.sha256".
    static WorkflowPluginManifest generatedManifest(const WorkflowDocument& document);

    static std::string defaultPackageFileName(std::string_view flowID, std::string_view version);
};

} // namespace quorlin

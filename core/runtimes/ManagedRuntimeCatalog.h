#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/ScriptRuntime.h"
#include "core/foundation/Error.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

enum class ManagedRuntimeArchitecture { arm64, x86_64 };

// "aarch64" or "x86_64": how Linux and the publishers' archive names call them.
std::string_view linuxArchitectureName(ManagedRuntimeArchitecture architecture);

// The download hosts the built-in entries use, each replaceable through its environment
// variable (a mirror, a test's server); the archive's path on the host stays the same.
inline constexpr std::string_view defaultPythonDownloadBaseURL = "https://github.com";
inline constexpr std::string_view defaultNodeDownloadBaseURL = "https://nodejs.org";

// One interpreter build the application manages under its data root, and where it comes
// from.
struct ManagedRuntimeDescriptor {
    ScriptRuntime runtime = ScriptRuntime::python;
    std::string displayName;
    std::string version; // also the folder name
    std::vector<std::string> executableSuffixes;
    std::vector<std::string> packageManagerSuffixes;
    std::string archiveName;
    std::string archiveURL;
    // How the archive is checked before it is unpacked: the catalogue's own SHA-256 (hex),
    // or else the line for archiveName in the publisher's checksum list at this address.
    std::optional<std::string> sha256;
    std::optional<std::string> checksumListURL;
};

// Where the catalogue's entries come from: the built-in ones on these hosts, and a
// catalogue file whose entries replace built-in ones.
struct RuntimeCatalogSources {
    std::string pythonBaseURL = std::string(defaultPythonDownloadBaseURL);
    std::string nodeBaseURL = std::string(defaultNodeDownloadBaseURL);
    std::optional<std::filesystem::path> catalogFile;

    // QUORLIN_PYTHON_DOWNLOAD_BASE_URL, QUORLIN_NODE_DOWNLOAD_BASE_URL and
    // QUORLIN_RUNTIME_CATALOG, each where set and not blank.
    static RuntimeCatalogSources fromEnvironment();
};

// A catalogue file that can't be used: not readable, not the expected JSON, or an entry
// without a checksum.
class RuntimeCatalogError : public Error {
public:
    RuntimeCatalogError(const std::filesystem::path& file, const std::string& detail);
};

ManagedRuntimeArchitecture currentArchitecture();

// The build for the runtime and architecture. A catalogue file's entry for them (its
// version, archive name, address and checksum) replaces the built-in one; the name and
// the paths inside the build stay. Throws RuntimeCatalogError for a bad catalogue file.
ManagedRuntimeDescriptor managedRuntimeDescriptor(
    ScriptRuntime runtime, ManagedRuntimeArchitecture architecture = currentArchitecture(),
    const RuntimeCatalogSources& sources = RuntimeCatalogSources::fromEnvironment());

// The first regular file, walking the runtime's version folder (hidden entries skipped),
// whose path ends in one of the suffixes, tried in order per entry. Nothing when the
// folder is absent.
std::optional<std::filesystem::path>
findInManagedRuntime(const AppSupportPaths& paths, const ManagedRuntimeDescriptor& descriptor,
                     const std::vector<std::string>& suffixes);

} // namespace quorlin

#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/ScriptRuntime.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

enum class ManagedRuntimeArchitecture { arm64, x86_64 };

// One interpreter build the application manages under its data root.
struct ManagedRuntimeDescriptor {
    ScriptRuntime runtime = ScriptRuntime::python;
    std::string displayName;
    std::string version; // also the folder name
    std::vector<std::string> executableSuffixes;
    std::vector<std::string> packageManagerSuffixes;
};

ManagedRuntimeArchitecture currentArchitecture();

ManagedRuntimeDescriptor
managedRuntimeDescriptor(ScriptRuntime runtime,
                         ManagedRuntimeArchitecture architecture = currentArchitecture());

// The first regular file, walking the runtime's version folder (hidden entries skipped),
// whose path ends in one of the suffixes, tried in order per entry. Nothing when the
// folder is absent.
std::optional<std::filesystem::path>
findInManagedRuntime(const AppSupportPaths& paths, const ManagedRuntimeDescriptor& descriptor,
                     const std::vector<std::string>& suffixes);

} // namespace quorlin

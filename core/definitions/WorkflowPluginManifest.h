#pragma once

#include "core/definitions/ScriptRuntime.h"
#include "core/foundation/YamlNode.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// The records of a plugin package's manifest.yaml.

struct PluginRuntimeRequirement {
    ScriptRuntime runtime = ScriptRuntime::python;
    std::optional<std::string> version;
    friend bool operator==(const PluginRuntimeRequirement&,
                           const PluginRuntimeRequirement&) = default;
};

struct PluginDependencyPolicy {
    std::optional<bool> installOnFirstRun;
    std::optional<bool> allowNetworkDuringInstall;
    friend bool operator==(const PluginDependencyPolicy&, const PluginDependencyPolicy&) = default;
};

struct PluginArtifact {
    std::string path;
    friend bool operator==(const PluginArtifact&, const PluginArtifact&) = default;
};

struct PluginChecksums {
    std::string file; // the checksum listing, relative to the package root
    friend bool operator==(const PluginChecksums&, const PluginChecksums&) = default;
};

struct WorkflowPluginDefinition {
    std::string id;
    std::string version;
    std::string displayName;
    std::string entrypoint; // the workflow file, relative to the package root
    std::optional<std::string> minQuorlinVersion;
    std::optional<std::string> author;
    std::optional<std::string> homepage;
    std::vector<PluginRuntimeRequirement> runtimeRequirements;
    std::optional<PluginDependencyPolicy> dependencyPolicy;
    std::vector<std::string> permissions;
    std::vector<PluginArtifact> artifacts;
    // Optional in the file; the installer refuses a package without it.
    std::optional<PluginChecksums> checksums;
    friend bool operator==(const WorkflowPluginDefinition&,
                           const WorkflowPluginDefinition&) = default;
};

struct WorkflowPluginManifest {
    WorkflowPluginDefinition plugin;
    friend bool operator==(const WorkflowPluginManifest&, const WorkflowPluginManifest&) = default;
};

// Decoders: a missing required key or a value of the wrong kind throws DecodingError
// naming where ("plugin.runtime_requirements[0].runtime"); syntax errors throw YamlError.
// Unknown keys are ignored; an optional key holding null counts as absent.
WorkflowPluginManifest decodeWorkflowPluginManifest(const YamlNode& root);
WorkflowPluginManifest decodeWorkflowPluginManifestYaml(std::string_view text);

// The manifest as YAML text that decodes to the same record: keys in field order,
// absent optional fields left out, every text double-quoted.
std::string manifestYaml(const WorkflowPluginManifest& manifest);

} // namespace quorlin

#include "WorkflowPluginManifest.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/RecordDecoding.h"
#include "core/definitions/WorkflowValueCoding.h"

#include <nlohmann/json.hpp>

namespace quorlin {

namespace {

PluginRuntimeRequirement decodeRuntimeRequirement(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    const auto& runtimeNode = fields.required("runtime");
    const auto runtime = scriptRuntimeFromRawValue(scalarText(runtimeNode, fields.path("runtime")));
    if (!runtime) {
        throwTypeMismatch(runtimeNode, fields.path("runtime"), "\"python\" or \"node\"");
    }
    return {*runtime, fields.optionalText("version")};
}

PluginDependencyPolicy decodeDependencyPolicy(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.optionalBool("install_on_first_run"),
            fields.optionalBool("allow_network_during_install")};
}

PluginArtifact decodeArtifact(const YamlNode& node, const std::string& path) {
    return {Fields(node, path).requiredText("path")};
}

WorkflowPluginDefinition decodeDefinition(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    WorkflowPluginDefinition plugin;
    plugin.id = fields.requiredText("id");
    plugin.version = fields.requiredText("version");
    plugin.displayName = fields.requiredText("display_name");
    plugin.entrypoint = fields.requiredText("entrypoint");
    plugin.minQuorlinVersion = fields.optionalText("min_quorlin_version");
    plugin.author = fields.optionalText("author");
    plugin.homepage = fields.optionalText("homepage");
    plugin.runtimeRequirements =
        fields.requiredSequence("runtime_requirements", decodeRuntimeRequirement);
    if (const auto* policy = fields.optional("dependency_policy")) {
        plugin.dependencyPolicy = decodeDependencyPolicy(*policy, fields.path("dependency_policy"));
    }
    plugin.permissions = fields.requiredSequence("permissions", scalarText);
    plugin.artifacts = fields.requiredSequence("artifacts", decodeArtifact);
    if (const auto* checksums = fields.optional("checksums")) {
        plugin.checksums =
            PluginChecksums{Fields(*checksums, fields.path("checksums")).requiredText("file")};
    }
    return plugin;
}

// A JSON string is a valid YAML double-quoted scalar, escapes included.
std::string quoted(const std::string& value) {
    return nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void line(std::string& out, int indent, std::string_view key, const std::string& value) {
    out.append(static_cast<std::size_t>(indent), ' ');
    out.append(key).append(": ").append(quoted(value)).push_back('\n');
}

void line(std::string& out, int indent, std::string_view key, bool value) {
    out.append(static_cast<std::size_t>(indent), ' ');
    out.append(key).append(value ? ": true\n" : ": false\n");
}

void optionalLine(std::string& out, int indent, std::string_view key, const auto& value) {
    if (value) {
        line(out, indent, key, *value);
    }
}

// "key:" followed by one "- " item per element, or "key: []" when there are none.
template <typename Write>
void listOf(std::string& out, std::string_view key, const auto& items, Write write) {
    out.append("  ").append(key).append(items.empty() ? ": []\n" : ":\n");
    for (const auto& item : items) {
        out.append("    - ");
        write(item);
    }
}

} // namespace

WorkflowPluginManifest decodeWorkflowPluginManifest(const YamlNode& root) {
    const Fields fields(root, {});
    return {decodeDefinition(fields.required("plugin"), "plugin")};
}

WorkflowPluginManifest decodeWorkflowPluginManifestYaml(std::string_view text) {
    return decodeWorkflowPluginManifest(parseYaml(text));
}

std::string manifestYaml(const WorkflowPluginManifest& manifest) {
    const auto& plugin = manifest.plugin;
    std::string out = "plugin:\n";
    line(out, 2, "id", plugin.id);
    line(out, 2, "version", plugin.version);
    line(out, 2, "display_name", plugin.displayName);
    line(out, 2, "entrypoint", plugin.entrypoint);
    optionalLine(out, 2, "min_quorlin_version", plugin.minQuorlinVersion);
    optionalLine(out, 2, "author", plugin.author);
    optionalLine(out, 2, "homepage", plugin.homepage);
    listOf(out, "runtime_requirements", plugin.runtimeRequirements, [&](const auto& requirement) {
        out.append("runtime: ").append(quoted(std::string(rawValue(requirement.runtime))));
        out.push_back('\n');
        optionalLine(out, 6, "version", requirement.version);
    });
    if (const auto& policy = plugin.dependencyPolicy) {
        const bool empty = !policy->installOnFirstRun && !policy->allowNetworkDuringInstall;
        out.append(empty ? "  dependency_policy: {}\n" : "  dependency_policy:\n");
        optionalLine(out, 4, "install_on_first_run", policy->installOnFirstRun);
        optionalLine(out, 4, "allow_network_during_install", policy->allowNetworkDuringInstall);
    }
    listOf(out, "permissions", plugin.permissions,
           [&](const std::string& permission) { out.append(quoted(permission)).push_back('\n'); });
    listOf(out, "artifacts", plugin.artifacts, [&](const PluginArtifact& artifact) {
        out.append("path: ").append(quoted(artifact.path)).push_back('\n');
    });
    if (plugin.checksums) {
        out.append("  checksums:\n");
        line(out, 4, "file", plugin.checksums->file);
    }
    return out;
}

} // namespace quorlin

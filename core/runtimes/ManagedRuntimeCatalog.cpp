#include "ManagedRuntimeCatalog.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/FileError.h"
#include "core/foundation/Json.h"
#include "core/foundation/ServiceAddress.h"
#include "core/foundation/Text.h"

#include <cstdlib>
#include <system_error>

#include <nlohmann/json.hpp>

namespace quorlin {

namespace {

constexpr std::string_view pythonRelease = "20260414";
constexpr std::string_view pythonVersion = "3.10.20";
constexpr std::string_view nodeVersion = "24.14.1";
constexpr std::size_t catalogFileLimit = 1 << 20;

ManagedRuntimeDescriptor builtInPython(ManagedRuntimeArchitecture architecture,
                                       const std::string& baseURL) {
    const std::string version = std::string(pythonVersion) + "+" + std::string(pythonRelease);
    const std::string folder =
        "astral-sh/python-build-standalone/releases/download/" + std::string(pythonRelease) + "/";
    ManagedRuntimeDescriptor python;
    python.runtime = ScriptRuntime::python;
    python.displayName = "CPython";
    python.version = version;
    python.executableSuffixes = {"bin/python3", "bin/python"};
    python.packageManagerSuffixes = {"bin/pip3", "bin/pip"};
    python.archiveName = "cpython-" + version + "-" +
                         std::string(linuxArchitectureName(architecture)) +
                         "-unknown-linux-gnu-install_only.tar.gz";
    python.archiveURL = joinedURL(baseURL, folder + python.archiveName);
    python.checksumListURL = joinedURL(baseURL, folder + "SHA256SUMS");
    return python;
}

ManagedRuntimeDescriptor builtInNode(ManagedRuntimeArchitecture architecture,
                                     const std::string& baseURL) {
    const std::string folder = "dist/v" + std::string(nodeVersion) + "/";
    ManagedRuntimeDescriptor node;
    node.runtime = ScriptRuntime::node;
    node.displayName = "Node.js";
    node.version = std::string(nodeVersion);
    node.executableSuffixes = {"bin/node"};
    node.packageManagerSuffixes = {"lib/node_modules/npm/bin/npm-cli.js"};
    const char* platform = architecture == ManagedRuntimeArchitecture::arm64 ? "arm64" : "x64";
    node.archiveName = "node-v" + node.version + "-linux-" + platform + ".tar.gz";
    node.archiveURL = joinedURL(baseURL, folder + node.archiveName);
    node.checksumListURL = joinedURL(baseURL, folder + "SHASUMS256.txt");
    return node;
}

bool isHexDigest(const std::string& text) {
    return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string requiredText(const nlohmann::json& entry, const char* key, const std::string& where,
                         const std::filesystem::path& file) {
    const auto found = entry.find(key);
    if (found == entry.end() || !found->is_string() || trimmed(found->get<std::string>()).empty()) {
        throw RuntimeCatalogError(file, where + " needs a non-empty string \"" + key + "\"");
    }
    return trimmed(found->get<std::string>());
}

// The file's entry for the runtime and architecture laid over the built-in descriptor.
void applyCatalogFile(ManagedRuntimeDescriptor& descriptor, ManagedRuntimeArchitecture architecture,
                      const std::filesystem::path& file) {
    nlohmann::json catalog;
    try {
        catalog = parseJson(readFile(file, catalogFileLimit));
    } catch (const JsonError& error) {
        throw RuntimeCatalogError(file, error.detail());
    } catch (const FileError& error) {
        throw RuntimeCatalogError(file, error.what());
    }
    if (!catalog.is_object()) {
        throw RuntimeCatalogError(file, "the catalogue must be a JSON object");
    }
    const std::string runtimeKey(rawValue(descriptor.runtime));
    const auto runtime = catalog.find(runtimeKey);
    if (runtime == catalog.end()) {
        return;
    }
    const std::string architectureKey(linuxArchitectureName(architecture));
    if (!runtime->is_object()) {
        throw RuntimeCatalogError(file, "\"" + runtimeKey + "\" must be an object");
    }
    const auto entry = runtime->find(architectureKey);
    if (entry == runtime->end()) {
        return;
    }
    const std::string where = "\"" + runtimeKey + "\"." + architectureKey;
    if (!entry->is_object()) {
        throw RuntimeCatalogError(file, where + " must be an object");
    }
    descriptor.version = requiredText(*entry, "version", where, file);
    descriptor.archiveName = requiredText(*entry, "archive_name", where, file);
    descriptor.archiveURL = requiredText(*entry, "url", where, file);
    const auto sha256 = lowercased(requiredText(*entry, "sha256", where, file));
    if (!isHexDigest(sha256)) {
        throw RuntimeCatalogError(file, where + " has a \"sha256\" that is not 64 hex digits");
    }
    if (descriptor.version.find('/') != std::string::npos || descriptor.version.starts_with(".")) {
        throw RuntimeCatalogError(file, where + " has a \"version\" that can't name a folder");
    }
    descriptor.sha256 = sha256;
    descriptor.checksumListURL.reset();
}

std::optional<std::filesystem::path> environmentPath(const char* variable) {
    const char* value = std::getenv(variable);
    std::string text = value != nullptr ? trimmed(value) : std::string();
    return text.empty() ? std::nullopt : std::optional<std::filesystem::path>(text);
}

} // namespace

std::string_view linuxArchitectureName(ManagedRuntimeArchitecture architecture) {
    return architecture == ManagedRuntimeArchitecture::arm64 ? "aarch64" : "x86_64";
}

RuntimeCatalogSources RuntimeCatalogSources::fromEnvironment() {
    return {
        baseURLFromEnvironment("QUORLIN_PYTHON_DOWNLOAD_BASE_URL", defaultPythonDownloadBaseURL),
        baseURLFromEnvironment("QUORLIN_NODE_DOWNLOAD_BASE_URL", defaultNodeDownloadBaseURL),
        environmentPath("QUORLIN_RUNTIME_CATALOG")};
}

RuntimeCatalogError::RuntimeCatalogError(const std::filesystem::path& file,
                                         const std::string& detail)
    : Error("The runtime catalogue " + file.string() + " can't be used: " + detail) {}

ManagedRuntimeArchitecture currentArchitecture() {
#if defined(__aarch64__)
    return ManagedRuntimeArchitecture::arm64;
#else
    return ManagedRuntimeArchitecture::x86_64;
#endif
}

ManagedRuntimeDescriptor managedRuntimeDescriptor(ScriptRuntime runtime,
                                                  ManagedRuntimeArchitecture architecture,
                                                  const RuntimeCatalogSources& sources) {
    auto descriptor = runtime == ScriptRuntime::python
                          ? builtInPython(architecture, sources.pythonBaseURL)
                          : builtInNode(architecture, sources.nodeBaseURL);
    if (sources.catalogFile) {
        applyCatalogFile(descriptor, architecture, *sources.catalogFile);
    }
    return descriptor;
}

std::optional<std::filesystem::path>
findInManagedRuntime(const AppSupportPaths& paths, const ManagedRuntimeDescriptor& descriptor,
                     const std::vector<std::string>& suffixes) {
    const auto root = paths.managedRuntimeVersionDirectory(descriptor.runtime, descriptor.version);
    std::error_code error;
    if (!std::filesystem::is_directory(root, error)) {
        return std::nullopt;
    }
    std::filesystem::recursive_directory_iterator walk(root, error), end;
    for (; !error && walk != end; walk.increment(error)) {
        const auto name = walk->path().filename().string();
        if (startsWith(name, ".")) {
            if (walk->is_directory(error)) {
                walk.disable_recursion_pending();
            }
            continue;
        }
        if (!walk->is_regular_file(error)) {
            continue;
        }
        const std::string relative = walk->path().lexically_relative(root).generic_string();
        for (const auto& suffix : suffixes) {
            if (endsWith(relative, suffix)) {
                return walk->path();
            }
        }
    }
    return std::nullopt;
}

} // namespace quorlin

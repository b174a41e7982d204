#include "AppSupportPaths.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/Text.h"
#include "core/foundation/UserPaths.h"

#include <cstdlib>

#include <utf8proc.h>

namespace quorlin {

namespace {

std::filesystem::path defaultRoot() {
    // XDG says a relative XDG_DATA_HOME is invalid and must be ignored.
    if (const char* dataHome = std::getenv("XDG_DATA_HOME");
        dataHome != nullptr && std::filesystem::path(dataHome).is_absolute()) {
        return std::filesystem::path(dataHome) / AppSupportPaths::appFolderName;
    }
    return homeDirectory() / ".local" / "share" / AppSupportPaths::appFolderName;
}

bool keepsCharacter(char32_t codePoint) {
    return isLetter(codePoint) || isNumber(codePoint) || codePoint == U'-' || codePoint == U'_';
}

// Splits text into user-perceived characters (grapheme clusters), so that a letter with
// combining marks is judged as one character by its base.
template <typename Visit> void forEachCharacter(std::string_view text, Visit visit) {
    std::size_t offset = 0;
    utf8proc_int32_t state = 0;
    char32_t previous = 0;
    std::size_t clusterStart = 0;
    char32_t clusterFirst = 0;
    while (offset < text.size()) {
        const std::size_t start = offset;
        const char32_t codePoint = decodeCodePoint(text, offset);
        if (start == 0) {
            clusterFirst = codePoint;
        } else if (utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(previous),
                                                    static_cast<utf8proc_int32_t>(codePoint),
                                                    &state)) {
            visit(text.substr(clusterStart, start - clusterStart), clusterFirst);
            clusterStart = start;
            clusterFirst = codePoint;
        }
        previous = codePoint;
    }
    if (clusterStart < text.size()) {
        visit(text.substr(clusterStart), clusterFirst);
    }
}

} // namespace

AppSupportPaths AppSupportPaths::fromEnvironment() {
    if (const char* value = std::getenv(std::string(overrideEnvironmentKey).c_str())) {
        const std::string root = trimmed(value);
        if (!root.empty()) {
            // Made absolute once, here: scripts run in folders of their own, where a
            // relative path would point somewhere else.
            return AppSupportPaths(std::filesystem::absolute(root));
        }
    }
    return AppSupportPaths(defaultRoot());
}

AppSupportPaths::AppSupportPaths(std::filesystem::path root) : root_(std::move(root)) {}

std::filesystem::path AppSupportPaths::directory(const std::filesystem::path& relative) const {
    auto path = relative.empty() ? root_ : root_ / relative;
    createDirectories(path);
    return path;
}

std::filesystem::path AppSupportPaths::fileInRoot(std::string_view name) const {
    return appSupportDirectory() / name;
}

std::filesystem::path AppSupportPaths::appSupportDirectory() const {
    return directory({});
}

std::filesystem::path AppSupportPaths::bundlesDirectory() const {
    return directory("bundles");
}

std::filesystem::path AppSupportPaths::workflowPluginRootDirectory(std::string_view flowID) const {
    return directory(std::filesystem::path("bundles") / flowID);
}

std::filesystem::path AppSupportPaths::workflowDataDirectory(std::string_view workflowID) const {
    return directory(std::filesystem::path("workflow-data") / workflowID);
}

std::filesystem::path AppSupportPaths::managedWorkflowFolderPath(std::string_view workflowID,
                                                                 std::string_view settingKey,
                                                                 bool output) const {
    return root_ / "workflow-data" / workflowID / (output ? "outputs" : "inputs") /
           sanitizedWorkflowFolderComponent(settingKey);
}

std::filesystem::path AppSupportPaths::workflowInputDirectory(std::string_view workflowID,
                                                              std::string_view settingKey) const {
    auto path = managedWorkflowFolderPath(workflowID, settingKey, false);
    createDirectories(path);
    return path;
}

std::filesystem::path AppSupportPaths::workflowOutputDirectory(std::string_view workflowID,
                                                               std::string_view settingKey) const {
    auto path = managedWorkflowFolderPath(workflowID, settingKey, true);
    createDirectories(path);
    return path;
}

std::filesystem::path AppSupportPaths::scriptDependenciesDirectory() const {
    return directory("script-dependencies");
}

std::filesystem::path
AppSupportPaths::pythonDependenciesDirectory(std::string_view workflowID) const {
    return directory(std::filesystem::path("script-dependencies") / "python" / workflowID);
}

std::filesystem::path
AppSupportPaths::nodeDependenciesDirectory(std::string_view workflowID) const {
    return directory(std::filesystem::path("script-dependencies") / "node" / workflowID);
}

std::filesystem::path AppSupportPaths::managedRuntimesDirectory() const {
    return directory("managed-runtimes");
}

std::filesystem::path AppSupportPaths::managedRuntimeRootDirectory(ScriptRuntime runtime) const {
    return directory(std::filesystem::path("managed-runtimes") / rawValue(runtime));
}

std::filesystem::path
AppSupportPaths::managedRuntimeVersionDirectory(ScriptRuntime runtime,
                                                std::string_view version) const {
    return managedRuntimeRootDirectory(runtime) / version;
}

std::filesystem::path AppSupportPaths::localLLMDirectory() const {
    return directory("local-llm");
}

std::filesystem::path AppSupportPaths::localLLMModelsDirectory() const {
    return directory(std::filesystem::path("local-llm") / "models");
}

std::filesystem::path AppSupportPaths::stagingDirectory() const {
    return directory("staging");
}

std::filesystem::path AppSupportPaths::auditLogPath() const {
    return fileInRoot("audit-log.json");
}

std::filesystem::path AppSupportPaths::databasePath() const {
    return fileInRoot("quorlin.sqlite");
}

std::filesystem::path AppSupportPaths::appSettingsPath() const {
    return fileInRoot("app-settings.json");
}

std::filesystem::path AppSupportPaths::flowLibraryPreferencesPath() const {
    return fileInRoot("flow-library-preferences.json");
}

std::filesystem::path AppSupportPaths::clientProfilePath() const {
    return fileInRoot("client_profile.yml");
}

std::string sanitizedWorkflowFolderComponent(std::string_view key) {
    const std::string text = trimmed(key);
    std::string replaced;
    forEachCharacter(text, [&](std::string_view character, char32_t first) {
        if (keepsCharacter(first)) {
            replaced.append(character);
        } else {
            replaced.push_back('_');
        }
    });
    const auto isTrimmed = [](char c) { return c == '.' || c == '_' || c == '-'; };
    std::size_t begin = 0;
    std::size_t end = replaced.size();
    while (begin < end && isTrimmed(replaced[begin])) {
        ++begin;
    }
    while (end > begin && isTrimmed(replaced[end - 1])) {
        --end;
    }
    return begin == end ? std::string("default") : replaced.substr(begin, end - begin);
}

} // namespace quorlin

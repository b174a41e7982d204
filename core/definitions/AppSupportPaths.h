#pragma once

#include "core/definitions/ScriptRuntime.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace quorlin {

// The one place that knows where the program's data lies. Every store and service is
// handed one, so a whole installation can live in a scratch directory (tests, --root).
// Operations that name a directory create it (and its parents) unless noted; a failed
// creation throws FileError.
class AppSupportPaths {
public:
    static constexpr std::string_view appFolderName = "Quorlin";
    static constexpr std::string_view overrideEnvironmentKey = "QUORLIN_APP_SUPPORT_ROOT";

    // The data root of this process: $QUORLIN_APP_SUPPORT_ROOT when it is set and not
    // blank (used as written, relative to the working directory), else
    // $XDG_DATA_HOME/Quorlin, else ~/.local/share/Quorlin.
    static AppSupportPaths fromEnvironment();

    explicit AppSupportPaths(std::filesystem::path root);

    std::filesystem::path appSupportDirectory() const;
    std::filesystem::path bundlesDirectory() const;
    std::filesystem::path workflowPluginRootDirectory(std::string_view flowID) const;
    std::filesystem::path workflowDataDirectory(std::string_view workflowID) const;
    std::filesystem::path workflowInputDirectory(std::string_view workflowID,
                                                 std::string_view settingKey) const;
    std::filesystem::path workflowOutputDirectory(std::string_view workflowID,
                                                  std::string_view settingKey) const;
    // Where the two above put a setting's folder, without creating anything.
    std::filesystem::path managedWorkflowFolderPath(std::string_view workflowID,
                                                    std::string_view settingKey, bool output) const;
    std::filesystem::path scriptDependenciesDirectory() const;
    std::filesystem::path pythonDependenciesDirectory(std::string_view workflowID) const;
    std::filesystem::path nodeDependenciesDirectory(std::string_view workflowID) const;
    std::filesystem::path managedRuntimesDirectory() const;
    std::filesystem::path managedRuntimeRootDirectory(ScriptRuntime runtime) const;
    // Not created.
    std::filesystem::path managedRuntimeVersionDirectory(ScriptRuntime runtime,
                                                         std::string_view version) const;
    std::filesystem::path localLLMDirectory() const;
    std::filesystem::path localLLMModelsDirectory() const;
    std::filesystem::path stagingDirectory() const;

    // Files in the root; only the root is created.
    std::filesystem::path auditLogPath() const;
    std::filesystem::path databasePath() const;
    std::filesystem::path appSettingsPath() const;
    std::filesystem::path flowLibraryPreferencesPath() const;
    std::filesystem::path clientProfilePath() const;

    // The root as given, without creating it.
    const std::filesystem::path& root() const { return root_; }

private:
    std::filesystem::path directory(const std::filesystem::path& relative) const;
    std::filesystem::path fileInRoot(std::string_view name) const;

    std::filesystem::path root_;
};

// A folder name made from a setting key that came from a workflow file: trimmed, every
// character that is not a letter, a number, "-" or "_" replaced by "_", then ".", "_"
// and "-" trimmed from both ends; "default" when nothing is left. The result can never
// hold a path separator or be a relative step.
std::string sanitizedWorkflowFolderComponent(std::string_view key);

} // namespace quorlin

#include "core/state/FolderSettingPresentation.h"

#include "core/definitions/StepTypes.h"
#include "core/execution/FolderSteps.h"
#include "core/foundation/Text.h"

#include <optional>

namespace quorlin {

namespace {

// By the step's type, which is what a run goes by (each folder block has its own type).
std::optional<WorkflowFolderKind> folderKind(const FlowStep& step) {
    if (step.type == stepType::filesystemInputFile) {
        return WorkflowFolderKind::file;
    }
    if (step.type == stepType::filesystemInputFolder) {
        return WorkflowFolderKind::input;
    }
    if (step.type == stepType::filesystemOutputFolder) {
        return WorkflowFolderKind::output;
    }
    return std::nullopt;
}

// The user's folder for the setting: its path trimmed, none when blank.
std::optional<std::string> chosenPath(const FlowLibraryPreferencesDocument& preferences,
                                      const std::string& workflowID, const std::string& key) {
    const auto flow = preferences.folderPreferences.find(workflowID);
    if (flow == preferences.folderPreferences.end()) {
        return std::nullopt;
    }
    const auto setting = flow->second.find(key);
    if (setting == flow->second.end()) {
        return std::nullopt;
    }
    auto path = trimmed(setting->second.path);
    return path.empty() ? std::nullopt : std::optional(std::move(path));
}

} // namespace

std::string_view rawValue(WorkflowFolderKind kind) {
    switch (kind) {
    case WorkflowFolderKind::input:
        return "input";
    case WorkflowFolderKind::output:
        return "output";
    case WorkflowFolderKind::file:
        return "file";
    }
    return "input";
}

std::vector<WorkflowFolderSettingPresentation>
workflowFolderSettings(const FlowDefinition& flow,
                       const FlowLibraryPreferencesDocument& preferences,
                       const AppSupportPaths& paths) {
    std::vector<WorkflowFolderSettingPresentation> settings;
    for (const auto& step : flow.steps) {
        const auto kind = folderKind(step);
        if (!kind) {
            continue;
        }
        const bool file = *kind == WorkflowFolderKind::file;
        WorkflowFolderSettingPresentation setting;
        setting.workflowID = flow.id;
        setting.stepID = step.id;
        setting.title = step.name;
        setting.kind = *kind;
        setting.settingKey = stepSettingKey(step);
        setting.id = flow.id + "." + setting.settingKey;
        setting.environmentKey = stepEnvironmentKey(step, flow.id, file);
        setting.defaultPath = paths
                                  .managedWorkflowFolderPath(flow.id, setting.settingKey,
                                                             *kind == WorkflowFolderKind::output)
                                  .string();
        const auto chosen =
            file ? std::nullopt : chosenPath(preferences, flow.id, setting.settingKey);
        setting.path = file ? "" : chosen.value_or(setting.defaultPath);
        setting.usesManagedDefault = !chosen;
        setting.status = file ? "Pick on run" : chosen ? "Custom" : "App Managed";
        const auto extensions = allowedFileExtensions(step);
        setting.allowedExtensions.assign(extensions.begin(), extensions.end());
        settings.push_back(std::move(setting));
    }
    return settings;
}

} // namespace quorlin

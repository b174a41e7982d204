#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/stores/FlowLibraryPreferences.h"

#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

enum class WorkflowFolderKind { input, output, file };

// "input", "output", "file".
std::string_view rawValue(WorkflowFolderKind kind);

// One folder or file a flow asks for, as its settings show it.
struct WorkflowFolderSettingPresentation {
    std::string id; // "<workflow id>.<setting key>"
    std::string workflowID;
    std::string stepID;
    std::string title;
    WorkflowFolderKind kind = WorkflowFolderKind::input;
    std::string settingKey;
    std::string environmentKey; // where a run reads the choice from
    std::string path;           // the folder in use; empty for a file, picked at each run
    std::string defaultPath;    // the folder the app manages for the setting
    bool usesManagedDefault = true;
    std::string status; // "Custom", "App Managed" or "Pick on run"
    std::vector<std::string> allowedExtensions;
    friend bool operator==(const WorkflowFolderSettingPresentation&,
                           const WorkflowFolderSettingPresentation&) = default;
};

// The flow's folder and file settings in step order, with the setting keys and
// environment keys a run uses, and the user's own folder where the preferences hold one.
// Nothing is created on disk.
std::vector<WorkflowFolderSettingPresentation>
workflowFolderSettings(const FlowDefinition& flow,
                       const FlowLibraryPreferencesDocument& preferences,
                       const AppSupportPaths& paths);

} // namespace quorlin

#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/execution/GenericScriptWorkflowRunning.h"

#include <filesystem>
#include <set>
#include <string>

namespace quorlin {

// The environment keys under which the user's chosen folder or file for a flow setting
// reaches a run: "QUORLIN_FOLDER_" / "QUORLIN_FILE_" + "<WORKFLOW>_<SETTING>" in upper
// case with every other character than a letter or number turned into "_".
std::string workflowFolderEnvironmentKey(std::string_view workflowID, std::string_view settingKey);
std::string workflowFileEnvironmentKey(std::string_view workflowID, std::string_view settingKey);

// The setting a filesystem step reads: config "setting_key", trimmed, else the step's id.
std::string stepSettingKey(const FlowStep& step);

// The environment key a filesystem step reads its chosen path from: config "env" when
// given, else the key derived from the workflow id and the step's setting.
std::string stepEnvironmentKey(const FlowStep& step, std::string_view workflowID, bool file);

// The environment key of a flow's folder setting (an input or output folder step whose
// setting key it is), or of its first file setting; nothing when the flow has none.
std::optional<std::string> folderSettingEnvironmentKey(const FlowDefinition& workflow,
                                                       std::string_view settingKey);
std::optional<std::string> firstFileSettingEnvironmentKey(const FlowDefinition& workflow);

// The setting keys of a flow's folder steps, in step order; input marks the folders a
// step reads from (they must exist), the others are written to.
struct FolderSetting {
    std::string key;
    bool input = false;
};
std::vector<FolderSetting> folderSettings(const FlowDefinition& workflow);

// config "allowed_extensions", lower case without dots; empty means no limit.
std::set<std::string> allowedFileExtensions(const FlowStep& step);

// Replaces "{{profile.<path>}}" with the profile's text at that path; other tokens stay.
// profile: the client profile as its JSON tree.
std::string renderWorkflowFolderTemplate(std::string_view templateText,
                                         const WorkflowValue& profile);

// The native steps that resolve the folders and files a flow's settings point at.
class FolderSteps {
public:
    explicit FolderSteps(AppSupportPaths paths);

    GenericScriptStepRunResult inputFile(const FlowDefinition& workflow, const FlowStep& step,
                                         const WorkflowValue& profile,
                                         const EnvironmentOverrides& overrides) const;
    GenericScriptStepRunResult inputFolder(const FlowDefinition& workflow, const FlowStep& step,
                                           const WorkflowValue& profile,
                                           const EnvironmentOverrides& overrides) const;
    GenericScriptStepRunResult outputFolder(const FlowDefinition& workflow, const FlowStep& step,
                                            const WorkflowValue& profile,
                                            const EnvironmentOverrides& overrides) const;

private:
    struct ChosenFolder {
        std::string setting;
        std::string env;
        std::filesystem::path folder;
    };
    ChosenFolder chosenFolder(const FlowDefinition& workflow, const FlowStep& step,
                              const WorkflowValue& profile, const EnvironmentOverrides& overrides,
                              bool output) const;

    AppSupportPaths paths_;
};

} // namespace quorlin

#include "RunContext.h"

#include "core/execution/FolderSteps.h"
#include "core/foundation/Error.h"

#include <algorithm>
#include <system_error>

namespace quorlin {

namespace {

void checkFolderChoice(const FlowDefinition& flow, const std::string& key,
                       const std::filesystem::path& path) {
    const auto settings = folderSettings(flow);
    const auto setting = std::find_if(settings.begin(), settings.end(),
                                      [&](const FolderSetting& item) { return item.key == key; });
    if (setting == settings.end()) {
        std::string known;
        for (const auto& item : settings) {
            known += (known.empty() ? "" : ", ") + item.key;
        }
        throw RunChoiceError("Workflow " + flow.id + " has no folder setting named '" + key +
                             "'; " +
                             (known.empty() ? "it has no folder settings."
                                            : "its folder settings are: " + known + "."));
    }
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (setting->input && !std::filesystem::exists(status)) {
        throw RunChoiceError("The folder for " + key + " does not exist: " + path.string());
    }
    if (std::filesystem::exists(status) && !std::filesystem::is_directory(status)) {
        throw RunChoiceError("The path for " + key + " is not a folder: " + path.string());
    }
}

} // namespace

void checkRunChoices(const FlowDefinition& flow, const RunChoices& choices) {
    if (choices.inputFile) {
        if (!firstFileSettingEnvironmentKey(flow)) {
            throw RunChoiceError("Workflow " + flow.id + " takes no input file.");
        }
        std::error_code error;
        if (!std::filesystem::is_regular_file(*choices.inputFile, error)) {
            throw RunChoiceError("The input file does not exist or is not a file: " +
                                 choices.inputFile->string());
        }
    }
    for (const auto& [key, path] : choices.folders) {
        checkFolderChoice(flow, key, path);
    }
}

EnvironmentOverrides choiceOverrides(const FlowDefinition& flow, const RunChoices& choices) {
    checkRunChoices(flow, choices);
    EnvironmentOverrides overrides;
    const auto absolute = [](const std::filesystem::path& path) {
        return std::filesystem::absolute(path).string();
    };
    if (choices.inputFile) {
        overrides[*firstFileSettingEnvironmentKey(flow)] = absolute(*choices.inputFile);
    }
    for (const auto& [setting, path] : choices.folders) {
        overrides[*folderSettingEnvironmentKey(flow, setting)] = absolute(path);
    }
    return overrides;
}

} // namespace quorlin

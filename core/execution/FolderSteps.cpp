#include "FolderSteps.h"

#include "core/definitions/StepTypes.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/execution/NativeStepResult.h"
#include "core/execution/StepValueResolution.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Regex.h"
#include "core/foundation/Text.h"
#include "core/foundation/UserPaths.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace quorlin {

namespace {

[[noreturn]] void fail(const std::string& message) {
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message, message);
}

const WorkflowValue* configValue(const FlowStep& step, const std::string& key) {
    if (!step.config) {
        return nullptr;
    }
    const auto found = step.config->find(key);
    return found == step.config->end() ? nullptr : &found->second;
}

// A config flag; a value of another type than bool counts as absent.
bool configFlag(const FlowStep& step, const std::string& key, bool fallback) {
    const auto* value = configValue(step, key);
    return value != nullptr && value->isBool() ? *value->boolean() : fallback;
}

std::optional<std::string> configText(const FlowStep& step, const std::string& key) {
    const auto* value = configValue(step, key);
    if (value == nullptr || !value->isString()) {
        return std::nullopt;
    }
    std::string text = trimmed(*value->string());
    return text.empty() ? std::nullopt : std::optional(text);
}

std::string environmentKey(std::string_view prefix, std::string_view workflowID,
                           std::string_view settingKey) {
    const std::string joined = uppercased(std::string(workflowID) + "_" + std::string(settingKey));
    std::string key(prefix);
    std::size_t offset = 0;
    while (offset < joined.size()) {
        const char32_t codePoint = decodeCodePoint(joined, offset);
        if (isLetter(codePoint) || isNumber(codePoint)) {
            appendCodePoint(key, codePoint);
        } else {
            key.push_back('_');
        }
    }
    return key;
}

std::optional<std::string> overrideFor(const EnvironmentOverrides& overrides,
                                       const std::string& key) {
    const auto found = overrides.find(key);
    if (found == overrides.end()) {
        return std::nullopt;
    }
    std::string value = trimmed(found->second);
    return value.empty() ? std::nullopt : std::optional(value);
}

std::string resolvedPath(const std::string& templateText, const WorkflowValue& profile) {
    return expandingTildeInPath(renderWorkflowFolderTemplate(templateText, profile));
}

std::vector<std::string> visibleEntries(const std::filesystem::path& folder, bool fullPaths) {
    std::vector<std::string> entries;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const auto name = entry.path().filename().string();
        if (!startsWith(name, ".")) {
            entries.push_back(fullPaths ? entry.path().string() : name);
        }
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

WorkflowValueMap folderAudit(const FlowDefinition& workflow, const std::string& setting,
                             const std::string& env, const std::string& folder) {
    return {
        {"workflow_id", workflow.id}, {"setting_key", setting}, {"env", env}, {"folder", folder}};
}

WorkflowValue textArray(const std::vector<std::string>& items) {
    WorkflowValue::Array array(items.begin(), items.end());
    return array;
}

} // namespace

std::string workflowFolderEnvironmentKey(std::string_view workflowID, std::string_view settingKey) {
    return environmentKey("QUORLIN_FOLDER_", workflowID, settingKey);
}

std::string workflowFileEnvironmentKey(std::string_view workflowID, std::string_view settingKey) {
    return environmentKey("QUORLIN_FILE_", workflowID, settingKey);
}

std::string stepSettingKey(const FlowStep& step) {
    return configText(step, "setting_key").value_or(step.id);
}

std::string stepEnvironmentKey(const FlowStep& step, std::string_view workflowID, bool file) {
    if (auto explicitKey = configText(step, "env")) {
        return *explicitKey;
    }
    const auto setting = stepSettingKey(step);
    return file ? workflowFileEnvironmentKey(workflowID, setting)
                : workflowFolderEnvironmentKey(workflowID, setting);
}

std::optional<std::string> folderSettingEnvironmentKey(const FlowDefinition& workflow,
                                                       std::string_view settingKey) {
    for (const auto& step : workflow.steps) {
        const bool folderStep = step.type == stepType::filesystemInputFolder ||
                                step.type == stepType::filesystemOutputFolder;
        if (folderStep && stepSettingKey(step) == settingKey) {
            return stepEnvironmentKey(step, workflow.id, false);
        }
    }
    return std::nullopt;
}

std::vector<FolderSetting> folderSettings(const FlowDefinition& workflow) {
    std::vector<FolderSetting> settings;
    for (const auto& step : workflow.steps) {
        const bool input = step.type == stepType::filesystemInputFolder;
        if (input || step.type == stepType::filesystemOutputFolder) {
            settings.push_back({stepSettingKey(step), input});
        }
    }
    return settings;
}

std::optional<std::string> firstFileSettingEnvironmentKey(const FlowDefinition& workflow) {
    for (const auto& step : workflow.steps) {
        if (step.type == stepType::filesystemInputFile) {
            return stepEnvironmentKey(step, workflow.id, true);
        }
    }
    return std::nullopt;
}

std::set<std::string> allowedFileExtensions(const FlowStep& step) {
    std::vector<std::string> items;
    if (const auto* value = configValue(step, "allowed_extensions")) {
        if (const auto* array = value->array()) {
            for (const auto& element : *array) {
                if (const auto* text = element.string()) {
                    items.push_back(*text);
                }
            }
        } else if (const auto* text = value->string()) {
            std::size_t start = 0;
            while (start <= text->size()) {
                const auto comma = std::min(text->find(',', start), text->size());
                items.push_back(text->substr(start, comma - start));
                start = comma + 1;
            }
        }
    }
    std::set<std::string> extensions;
    for (const auto& item : items) {
        std::string extension = trimmed(item);
        const auto first = extension.find_first_not_of('.');
        const auto last = extension.find_last_not_of('.');
        extension = first == std::string::npos ? "" : extension.substr(first, last - first + 1);
        if (!extension.empty()) {
            extensions.insert(lowercased(extension));
        }
    }
    return extensions;
}

std::string renderWorkflowFolderTemplate(std::string_view templateText,
                                         const WorkflowValue& profile) {
    static const Regex token(R"(\{\{\s*profile\.([^}]+?)\s*\}\})");
    std::string rendered(templateText);
    const auto matches = token.allMatches(templateText);
    for (auto match = matches.rbegin(); match != matches.rend(); ++match) {
        const auto& inner = (*match)[1];
        const std::string path =
            "profile." + trimmed(templateText.substr(inner.begin, inner.end - inner.begin));
        rendered.replace((*match)[0].begin, (*match)[0].end - (*match)[0].begin,
                         profileValue(path, profile));
    }
    return rendered;
}

FolderSteps::FolderSteps(AppSupportPaths paths) : paths_(std::move(paths)) {}

GenericScriptStepRunResult FolderSteps::inputFile(const FlowDefinition& workflow,
                                                  const FlowStep& step,
                                                  const WorkflowValue& profile,
                                                  const EnvironmentOverrides& overrides) const {
    const auto startedAt = std::chrono::system_clock::now();
    const auto setting = stepSettingKey(step);
    const auto env = stepEnvironmentKey(step, workflow.id, true);
    auto templateText = overrideFor(overrides, env);
    if (!templateText) {
        templateText = configText(step, "default_path");
    }
    if (!templateText) {
        fail("Input file is not configured. Select a file for " + setting + ".");
    }
    const std::filesystem::path file = resolvedPath(*templateText, profile);
    std::error_code error;
    const bool exists = std::filesystem::exists(file, error);
    if (configFlag(step, "must_exist", true) && !exists) {
        fail("Input file is not configured or does not exist. Select a file for " + setting + ".");
    }
    if (exists && std::filesystem::is_directory(file, error)) {
        fail("Input file path is a directory: " + file.string());
    }
    const auto extension =
        lowercased(file.has_extension() ? file.extension().string().substr(1) : "");
    const auto allowed = allowedFileExtensions(step);
    if (!allowed.empty() && !allowed.contains(extension)) {
        std::string list;
        for (const auto& item : allowed) {
            list += (list.empty() ? "" : ", ") + item;
        }
        fail("Input file extension ." + extension + " is not allowed for " + setting +
             ". Allowed: " + list);
    }
    const auto size = exists ? static_cast<std::int64_t>(std::filesystem::file_size(file)) : 0;
    const std::vector<std::string> allowedList(allowed.begin(), allowed.end());
    const WorkflowValueMap audit{{"workflow_id", workflow.id},
                                 {"setting_key", setting},
                                 {"env", env},
                                 {"file", file.string()},
                                 {"allowed_extensions", textArray(allowedList)}};
    const WorkflowValueMap output{{"input_file", file.string()},
                                  {"file", file.string()},
                                  {"file_name", file.filename().string()},
                                  {"extension", extension},
                                  {"size_bytes", size}};
    return nativeStepResult(audit, output, startedAt);
}

FolderSteps::ChosenFolder FolderSteps::chosenFolder(const FlowDefinition& workflow,
                                                    const FlowStep& step,
                                                    const WorkflowValue& profile,
                                                    const EnvironmentOverrides& overrides,
                                                    bool output) const {
    auto setting = stepSettingKey(step);
    auto env = stepEnvironmentKey(step, workflow.id, false);
    // The user's choice for this run, else the folder the app manages for the setting.
    const auto chosen = overrideFor(overrides, env);
    std::filesystem::path folder = chosen   ? std::filesystem::path(resolvedPath(*chosen, profile))
                                   : output ? paths_.workflowOutputDirectory(workflow.id, setting)
                                            : paths_.workflowInputDirectory(workflow.id, setting);
    return {std::move(setting), std::move(env), std::move(folder)};
}

GenericScriptStepRunResult FolderSteps::inputFolder(const FlowDefinition& workflow,
                                                    const FlowStep& step,
                                                    const WorkflowValue& profile,
                                                    const EnvironmentOverrides& overrides) const {
    const auto startedAt = std::chrono::system_clock::now();
    const auto [setting, env, folder] = chosenFolder(workflow, step, profile, overrides, false);
    std::error_code error;
    const bool exists = std::filesystem::exists(folder, error);
    if (configFlag(step, "must_exist", false) && !exists) {
        fail("Input folder does not exist: " + folder.string());
    }
    const auto files = configFlag(step, "list_files", false) && exists
                           ? visibleEntries(folder, true)
                           : std::vector<std::string>{};
    const WorkflowValueMap output{{"input_folder", folder.string()},
                                  {"folder", folder.string()},
                                  {"files", textArray(files)}};
    return nativeStepResult(folderAudit(workflow, setting, env, folder.string()), output,
                            startedAt);
}

GenericScriptStepRunResult FolderSteps::outputFolder(const FlowDefinition& workflow,
                                                     const FlowStep& step,
                                                     const WorkflowValue& profile,
                                                     const EnvironmentOverrides& overrides) const {
    const auto startedAt = std::chrono::system_clock::now();
    const auto [setting, env, folder] = chosenFolder(workflow, step, profile, overrides, true);
    if (configFlag(step, "create", true)) {
        createDirectories(folder);
    }
    const WorkflowValueMap output{{"output_folder", folder.string()}, {"folder", folder.string()}};
    return nativeStepResult(folderAudit(workflow, setting, env, folder.string()), output,
                            startedAt);
}

} // namespace quorlin

#include "ContextSteps.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ApprovalProposal.h"
#include "core/execution/NativeStepResult.h"
#include "core/execution/StepValueResolution.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/foundation/UserPaths.h"

#include <algorithm>
#include <ctime>
#include <system_error>

namespace quorlin {

namespace {

[[noreturn]] void fail(const std::string& message) {
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message, message);
}

std::optional<std::string> decimalDigits(std::string_view text) {
    if (text.empty() ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return std::string(text);
}

// A rendered, "~"-expanded folder from the step's action.
std::filesystem::path actionFolder(const FlowStep& step, const std::string& key,
                                   const StepOutputs& stepOutputs, const WorkflowValue& profile,
                                   SystemTime referenceDate) {
    const WorkflowValue* value = nullptr;
    if (step.action) {
        if (const auto found = step.action->find(key); found != step.action->end()) {
            value = &found->second;
        }
    }
    if (value == nullptr || !value->isString() || trimmed(*value->string()).empty()) {
        fail("Missing action." + key + " for step " + step.id);
    }
    return expandingTildeInPath(
        renderTemplate(trimmed(*value->string()), stepOutputs, profile, referenceDate));
}

std::optional<FolderWorkflowContext> decodeFolderContext(const WorkflowValue& value) {
    const auto* object = value.object();
    if (object == nullptr) {
        return std::nullopt;
    }
    const auto text = [&](const char* key) -> std::optional<std::string> {
        const auto found = object->find(key);
        if (found == object->end() || !found->second.isString()) {
            return std::nullopt;
        }
        return *found->second.string();
    };
    const auto target = text("target_folder");
    const auto preview = text("preview_folder");
    const auto timestamp = text("reference_timestamp");
    const auto examples = object->find("naming_examples");
    if (!target || !preview || !timestamp || examples == object->end() ||
        !examples->second.isArray()) {
        return std::nullopt;
    }
    FolderWorkflowContext context{*target, *preview, {}, *timestamp};
    for (const auto& example : *examples->second.array()) {
        if (!example.isString()) {
            return std::nullopt;
        }
        context.namingExamples.push_back(*example.string());
    }
    return context;
}

// Reads an input key of a resolved map as JSON for the given reader; a missing key is
// "Missing input <key>".
template <typename Read>
auto decodedInput(const WorkflowValueMap& inputs, const std::string& key, Read read) {
    const auto found = inputs.find(key);
    if (found == inputs.end()) {
        fail("Missing input " + key);
    }
    return read(toJson(found->second), key);
}

struct DownloadedFileRow {
    std::int64_t index = 0;
    std::string sender;
    std::string originalName;
    std::string stagedPath;
};

std::vector<DownloadedFileRow> stagedFileRows(const nlohmann::json& json, const std::string& key) {
    if (!json.is_array()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, key, "an array of staged files");
    }
    std::vector<DownloadedFileRow> rows;
    for (const auto& row : json) {
        try {
            rows.push_back({row.at("index").get<std::int64_t>(),
                            row.at("sender").get<std::string>(),
                            row.at("original_name").get<std::string>(),
                            row.at("staged_path").get<std::string>()});
        } catch (const nlohmann::json::exception& error) {
            throw DecodingError(DecodingError::Kind::dataCorrupted, key, error.what());
        }
    }
    return rows;
}

std::vector<ApprovalProposal> approvedRows(const nlohmann::json& json, const std::string& key) {
    if (!json.is_array()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, key, "an array of approved rows");
    }
    std::vector<ApprovalProposal> rows;
    for (const auto& row : json) {
        rows.push_back(decodeApprovalProposal(row, key));
    }
    return rows;
}

} // namespace

WorkflowValue toWorkflowValue(const FolderWorkflowContext& context) {
    return WorkflowValue::Object{
        {"target_folder", context.targetFolder},
        {"preview_folder", context.previewFolder},
        {"naming_examples",
         WorkflowValue::Array(context.namingExamples.begin(), context.namingExamples.end())},
        {"reference_timestamp", context.referenceTimestamp}};
}

std::optional<SystemTime> targetReferenceDate(const std::optional<std::string>& value) {
    if (!value || trimmed(*value).empty()) {
        return std::nullopt;
    }
    const std::string given = trimmed(*value);
    std::string digits = given;
    std::erase(digits, '-');
    const auto valid = digits.size() == 6 ? decimalDigits(digits) : std::nullopt;
    const int month = valid ? std::stoi(digits.substr(4)) : 0;
    if (!valid || month < 1 || month > 12) {
        throw GenericNativeWorkflowError(GenericNativeWorkflowError::Kind::invalidTargetYearMonth,
                                         given);
    }
    std::tm local{};
    local.tm_year = std::stoi(digits.substr(0, 4)) - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = 1;
    local.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&local));
}

std::vector<std::string> namingExamples(const std::filesystem::path& folder,
                                        const std::filesystem::path& workflowDirectory) {
    std::error_code error;
    if (std::filesystem::exists(folder, error)) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            const auto name = entry.path().filename().string();
            if (!startsWith(name, ".")) {
                names.push_back(name);
            }
        }
        if (!names.empty()) {
            std::sort(names.begin(), names.end());
            return names;
        }
    }
    const auto dataset = workflowDirectory / "data" / "default_naming_examples.json";
    if (!std::filesystem::exists(dataset, error)) {
        throw GenericNativeWorkflowError(GenericNativeWorkflowError::Kind::missingBundledDataset);
    }
    const auto json = parseJson(readFile(dataset));
    if (!json.is_array() ||
        !std::all_of(json.begin(), json.end(), [](const auto& item) { return item.is_string(); })) {
        throw DecodingError(DecodingError::Kind::typeMismatch, dataset.string(),
                            "an array of file names");
    }
    return json.get<std::vector<std::string>>();
}

FolderWorkflowContext
folderContext(const StepOutputs& stepOutputs,
              const std::optional<std::filesystem::path>& fallbackStagingDirectory) {
    if (const auto setup = stepOutputs.find("setup"); setup != stepOutputs.end()) {
        if (const auto found = setup->second.find("folder_context"); found != setup->second.end()) {
            if (auto context = decodeFolderContext(found->second)) {
                return *context;
            }
            throw DecodingError(DecodingError::Kind::dataCorrupted,
                                "steps.setup.outputs.folder_context", "Unreadable folder context");
        }
    }
    if (!fallbackStagingDirectory) {
        fail("Missing folder context");
    }
    return {fallbackStagingDirectory->string(),
            (*fallbackStagingDirectory / "previews").string(),
            {},
            formatLocalMinute(std::chrono::system_clock::now())};
}

std::optional<std::filesystem::path> outputFolder(const StepOutputs& stepOutputs) {
    for (const auto& [stepID, outputs] : stepOutputs) {
        if (const auto found = outputs.find("output_folder"); found != outputs.end()) {
            if (const auto* path = found->second.string(); path != nullptr && !path->empty()) {
                return *path;
            }
        }
        if (const auto found = outputs.find("folder_context"); found != outputs.end()) {
            if (const auto context = decodeFolderContext(found->second);
                context && !context->targetFolder.empty()) {
                return context->targetFolder;
            }
        }
    }
    return std::nullopt;
}

GenericScriptStepRunResult runContextPrepareStep(const std::filesystem::path& bundleDirectory,
                                                 const FlowStep& step,
                                                 const StepOutputs& stepOutputs,
                                                 const WorkflowValue& profile,
                                                 const std::optional<std::string>& targetYearMonth,
                                                 const std::filesystem::path& stagingDirectory) {
    const auto startedAt = std::chrono::system_clock::now();
    const SystemTime referenceDate = targetReferenceDate(targetYearMonth).value_or(startedAt);
    const auto target = actionFolder(step, "target_folder", stepOutputs, profile, referenceDate);
    const auto read = actionFolder(step, "read_folder", stepOutputs, profile, referenceDate);
    const auto previews = stagingDirectory / "previews";
    createDirectories(previews);
    const FolderWorkflowContext context{target.string(), previews.string(),
                                        namingExamples(read, bundleDirectory),
                                        formatLocalMinute(referenceDate)};
    const WorkflowValueMap audit{{"read_folder", read.string()},
                                 {"target_folder", target.string()},
                                 {"reference_timestamp", context.referenceTimestamp}};
    const WorkflowValueMap output{
        {"naming_examples",
         WorkflowValue::Array(context.namingExamples.begin(), context.namingExamples.end())},
        {"folder_context", toWorkflowValue(context)}};
    return nativeStepResult(audit, output, startedAt);
}

GenericScriptStepRunResult runNativeFileWriteStep(const FlowStep& step,
                                                  const StepOutputs& stepOutputs) {
    const auto startedAt = std::chrono::system_clock::now();
    const auto inputs = resolvedInputs(step.inputs, stepOutputs);
    const auto approved = decodedInput(inputs, "approved_table", approvedRows);
    const auto staged = decodedInput(inputs, "staged_files", stagedFileRows);
    const std::filesystem::path target = folderContext(stepOutputs, std::nullopt).targetFolder;
    createDirectories(target);

    WorkflowValue::Array finalFiles;
    for (const auto& row : approved) {
        const auto file =
            std::find_if(staged.begin(), staged.end(), [&](const DownloadedFileRow& candidate) {
                return candidate.index == row.index;
            });
        if (file == staged.end()) {
            throw GenericNativeWorkflowError(GenericNativeWorkflowError::Kind::missingStagedFile,
                                             row.originalName);
        }
        const auto destination = target / row.proposedName;
        std::filesystem::remove(destination);
        std::filesystem::copy_file(file->stagedPath, destination);
        finalFiles.push_back(destination.string());
    }
    const WorkflowValueMap audit{{"target_folder", target.string()},
                                 {"approved_count", static_cast<std::int64_t>(approved.size())}};
    const WorkflowValueMap output{{"final_files", finalFiles}, {"output_folder", target.string()}};
    return nativeStepResult(audit, output, startedAt);
}

} // namespace quorlin

#pragma once

#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/foundation/LocalTime.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

// Where a file-based run puts its results, travels under "folder_context".
struct FolderWorkflowContext {
    std::string targetFolder;
    std::string previewFolder;
    std::vector<std::string> namingExamples;
    std::string referenceTimestamp; // "yyyy-MM-dd HH:mm"
};

WorkflowValue toWorkflowValue(const FolderWorkflowContext& context);

// "2026-03", "202603" (dashes anywhere are ignored): midnight on the 1st of that month,
// local time. Blank gives nothing; anything else is invalidTargetYearMonth.
std::optional<SystemTime> targetReferenceDate(const std::optional<std::string>& value);

// The names in the read folder (not hidden, sorted), else the bundle's
// data/default_naming_examples.json.
std::vector<std::string> namingExamples(const std::filesystem::path& folder,
                                        const std::filesystem::path& workflowDirectory);

// The context the "setup" step produced, else one made from the fallback staging folder,
// else "Missing folder context".
FolderWorkflowContext
folderContext(const StepOutputs& stepOutputs,
              const std::optional<std::filesystem::path>& fallbackStagingDirectory);

// The run's output folder: a step's "output_folder", else a "folder_context" target.
std::optional<std::filesystem::path> outputFolder(const StepOutputs& stepOutputs);

// "context-prepare" and "context-load". profile: the client profile as its JSON tree;
// targetYearMonth: the profile's Gmail target month, if any.
GenericScriptStepRunResult runContextPrepareStep(const std::filesystem::path& bundleDirectory,
                                                 const FlowStep& step,
                                                 const StepOutputs& stepOutputs,
                                                 const WorkflowValue& profile,
                                                 const std::optional<std::string>& targetYearMonth,
                                                 const std::filesystem::path& stagingDirectory);

// "native-file-write": copies each approved staged file to its proposed name in the
// target folder.
GenericScriptStepRunResult runNativeFileWriteStep(const FlowStep& step,
                                                  const StepOutputs& stepOutputs);

} // namespace quorlin

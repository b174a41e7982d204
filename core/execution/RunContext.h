#pragma once

#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/stores/AppSettings.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quorlin {

// All a run needs from the application, taken fresh for each call. There are no folder
// access grants to keep open here: on Linux a folder the user picked is just its path,
// which travels in environmentOverrides.
struct RunContext {
    AppSettings appSettings;
    ClientProfileDocument clientProfile;
    std::int64_t totalMinutesSaved = 0; // over all audit rows, before this run
    std::string trigger = "Manual";     // as written to the audit log
    EnvironmentOverrides environmentOverrides;
};

// What a person chose for one run besides the flow: a file for the flow's first file
// setting (a dropped file, or --input-file), and paths for folder settings by key.
struct RunChoices {
    std::optional<std::filesystem::path> inputFile;
    std::vector<std::pair<std::string, std::filesystem::path>> folders;
};

// The chosen paths, made absolute, under the environment keys the flow's steps read them
// from. A flow without a file setting, or without a folder setting of a given key, is
// refused with an Error naming the flow and what it lacks.
EnvironmentOverrides choiceOverrides(const FlowDefinition& flow, const RunChoices& choices);

} // namespace quorlin

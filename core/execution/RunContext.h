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
    ScriptErrorOutput scriptErrorOutput; // for a front end that shows scripts' logs live
};

// What a person chose for one run besides the flow: a file for the flow's first file
// setting (a dropped file, or --input-file), and paths for folder settings by key.
struct RunChoices {
    std::optional<std::filesystem::path> inputFile;
    std::vector<std::pair<std::string, std::filesystem::path>> folders;
};

// Choices that can't work, found before a run starts: a flow without a file setting, a
// folder key the flow doesn't have (the text lists those it has), an input file or a
// folder to read from that isn't there, a path that is not what its setting needs.
class RunChoiceError : public Error {
public:
    using Error::Error;
};

// Throws RunChoiceError for the first choice that can't work.
void checkRunChoices(const FlowDefinition& flow, const RunChoices& choices);

// The chosen paths, checked and made absolute, under the environment keys the flow's
// steps read them from.
EnvironmentOverrides choiceOverrides(const FlowDefinition& flow, const RunChoices& choices);

} // namespace quorlin

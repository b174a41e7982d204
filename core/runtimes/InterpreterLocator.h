#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/ScriptRuntime.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

// One place a runtime's interpreter may come from, in the order they are tried: the
// managed build under the data root first, then the launcher installed beside the
// executable ("quorlin-python", "quorlin-node"), which runs the system's interpreter.
struct InterpreterCandidate {
    enum class Source { managed, launcher };

    Source source = Source::managed;
    std::filesystem::path path; // where it is, or would be
    bool available = false;
    std::string detail; // for people: the version, or what the launcher runs
};

// Every candidate for the runtime, in order, whether it is there or not.
std::vector<InterpreterCandidate> interpreterCandidates(ScriptRuntime runtime,
                                                        const QuorlinResources& resources,
                                                        const AppSupportPaths& paths);

// The first available candidate's path: the interpreter scripts of this runtime run on.
std::optional<std::filesystem::path> chosenInterpreter(ScriptRuntime runtime,
                                                       const QuorlinResources& resources,
                                                       const AppSupportPaths& paths);

} // namespace quorlin

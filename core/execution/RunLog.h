#pragma once

#include "core/definitions/WorkflowDocument.h"
#include "core/execution/ScriptEnvelopes.h"
#include "core/foundation/LocalTime.h"
#include "core/stores/AuditRun.h"

#include <exception>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace quorlin {

using StepOutputs = std::map<std::string, WorkflowValueMap>;

struct GenericScriptStepRunResult;

// What a run has done so far: when it began, where it stages files, and what each
// finished step left behind. The driver keeps one while it runs, and it travels whole in
// the checkpoint while the run waits at its gate.
struct RunLog {
    SystemTime startedAt;
    std::filesystem::path stagingDirectory;
    PreviousOutputs previousOutputs;
    StepOutputs stepOutputs;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
    std::vector<std::string> stdoutParts;
    std::vector<std::string> stderrParts;

    // Folds a finished step's result in: its trimmed output texts, its entries in both
    // maps, its timing and its record.
    void record(const FlowStep& step, const GenericScriptStepRunResult& result);

    // The timing and record of a step that failed after starting at stepStartedAt.
    void recordFailure(const FlowStep& step, SystemTime stepStartedAt, const std::exception& error);
};

} // namespace quorlin

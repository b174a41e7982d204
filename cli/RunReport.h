#pragma once

#include "core/execution/RunSession.h"
#include "core/foundation/Json.h"
#include "core/stores/AuditRun.h"

#include <optional>
#include <string>
#include <vector>

namespace quorlin::cli {

// How a run ended, as `quorlin run` reports it.
struct RunReport {
    enum class Outcome { succeeded, failed, rejected, awaitingApproval, cancelled };

    Outcome outcome = Outcome::failed;
    std::optional<FlowRunSession> session; // the last one shown
    std::optional<AuditRun> record;        // the audit row, once written
    std::string flowID;
    std::optional<std::string> error;
    std::optional<std::string> failedStepID;
    std::optional<std::string> failedStepTitle;
    std::size_t proposalsWaiting = 0;
};

// The step that failed: the one whose record holds an error, else the first step of the
// session that didn't finish.
void findFailedStep(RunReport& report);

// The files the run delivered: the "final_files" of the last step output that has them.
std::vector<std::string> deliveredFiles(const AuditRun& record);

// A run's summary on one line: a result of several JSON lines (one per step) is summed up
// by its last line, as a one-step run would be; nothing when even that says nothing.
std::string oneLineSummary(const std::string& summary);

// A step's JSON result as short "key: value" lines; text that isn't a JSON object comes
// back as it is.
std::string readableResult(const std::string& output);

// The whole report as one JSON object, for --json.
nlohmann::json reportJson(const RunReport& report);

// The words for people: the status line, the result (the last step's output, when each
// step printed a JSON line), the folder and files, and where it
// was recorded. terminal: stdout is a terminal, so JSON results are shown as key: value.
std::string reportText(const RunReport& report, bool terminal);

} // namespace quorlin::cli

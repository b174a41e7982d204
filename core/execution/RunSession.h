#pragma once

#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/execution/ApprovalProposal.h"
#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/foundation/LocalTime.h"
#include "core/stores/AppSettings.h"
#include "core/stores/AuditRun.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
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

enum class RunStage { running, approval, filing, failed, complete };
enum class StepAccent { deterministic, llm, human };

struct LiveStepState {
    enum class Kind { running, done, waiting, pending };

    Kind kind = Kind::pending;
    double fillFraction = 0; // how full the step's bar is drawn; only while running

    static LiveStepState running(double fill) { return {Kind::running, fill}; }
    static LiveStepState done() { return {Kind::done, 0}; }
    static LiveStepState waiting() { return {Kind::waiting, 0}; }
    static LiveStepState pending() { return {Kind::pending, 0}; }

    friend bool operator==(const LiveStepState&, const LiveStepState&) = default;
};

struct LiveStep {
    std::string id;
    std::string title;
    std::string detail;
    StepAccent accent = StepAccent::deterministic;
    LiveStepState state;
    friend bool operator==(const LiveStep&, const LiveStep&) = default;
};

// The whole of what a run view shows; one per flow.
struct FlowRunSession {
    std::string flowID;
    std::string flowName;
    std::string trigger;
    std::string startedAt; // "yyyy-MM-dd HH:mm", local time
    RunStage stage = RunStage::running;
    std::string subtitle = "Initializing workflow runtime…";
    std::vector<LiveStep> liveSteps;
    std::vector<ApprovalProposal> approvalItems; // shown in stage approval
    std::string resultOutput;
    std::int64_t resultMinutes = 0;
    std::int64_t resultTotalMinutes = 0;
    std::string resultCost = "$0.00";
    std::optional<std::string> outputFolder;
    std::optional<std::string> privacyNote;
    std::optional<std::string> failureMessage;
    std::int64_t retryCount = 0; // how many retries led to this run
    bool isRetryable = false;
    friend bool operator==(const FlowRunSession&, const FlowRunSession&) = default;
};

// What the coordinator tells its caller, always on the main thread. session is set for
// sessionUpdated and failed, auditRun for auditRunRecorded.
struct RunEvent {
    enum class Kind { sessionUpdated, auditRunRecorded, failed, cancelled };

    Kind kind = Kind::cancelled;
    std::optional<FlowRunSession> session;
    std::optional<AuditRun> auditRun;

    static RunEvent sessionUpdated(FlowRunSession session) {
        return {Kind::sessionUpdated, std::move(session), std::nullopt};
    }
    static RunEvent auditRunRecorded(AuditRun run) {
        return {Kind::auditRunRecorded, std::nullopt, std::move(run)};
    }
    static RunEvent failed(FlowRunSession session) {
        return {Kind::failed, std::move(session), std::nullopt};
    }
    static RunEvent cancelled() { return {}; }
};

// A run parked at its approval gate, with what the gate proposes.
struct PreparedApprovalWorkflowRun {
    FlowDefinition workflow;
    std::string approvalStepID;
    std::size_t approvalStepIndex = 0;
    SystemTime startedAt;
    std::string trigger;
    std::vector<ApprovalProposal> approvalItems;
    double llmCostUSD = 0;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
    std::optional<std::filesystem::path> outputFolder;
    ClientProfileDocument clientProfile; // the profile the run started with, kept for filing
    GenericWorkflowApprovalCheckpoint checkpoint;
};

struct FinalizedWorkflowRun {
    AuditRun auditRun;
    std::optional<std::filesystem::path> outputFolder;
    std::vector<std::filesystem::path> finalFiles;
};

// The manual minutes one run of the workflow replaces; 0 when the workflow doesn't say.
std::int64_t minutesSavedPerRun(const FlowDefinition& workflow);

// The files a run delivered: the "final_files" of the last stdout line that is a JSON
// object with that key. A "final_files" that is not a list of texts throws DecodingError.
std::vector<std::string> finalFiles(const GenericScriptWorkflowRunResult& result);

// Runs the workflow to its gate and gathers what the gate shows: its proposals, the LLM
// cost so far and the output folder. Blocks the calling worker thread.
PreparedApprovalWorkflowRun prepareApprovalRun(GenericScriptWorkflowRunning& service,
                                               const std::string& flowID,
                                               const WorkflowRunRequest& request,
                                               const std::string& trigger);

// Runs the steps behind the gate with the approved rows and builds the run's audit row.
// request.clientProfile is replaced by the profile the run started with.
FinalizedWorkflowRun finalizeApprovedRun(GenericScriptWorkflowRunning& service,
                                         const PreparedApprovalWorkflowRun& prepared,
                                         const std::vector<ApprovalProposal>& approvedItems,
                                         WorkflowRunRequest request);

} // namespace quorlin

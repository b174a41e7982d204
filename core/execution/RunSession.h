#pragma once

#include "core/execution/ApprovalProposal.h"
#include "core/stores/AuditRun.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

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
// sessionUpdated and failed, auditRun for auditRunRecorded. waitingAtGate follows the
// session update of a run that has stopped at its approval gate: the next advance opens
// its proposals.
struct RunEvent {
    enum class Kind { sessionUpdated, auditRunRecorded, failed, cancelled, waitingAtGate };

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
    static RunEvent waitingAtGate() { return {Kind::waitingAtGate, std::nullopt, std::nullopt}; }
};

} // namespace quorlin

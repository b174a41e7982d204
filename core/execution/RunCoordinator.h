#pragma once

#include "core/definitions/WorkflowLoader.h"
#include "core/execution/ApprovalRun.h"
#include "core/execution/GenericScriptWorkflowRunning.h"
#include "core/execution/RunContext.h"
#include "core/execution/RunSession.h"
#include "core/foundation/MainExecutor.h"
#include "core/stores/AuditLogStore.h"

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace quorlin {

// Where a run enters the system. It keeps, per flow, the session the user sees, the
// worker that drives the run, the run parked at its approval gate and the caller's event
// handler, and decides every turn of a run: which session replaces which, when an audit
// row is written, what a failure looks like. Steps themselves are the driver's work.
//
// Every operation is called on the main thread and returns at once; none throws. Events
// reach the handler through the main executor, in the order they happened. The flow slots are
// touched on the main thread only: a run's worker hands its outcome back as a posted task.
//
// Destroying the coordinator stops every run and waits for its worker; a worker waiting
// for the main thread to take a progress report stops waiting as soon as its run is
// stopped, so the join cannot deadlock.
class RunCoordinator {
public:
    using EventHandler = std::function<void(const RunEvent&)>;

    RunCoordinator(std::shared_ptr<GenericScriptWorkflowRunning> service,
                   std::shared_ptr<RunAuditLog> auditStore, WorkflowLoader loader,
                   MainExecutor& mainExecutor);
    ~RunCoordinator();
    RunCoordinator(const RunCoordinator&) = delete;
    RunCoordinator& operator=(const RunCoordinator&) = delete;

    // Shows a running session and starts the run on a worker. A flow has one session: a
    // run already live for the flow is stopped and its session replaced. A start on a
    // retryable failed session counts as a retry.
    void start(const std::string& flowID, const RunContext& context, EventHandler eventHandler);
    // The same for a workflow the caller has loaded already (to build the context from
    // its settings), so the run does not read it a second time.
    void start(LoadedWorkflow workflow, const RunContext& context, EventHandler eventHandler);

    // At the gate: the first call opens the proposals, the second files the selected ones
    // as the run made them. Anything else is ignored.
    void advance(const std::string& flowID, const RunContext& context);

    // Records the rejection of every proposal and completes the run; with no run at the
    // gate it is a cancel.
    void rejectAllApprovalItems(const std::string& flowID, const RunContext& context);

    // Stops the run, forgets its session and emits cancelled, even for an unknown flow.
    void cancel(const std::string& flowID);

    // The current session of a flow, if any.
    std::optional<FlowRunSession> session(const std::string& flowID) const;
    // Whether a worker of the flow is still running or filing.
    bool isRunning(const std::string& flowID) const;

private:
    // Runs on the main thread with the worker's outcome; may throw to fail the run.
    using Completion = std::function<void(RunCoordinator&)>;
    using Operation = std::function<Completion(std::stop_token)>;

    // Everything kept for one flow.
    struct FlowSlot {
        std::optional<FlowRunSession> session;
        EventHandler eventHandler;
        std::optional<std::uint64_t> taskID; // the one worker whose outcome still counts
        std::optional<PreparedApprovalWorkflowRun> parkedRun; // the run waiting at its gate
    };

    // What a worker is handed; it touches nothing else.
    struct RunJob {
        std::shared_ptr<GenericScriptWorkflowRunning> service;
        std::shared_ptr<RunAuditLog> auditStore;
        WorkflowRunRequest request;
        std::string flowID;
        std::string trigger;
        std::int64_t totalMinutes = 0;
    };

    // Worker bodies.
    static Completion runToEnd(RunJob job, const LoadedWorkflow& workflow, std::stop_token stop);
    static Completion runToGate(RunJob job, const LoadedWorkflow& workflow, std::stop_token stop);
    static Completion fileApproved(RunJob job,
                                   const std::shared_ptr<const PreparedApprovalWorkflowRun>& parked,
                                   const std::vector<ApprovalProposal>& approved,
                                   std::stop_token stop);

    // Their completions, on the main thread.
    void completeRun(const std::string& flowID, const GenericScriptWorkflowRunResult& result,
                     const AuditRun& run, std::int64_t total, std::int64_t minutes,
                     const std::string& trigger);
    void parkAtGate(const std::string& flowID, const PreparedApprovalWorkflowRun& prepared,
                    std::int64_t total);
    void completeFiling(const std::string& flowID, const FinalizedWorkflowRun& finalized,
                        std::int64_t total);

    std::int64_t beginStart(const std::string& flowID, EventHandler eventHandler);
    void launchRun(const std::string& flowID, const std::shared_ptr<const LoadedWorkflow>& workflow,
                   const RunContext& context, std::int64_t retryCount);
    void failBeforeRun(const std::string& flowID, const RunContext& context,
                       std::int64_t retryCount, const FlowDefinition* workflow,
                       const std::string& message, const std::exception* error);
    RunJob makeJob(const std::string& flowID, std::uint64_t taskID, const RunContext& context);
    void launchRunTask(const std::string& flowID, std::uint64_t taskID, Operation operation);
    void finishRunTask(const std::string& flowID, std::uint64_t taskID,
                       const Completion& completion, const std::exception_ptr& error);
    void handleProgress(const std::string& flowID, std::uint64_t taskID,
                        const GenericScriptWorkflowProgress& progress);
    void failRunTask(const std::string& flowID, const std::exception& error);
    void recordFailureAuditRun(const std::string& flowID, const FlowRunSession& session,
                               const FlowDefinition* workflow, const std::string& message,
                               const std::exception* error);
    void storeAndEmit(const std::string& flowID, FlowRunSession session);
    void emit(const std::string& flowID, RunEvent event);
    void stopTask(const std::string& flowID);
    bool isTracked(const std::string& flowID, std::uint64_t taskID) const;

    std::shared_ptr<GenericScriptWorkflowRunning> service_;
    std::shared_ptr<RunAuditLog> auditStore_;
    WorkflowLoader loader_;
    MainExecutor& mainExecutor_;
    // Posted tasks hold it weakly, so a task that outlives the coordinator does nothing.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);

    std::map<std::string, FlowSlot> flows_;
    std::uint64_t nextTaskID_ = 1;
    // Every worker not yet reaped, the stopped ones too; declared last so they are
    // stopped and joined before anything they were given goes away.
    std::map<std::uint64_t, std::jthread> workers_;
};

} // namespace quorlin

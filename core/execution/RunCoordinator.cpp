#include "RunCoordinator.h"

#include "core/execution/GenericScriptWorkflowService.h"
#include "core/execution/RunAuditRecords.h"
#include "core/execution/RunSessionBuilder.h"
#include "core/foundation/Cancellation.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>

namespace quorlin {

namespace {

constexpr const char* unsupportedWorkflowMessage =
    "This workflow isn't wired into the generic runner or has no runnable blocks.";

LiveStep bootstrapStep() {
    return {"bootstrap", "Initialize runtime",
            "Loading workflow, runtime path, and dependency cache", StepAccent::deterministic,
            LiveStepState::running(0.35)};
}

FlowRunSession failedSession(FlowRunSession session, const std::string& message, bool retryable) {
    session.stage = RunStage::failed;
    session.subtitle = "Run failed";
    session.failureMessage = message;
    session.isRetryable = retryable;
    return session;
}

// A session for a run that never got going: only the bootstrap step to show.
FlowRunSession bootstrapFailedSession(const std::string& flowID, const std::string& flowName,
                                      const std::string& trigger, std::int64_t totalMinutes) {
    FlowRunSession session;
    session.flowID = flowID;
    session.flowName = flowName;
    session.trigger = trigger;
    session.startedAt = formatLocalMinute(std::chrono::system_clock::now());
    session.liveSteps = {bootstrapStep()};
    session.resultTotalMinutes = totalMinutes;
    return session;
}

std::string withoutRunning(std::string subtitle) {
    const std::string running = "Running \u00b7 ";
    for (auto at = subtitle.find(running); at != std::string::npos; at = subtitle.find(running)) {
        subtitle.erase(at, running.size());
    }
    return subtitle;
}

void removeStagingDirectory(const PreparedApprovalWorkflowRun& prepared) {
    std::error_code ignored; // a leftover staging folder harms nothing but disk space
    std::filesystem::remove_all(prepared.checkpoint.stagingDirectory, ignored);
}

} // namespace

RunCoordinator::RunCoordinator(std::shared_ptr<GenericScriptWorkflowRunning> service,
                               std::shared_ptr<AuditLogWriting> auditStore, WorkflowLoader loader,
                               MainExecutor& mainExecutor)
    : service_(std::move(service)), auditStore_(std::move(auditStore)), loader_(std::move(loader)),
      mainExecutor_(mainExecutor) {}

RunCoordinator::~RunCoordinator() {
    // Stop them all first so they wind down together, then join.
    for (auto& [taskID, worker] : workers_) {
        worker.request_stop();
    }
    workers_.clear();
}

void RunCoordinator::start(const std::string& flowID, RunContext context,
                           EventHandler eventHandler) {
    eventHandlers_[flowID] = std::move(eventHandler);
    std::int64_t retryCount = 0;
    if (const auto found = sessions_.find(flowID); found != sessions_.end() &&
                                                   found->second.stage == RunStage::failed &&
                                                   found->second.isRetryable) {
        retryCount = found->second.retryCount + 1;
    }
    // A new start replaces whatever the flow was doing.
    stopTask(flowID);

    WorkflowDocument document;
    try {
        document = loader_.loadAvailableWorkflow(flowID);
    } catch (const std::exception& error) {
        failBeforeRun(flowID, context, retryCount, nullptr, "Workflow not found: " + flowID,
                      &error);
        return;
    }
    const FlowDefinition& workflow = document.flow;
    const auto& supported = GenericScriptWorkflowService::supportedStepTypes();
    if (std::any_of(workflow.steps.begin(), workflow.steps.end(),
                    [&](const FlowStep& step) { return !supported.contains(step.type); })) {
        failBeforeRun(flowID, context, retryCount, &workflow, unsupportedWorkflowMessage, nullptr);
        return;
    }

    auto session = RunSessionBuilder::makeGenericScriptRunningSession(
        workflow, context.totalMinutesSaved, context.trigger);
    session.retryCount = retryCount;
    if (retryCount >= 1 && session.stage == RunStage::running) {
        session.subtitle = "Retrying \u00b7 " + withoutRunning(session.subtitle);
    }
    storeAndEmit(flowID, session);

    const std::uint64_t taskID = nextTaskID_++;
    auto request = makeRequest(flowID, taskID, context);
    const auto total = context.totalMinutesSaved;
    const auto trigger = context.trigger;
    const bool gated =
        std::any_of(workflow.steps.begin(), workflow.steps.end(),
                    [](const FlowStep& step) { return step.type == "batch-approval"; });
    if (gated) {
        launchRunTask(flowID, taskID,
                      [service = service_, request, flowID, trigger,
                       total](const std::stop_token& stop) mutable -> Completion {
                          request.stopToken = stop;
                          auto prepared = std::make_shared<const PreparedApprovalWorkflowRun>(
                              prepareApprovalRun(*service, flowID, request, trigger));
                          return [flowID, prepared, total](RunCoordinator& self) {
                              // No audit row at the gate: the run isn't over.
                              self.preparedApprovalRuns_[flowID] = *prepared;
                              self.storeAndEmit(
                                  flowID,
                                  RunSessionBuilder::makeApprovalWaitingSession(*prepared, total));
                          };
                      });
        return;
    }
    const auto minutes = minutesSavedPerRun(workflow);
    launchRunTask(flowID, taskID,
                  [service = service_, audit = auditStore_, request, flowID, trigger, total,
                   minutes](const std::stop_token& stop) mutable -> Completion {
                      request.stopToken = stop;
                      const auto result = service->run(flowID, request);
                      const auto run = successAuditRun(result, minutes, trigger);
                      // A row that can't be written fails the run, though its steps went through.
                      audit->append(run);
                      return [flowID, result, run, total, minutes, trigger](RunCoordinator& self) {
                          self.emit(flowID, RunEvent::auditRunRecorded(run));
                          self.storeAndEmit(flowID,
                                            RunSessionBuilder::makeGenericScriptCompletedSession(
                                                result, total, minutes, trigger));
                      };
                  });
}

void RunCoordinator::advance(const std::string& flowID, const RunContext& context) {
    const auto prepared = preparedApprovalRuns_.find(flowID);
    const auto session = sessions_.find(flowID);
    if (prepared == preparedApprovalRuns_.end() || session == sessions_.end()) {
        return;
    }
    const auto total = context.totalMinutesSaved;
    if (session->second.stage == RunStage::running) {
        storeAndEmit(flowID, RunSessionBuilder::makeApprovalSession(prepared->second, total));
        return;
    }
    if (session->second.stage != RunStage::approval) {
        return;
    }
    // The rows as the run proposed them: edits made in a front end's copy of the session
    // never reach the coordinator.
    std::vector<ApprovalProposal> approved;
    for (const auto& item : session->second.approvalItems) {
        if (item.isSelected) {
            approved.push_back(item);
        }
    }
    auto parked = std::make_shared<const PreparedApprovalWorkflowRun>(prepared->second);
    storeAndEmit(flowID, RunSessionBuilder::makeFilingSession(*parked, total));

    const std::uint64_t taskID = nextTaskID_++;
    launchRunTask(
        flowID, taskID,
        [service = service_, audit = auditStore_, request = makeRequest(flowID, taskID, context),
         parked, approved, flowID, total](const std::stop_token& stop) mutable -> Completion {
            request.stopToken = stop;
            auto finalized = finalizeApprovedRun(*service, *parked, approved, request);
            audit->append(finalized.auditRun);
            return [flowID, finalized, parked, total](RunCoordinator& self) {
                self.emit(flowID, RunEvent::auditRunRecorded(finalized.auditRun));
                removeStagingDirectory(*parked);
                self.preparedApprovalRuns_.erase(flowID);
                self.storeAndEmit(flowID,
                                  RunSessionBuilder::makeCompletedSession(finalized, total));
            };
        });
}

void RunCoordinator::rejectAllApprovalItems(const std::string& flowID, const RunContext& context) {
    const auto prepared = preparedApprovalRuns_.find(flowID);
    const auto session = sessions_.find(flowID);
    if (prepared == preparedApprovalRuns_.end() || session == sessions_.end()) {
        cancel(flowID);
        return;
    }
    // Filing work still under way would otherwise complete the run a second time.
    stopTask(flowID);
    auto rejected = session->second.approvalItems;
    for (auto& item : rejected) {
        item.isSelected = false;
    }
    const auto run =
        rejectionAuditRun(prepared->second, rejected, std::chrono::system_clock::now());
    try {
        auditStore_->append(run);
    } catch (const std::exception& error) {
        // The parked run stays, so the user may try again.
        auto failed = failedSession(session->second, error.what(), true);
        storeAndEmit(flowID, failed);
        emit(flowID, RunEvent::failed(std::move(failed)));
        return;
    }
    emit(flowID, RunEvent::auditRunRecorded(run));
    const FinalizedWorkflowRun finalized{run, prepared->second.outputFolder, {}};
    removeStagingDirectory(prepared->second);
    preparedApprovalRuns_.erase(prepared);
    storeAndEmit(flowID,
                 RunSessionBuilder::makeCompletedSession(finalized, context.totalMinutesSaved));
}

void RunCoordinator::cancel(const std::string& flowID) {
    stopTask(flowID);
    if (const auto prepared = preparedApprovalRuns_.find(flowID);
        prepared != preparedApprovalRuns_.end()) {
        removeStagingDirectory(prepared->second);
        preparedApprovalRuns_.erase(prepared);
    }
    sessions_.erase(flowID);
    emit(flowID, RunEvent::cancelled());
    // Only now, so the handler still hears the cancel.
    eventHandlers_.erase(flowID);
}

std::optional<FlowRunSession> RunCoordinator::session(const std::string& flowID) const {
    const auto found = sessions_.find(flowID);
    return found == sessions_.end() ? std::nullopt : std::optional(found->second);
}

bool RunCoordinator::isRunning(const std::string& flowID) const {
    return runTasks_.contains(flowID);
}

void RunCoordinator::failBeforeRun(const std::string& flowID, const RunContext& context,
                                   std::int64_t retryCount, const FlowDefinition* workflow,
                                   const std::string& message, const std::exception* error) {
    auto session = bootstrapFailedSession(flowID, workflow != nullptr ? workflow->name : flowID,
                                          context.trigger, context.totalMinutesSaved);
    session.retryCount = retryCount;
    session = failedSession(std::move(session), message, false);
    storeAndEmit(flowID, session);
    recordFailureAuditRun(flowID, session, workflow, message, error);
    emit(flowID, RunEvent::failed(session));
}

WorkflowRunRequest RunCoordinator::makeRequest(const std::string& flowID, std::uint64_t taskID,
                                               const RunContext& context) {
    WorkflowRunRequest request;
    request.settings = context.appSettings;
    request.clientProfile = context.clientProfile;
    request.environmentOverrides = context.environmentOverrides;
    // The driver calls this on the main thread.
    request.progress = [this, alive = std::weak_ptr<int>(alive_), flowID,
                        taskID](const GenericScriptWorkflowProgress& progress) {
        if (alive.lock()) {
            handleProgress(flowID, taskID, progress);
        }
    };
    return request;
}

void RunCoordinator::launchRunTask(const std::string& flowID, std::uint64_t taskID,
                                   Operation operation) {
    stopTask(flowID);
    runTasks_[flowID] = taskID;
    workers_.emplace(
        taskID,
        std::jthread([this, alive = std::weak_ptr<int>(alive_), &executor = mainExecutor_, flowID,
                      taskID, operation = std::move(operation)](std::stop_token stop) {
            Completion completion;
            std::exception_ptr error;
            try {
                completion = operation(stop);
            } catch (...) {
                error = std::current_exception();
            }
            // The worker touches no coordinator state: its outcome goes back as a task.
            executor.post([this, alive, flowID, taskID, completion = std::move(completion), error] {
                if (alive.lock()) {
                    finishRunTask(flowID, taskID, completion, error);
                }
            });
        }));
}

void RunCoordinator::finishRunTask(const std::string& flowID, std::uint64_t taskID,
                                   const Completion& completion, std::exception_ptr error) {
    if (const auto worker = workers_.find(taskID); worker != workers_.end()) {
        // Posting this task was the worker's last act, so the join ends at once.
        worker->second.join();
        workers_.erase(worker);
    }
    const auto tracked = runTasks_.find(flowID);
    if (tracked == runTasks_.end() || tracked->second != taskID) {
        return; // cancelled or replaced: its outcome no longer matters
    }
    runTasks_.erase(tracked);
    try {
        if (error) {
            std::rethrow_exception(error);
        }
        completion(*this);
    } catch (const CancellationError&) {
        // Stopped by the run itself noticing a stop; nothing to show or record.
    } catch (const std::exception& failure) {
        failRunTask(flowID, failure);
    } catch (...) {
        failRunTask(flowID, Error("The run failed with an unknown error."));
    }
}

void RunCoordinator::handleProgress(const std::string& flowID, std::uint64_t taskID,
                                    const GenericScriptWorkflowProgress& progress) {
    const auto tracked = runTasks_.find(flowID);
    const auto session = sessions_.find(flowID);
    if (tracked == runTasks_.end() || tracked->second != taskID || session == sessions_.end() ||
        session->second.stage != RunStage::running) {
        return;
    }
    storeAndEmit(flowID, RunSessionBuilder::applyGenericScriptProgress(session->second, progress));
}

void RunCoordinator::failRunTask(const std::string& flowID, const std::exception& error) {
    runTasks_.erase(flowID);
    const std::string message = error.what();
    const auto found = sessions_.find(flowID);
    // The steps stay as they stood when the run failed.
    auto session = found != sessions_.end() ? found->second
                                            : bootstrapFailedSession(flowID, flowID, "Manual", 0);
    session = failedSession(std::move(session), message, true);
    storeAndEmit(flowID, session);
    recordFailureAuditRun(flowID, session, nullptr, message, &error);
    emit(flowID, RunEvent::failed(session));
}

void RunCoordinator::recordFailureAuditRun(const std::string& flowID, const FlowRunSession& session,
                                           const FlowDefinition* workflow,
                                           const std::string& message,
                                           const std::exception* error) {
    const auto run = failureAuditRun(session, workflow, message, error);
    try {
        auditStore_->append(run);
    } catch (const std::exception&) {
        // The session already shows the failure; a failed run without its row is accepted
        // rather than failing the failure.
        return;
    }
    emit(flowID, RunEvent::auditRunRecorded(run));
}

void RunCoordinator::storeAndEmit(const std::string& flowID, FlowRunSession session) {
    sessions_[flowID] = session;
    emit(flowID, RunEvent::sessionUpdated(std::move(session)));
}

void RunCoordinator::emit(const std::string& flowID, RunEvent event) {
    const auto handler = eventHandlers_.find(flowID);
    if (handler == eventHandlers_.end()) {
        return;
    }
    // Posted rather than called, so a handler may call back into the coordinator.
    mainExecutor_.post(
        [alive = std::weak_ptr<int>(alive_), handler = handler->second, event = std::move(event)] {
            if (alive.lock()) {
                handler(event);
            }
        });
}

void RunCoordinator::stopTask(const std::string& flowID) {
    const auto tracked = runTasks_.find(flowID);
    if (tracked == runTasks_.end()) {
        return;
    }
    // Nothing waits here: the worker reaps itself through finishRunTask.
    if (const auto worker = workers_.find(tracked->second); worker != workers_.end()) {
        worker->second.request_stop();
    }
    runTasks_.erase(tracked);
}

} // namespace quorlin

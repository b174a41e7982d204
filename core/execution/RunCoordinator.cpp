#include "RunCoordinator.h"

#include "core/definitions/StepTypes.h"
#include "core/execution/RunAuditRecords.h"
#include "core/execution/RunResults.h"
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

// A workflow that isn't there is "not found"; one that is there but can't be read says why.
std::string loadFailureMessage(const std::string& flowID, const std::exception& error) {
    const auto* loader = dynamic_cast<const WorkflowLoaderError*>(&error);
    if (loader != nullptr && loader->kind() == WorkflowLoaderError::Kind::workflowNotFound) {
        return "Workflow not found: " + flowID;
    }
    return "Workflow " + flowID + " could not be loaded: " + error.what();
}

void removeStagingDirectory(const PreparedApprovalWorkflowRun& prepared) {
    std::error_code ignored; // a leftover staging folder harms nothing but disk space
    std::filesystem::remove_all(prepared.checkpoint.log.stagingDirectory, ignored);
}

} // namespace

RunCoordinator::RunCoordinator(std::shared_ptr<GenericScriptWorkflowRunning> service,
                               std::shared_ptr<RunAuditLog> auditStore, WorkflowLoader loader,
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

void RunCoordinator::start(const std::string& flowID, const RunContext& context,
                           EventHandler eventHandler) {
    const auto retryCount = beginStart(flowID, std::move(eventHandler));
    std::shared_ptr<const LoadedWorkflow> workflow;
    try {
        workflow = std::make_shared<const LoadedWorkflow>(loader_.loadRunnableWorkflow(flowID));
    } catch (const std::exception& error) {
        failBeforeRun(flowID, context, retryCount, nullptr, loadFailureMessage(flowID, error),
                      &error);
        return;
    }
    launchRun(flowID, workflow, context, retryCount);
}

void RunCoordinator::start(LoadedWorkflow workflow, const RunContext& context,
                           EventHandler eventHandler) {
    const std::string flowID = workflow.reference.flowID;
    const auto retryCount = beginStart(flowID, std::move(eventHandler));
    launchRun(flowID, std::make_shared<const LoadedWorkflow>(std::move(workflow)), context,
              retryCount);
}

// Takes the handler and stops whatever the flow was doing; returns the retry count of
// the new run.
std::int64_t RunCoordinator::beginStart(const std::string& flowID, EventHandler eventHandler) {
    FlowSlot& slot = flows_[flowID];
    slot.eventHandler = std::move(eventHandler);
    std::int64_t retryCount = 0;
    if (slot.session && slot.session->stage == RunStage::failed && slot.session->isRetryable) {
        retryCount = slot.session->retryCount + 1;
    }
    stopTask(flowID);
    return retryCount;
}

void RunCoordinator::launchRun(const std::string& flowID,
                               const std::shared_ptr<const LoadedWorkflow>& workflow,
                               const RunContext& context, std::int64_t retryCount) {
    const FlowDefinition& flow = workflow->flow();
    const auto& supported = service_->supportedStepTypes();
    if (std::any_of(flow.steps.begin(), flow.steps.end(),
                    [&](const FlowStep& step) { return !supported.contains(step.type); })) {
        failBeforeRun(flowID, context, retryCount, &flow, unsupportedWorkflowMessage, nullptr);
        return;
    }

    auto session = RunSessionBuilder::makeGenericScriptRunningSession(
        flow, context.totalMinutesSaved, context.trigger);
    storeAndEmit(flowID, RunSessionBuilder::markedAsRetry(std::move(session), retryCount));

    const std::uint64_t taskID = nextTaskID_++;
    const bool gated = std::any_of(flow.steps.begin(), flow.steps.end(), [](const FlowStep& step) {
        return step.type == stepType::batchApproval;
    });
    const auto body = gated ? &RunCoordinator::runToGate : &RunCoordinator::runToEnd;
    launchRunTask(flowID, taskID,
                  [body, job = makeJob(flowID, taskID, context), workflow](std::stop_token stop) {
                      return body(job, *workflow, std::move(stop));
                  });
}

void RunCoordinator::completeRun(const std::string& flowID,
                                 const GenericScriptWorkflowRunResult& result, const AuditRun& run,
                                 std::int64_t total, std::int64_t minutes,
                                 const std::string& trigger) {
    emit(flowID, RunEvent::auditRunRecorded(run));
    storeAndEmit(flowID, RunSessionBuilder::makeGenericScriptCompletedSession(result, total,
                                                                              minutes, trigger));
}

void RunCoordinator::parkAtGate(const std::string& flowID,
                                const PreparedApprovalWorkflowRun& prepared, std::int64_t total) {
    flows_[flowID].parkedRun = prepared;
    storeAndEmit(flowID, RunSessionBuilder::makeApprovalWaitingSession(prepared, total));
    emit(flowID, RunEvent::waitingAtGate());
}

void RunCoordinator::completeFiling(const std::string& flowID,
                                    const FinalizedWorkflowRun& finalized, std::int64_t total) {
    emit(flowID, RunEvent::auditRunRecorded(finalized.auditRun));
    FlowSlot& slot = flows_[flowID];
    if (slot.parkedRun) {
        removeStagingDirectory(*slot.parkedRun);
        slot.parkedRun.reset();
    }
    storeAndEmit(flowID, RunSessionBuilder::makeCompletedSession(finalized, total));
}

void RunCoordinator::advance(const std::string& flowID, const RunContext& context) {
    const auto found = flows_.find(flowID);
    if (found == flows_.end() || !found->second.parkedRun || !found->second.session) {
        return;
    }
    const FlowSlot& slot = found->second;
    const auto total = context.totalMinutesSaved;
    if (slot.session->stage == RunStage::running) {
        storeAndEmit(flowID, RunSessionBuilder::makeApprovalSession(*slot.parkedRun, total));
        return;
    }
    if (slot.session->stage != RunStage::approval) {
        return;
    }
    // The rows as the run proposed them: edits made in a front end's copy of the session
    // never reach the coordinator.
    std::vector<ApprovalProposal> approved;
    for (const auto& item : slot.session->approvalItems) {
        if (item.isSelected) {
            approved.push_back(item);
        }
    }
    auto parked = std::make_shared<const PreparedApprovalWorkflowRun>(*slot.parkedRun);
    storeAndEmit(flowID, RunSessionBuilder::makeFilingSession(*parked, total));

    const std::uint64_t taskID = nextTaskID_++;
    launchRunTask(flowID, taskID,
                  [job = makeJob(flowID, taskID, context), parked, approved](std::stop_token stop) {
                      return fileApproved(job, parked, approved, std::move(stop));
                  });
}

void RunCoordinator::rejectAllApprovalItems(const std::string& flowID, const RunContext& context) {
    const auto found = flows_.find(flowID);
    if (found == flows_.end() || !found->second.parkedRun || !found->second.session) {
        cancel(flowID);
        return;
    }
    FlowSlot& slot = found->second;
    // Filing work still under way would otherwise complete the run a second time.
    stopTask(flowID);
    auto rejected = slot.session->approvalItems;
    for (auto& item : rejected) {
        item.isSelected = false;
    }
    const auto run = rejectionAuditRun(*slot.parkedRun, rejected, std::chrono::system_clock::now());
    try {
        auditStore_->append(run);
    } catch (const std::exception& error) {
        // The parked run stays, so the user may try again.
        auto failed = RunSessionBuilder::makeFailedSession(*slot.session, error.what(), true);
        storeAndEmit(flowID, failed);
        emit(flowID, RunEvent::failed(std::move(failed)));
        return;
    }
    emit(flowID, RunEvent::auditRunRecorded(run));
    const FinalizedWorkflowRun finalized{run, slot.parkedRun->outputFolder, {}};
    removeStagingDirectory(*slot.parkedRun);
    slot.parkedRun.reset();
    storeAndEmit(flowID,
                 RunSessionBuilder::makeCompletedSession(finalized, context.totalMinutesSaved));
}

void RunCoordinator::cancel(const std::string& flowID) {
    stopTask(flowID);
    if (const auto found = flows_.find(flowID); found != flows_.end() && found->second.parkedRun) {
        removeStagingDirectory(*found->second.parkedRun);
    }
    emit(flowID, RunEvent::cancelled());
    // Only now, so the handler still hears the cancel.
    flows_.erase(flowID);
}

std::optional<FlowRunSession> RunCoordinator::session(const std::string& flowID) const {
    const auto found = flows_.find(flowID);
    return found == flows_.end() ? std::nullopt : found->second.session;
}

bool RunCoordinator::isRunning(const std::string& flowID) const {
    const auto found = flows_.find(flowID);
    return found != flows_.end() && found->second.taskID.has_value();
}

void RunCoordinator::failBeforeRun(const std::string& flowID, const RunContext& context,
                                   std::int64_t retryCount, const FlowDefinition* workflow,
                                   const std::string& message, const std::exception* error) {
    auto session = RunSessionBuilder::makeBootstrapFailedSession(
        flowID, workflow != nullptr ? workflow->name : flowID, context.trigger,
        context.totalMinutesSaved);
    session.retryCount = retryCount;
    session = RunSessionBuilder::makeFailedSession(std::move(session), message, false);
    storeAndEmit(flowID, session);
    recordFailureAuditRun(flowID, session, workflow, message, error);
    emit(flowID, RunEvent::failed(session));
}

void RunCoordinator::failRunTask(const std::string& flowID, const std::exception& error) {
    FlowSlot& slot = flows_[flowID];
    slot.taskID.reset();
    const std::string message = error.what();
    // The steps stay as they stood when the run failed.
    auto session = slot.session
                       ? *slot.session
                       : RunSessionBuilder::makeBootstrapFailedSession(flowID, flowID, "Manual", 0);
    session = RunSessionBuilder::makeFailedSession(std::move(session), message, true);
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
    flows_[flowID].session = session;
    emit(flowID, RunEvent::sessionUpdated(std::move(session)));
}

void RunCoordinator::emit(const std::string& flowID, RunEvent event) {
    const auto found = flows_.find(flowID);
    if (found == flows_.end() || !found->second.eventHandler) {
        return;
    }
    // Posted rather than called, so a handler may call back into the coordinator.
    mainExecutor_.post([alive = std::weak_ptr<int>(alive_), handler = found->second.eventHandler,
                        event = std::move(event)] {
        if (alive.lock()) {
            handler(event);
        }
    });
}

} // namespace quorlin

// The coordinator's worker side: what each worker runs, and the bookkeeping that ties a
// worker's outcome back to its flow on the main thread.
#include "RunCoordinator.h"
#include "core/execution/RunAuditRecords.h"
#include "core/execution/RunResults.h"
#include "core/execution/RunSessionBuilder.h"
#include "core/foundation/Cancellation.h"
#include "core/foundation/LocalTime.h"

#include <chrono>
#include <tuple>

namespace quorlin {

namespace {

void appendOrSayWhich(RunAuditLog& store, const AuditRun& run) {
    try {
        store.append(run);
    } catch (const std::exception& error) {
        throw RunNotRecordedError(run, error);
    }
}

} // namespace

RunCoordinator::Completion RunCoordinator::runToEnd(RunJob job, const LoadedWorkflow& workflow,
                                                    std::stop_token stop) {
    job.request.stopToken = std::move(stop);
    const auto minutes = minutesSavedPerRun(workflow.flow());
    const auto result = job.service->run(workflow, job.request);
    const auto run = successAuditRun(result, minutes, job.trigger);
    // A row that can't be written fails the run, though its steps went through.
    appendOrSayWhich(*job.auditStore, run);
    return [job, result, run, minutes](RunCoordinator& self) {
        self.completeRun(job.flowID, result, run, job.totalMinutes, minutes, job.trigger);
    };
}

RunCoordinator::Completion RunCoordinator::runToGate(RunJob job, const LoadedWorkflow& workflow,
                                                     std::stop_token stop) {
    job.request.stopToken = std::move(stop);
    auto prepared = std::make_shared<const PreparedApprovalWorkflowRun>(
        prepareApprovalRun(*job.service, workflow, job.request, job.trigger));
    // No audit row at the gate: the run isn't over.
    return [job, prepared](RunCoordinator& self) {
        self.parkAtGate(job.flowID, *prepared, job.totalMinutes);
    };
}

RunCoordinator::Completion
RunCoordinator::fileApproved(RunJob job,
                             const std::shared_ptr<const PreparedApprovalWorkflowRun>& parked,
                             const std::vector<ApprovalProposal>& approved, std::stop_token stop) {
    job.request.stopToken = std::move(stop);
    auto finalized = finalizeApprovedRun(*job.service, *parked, approved, job.request);
    appendOrSayWhich(*job.auditStore, finalized.auditRun);
    return [job, finalized](RunCoordinator& self) {
        self.completeFiling(job.flowID, finalized, job.totalMinutes);
    };
}

RunCoordinator::RunJob RunCoordinator::makeJob(const std::string& flowID, std::uint64_t taskID,
                                               const RunContext& context) {
    RunJob job{service_, auditStore_, {}, flowID, context.trigger, context.totalMinutesSaved};
    job.request.settings = context.appSettings;
    job.request.clientProfile = context.clientProfile;
    job.request.environmentOverrides = context.environmentOverrides;
    job.request.scriptErrorOutput = context.scriptErrorOutput;
    job.request.recordedLLMSpendThisMonthUSD = [store = auditStore_] {
        AuditRunQuery thisMonth;
        std::tie(thisMonth.since, thisMonth.until) =
            localMonthBounds(std::chrono::system_clock::now());
        return store->llmSpendUSD(thisMonth);
    };
    // The driver calls this on the main thread.
    job.request.progress = [this, alive = std::weak_ptr<int>(alive_), flowID,
                            taskID](const GenericScriptWorkflowProgress& progress) {
        if (alive.lock()) {
            handleProgress(flowID, taskID, progress);
        }
    };
    return job;
}

void RunCoordinator::launchRunTask(const std::string& flowID, std::uint64_t taskID,
                                   Operation operation) {
    stopTask(flowID);
    flows_[flowID].taskID = taskID;
    workers_.emplace(
        taskID,
        std::jthread([this, alive = std::weak_ptr<int>(alive_), &executor = mainExecutor_, flowID,
                      taskID, operation = std::move(operation)](std::stop_token stop) {
            Completion completion;
            std::exception_ptr error;
            try {
                completion = operation(std::move(stop));
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
                                   const Completion& completion, const std::exception_ptr& error) {
    if (const auto worker = workers_.find(taskID); worker != workers_.end()) {
        // Posting this task was the worker's last act, so the join ends at once.
        worker->second.join();
        workers_.erase(worker);
    }
    if (!isTracked(flowID, taskID)) {
        return; // cancelled or replaced: its outcome no longer matters
    }
    flows_[flowID].taskID.reset();
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
    if (!isTracked(flowID, taskID)) {
        return;
    }
    const auto& session = flows_[flowID].session;
    if (!session || session->stage != RunStage::running) {
        return;
    }
    storeAndEmit(flowID, RunSessionBuilder::applyGenericScriptProgress(*session, progress));
}

bool RunCoordinator::isTracked(const std::string& flowID, std::uint64_t taskID) const {
    const auto found = flows_.find(flowID);
    return found != flows_.end() && found->second.taskID == taskID;
}

void RunCoordinator::stopTask(const std::string& flowID) {
    const auto found = flows_.find(flowID);
    if (found == flows_.end() || !found->second.taskID) {
        return;
    }
    // Nothing waits here: the worker reaps itself through finishRunTask.
    if (const auto worker = workers_.find(*found->second.taskID); worker != workers_.end()) {
        worker->second.request_stop();
    }
    found->second.taskID.reset();
}

} // namespace quorlin

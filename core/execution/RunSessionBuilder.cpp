#include "RunSessionBuilder.h"

#include "core/execution/RunResults.h"
#include "core/foundation/Text.h"

#include <chrono>
#include <cstdio>

namespace quorlin::RunSessionBuilder {

namespace {

constexpr const char* separator = " \u00b7 ";

// value with the given count of decimals, rounded as printf rounds.
std::string withDecimals(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return buffer;
}

std::string cost(double usd) {
    return "$" + withDecimals(usd, 2);
}
std::string seconds(double value) {
    return withDecimals(value, 1) + "s";
}

std::string stepTitle(std::size_t index, const std::string& name) {
    return std::to_string(index + 1) + ". " + name;
}

std::string nowMinute() {
    return formatLocalMinute(std::chrono::system_clock::now());
}

std::string runningSubtitle(std::size_t done, std::size_t total, const std::string& tail) {
    return std::string("Running") + separator + std::to_string(done) + " / " +
           std::to_string(total) + " steps complete" + separator + tail;
}

bool hasLLMRole(const std::optional<WorkflowValueMap>& map) {
    return map && map->contains("llm_role");
}

std::string stepDuration(const FlowStep& step, const PreparedApprovalWorkflowRun& prepared) {
    for (const auto& timing : prepared.stepTimings) {
        if (timing.stepID == step.id) {
            return seconds(timing.durationSeconds);
        }
    }
    return "-";
}

LiveStep liveStep(std::size_t index, const FlowStep& step, std::string detail,
                  LiveStepState state) {
    return {step.id, stepTitle(index, step.name), std::move(detail), stepAccent(step), state};
}

// The fields the three sessions of a parked run share.
FlowRunSession preparedSession(const PreparedApprovalWorkflowRun& prepared, RunStage stage,
                               std::int64_t totalMinutesSaved) {
    FlowRunSession session;
    session.flowID = prepared.workflow.id;
    session.flowName = prepared.workflow.name;
    session.trigger = prepared.trigger;
    session.startedAt = formatLocalMinute(prepared.startedAt);
    session.stage = stage;
    session.resultMinutes = minutesSavedPerRun(prepared.workflow);
    session.resultTotalMinutes = totalMinutesSaved + session.resultMinutes;
    session.resultCost = cost(prepared.llmCostUSD);
    if (prepared.outputFolder) {
        session.outputFolder = prepared.outputFolder->string();
    }
    session.resultOutput = std::to_string(prepared.approvalItems.size()) + " items";
    return session;
}

std::string completedSubtitle(double durationSeconds) {
    return std::string("Run complete") + separator + seconds(durationSeconds) + " total";
}

LiveStep bootstrapStep() {
    return {"bootstrap", "Initialize runtime",
            "Loading workflow, runtime path, and dependency cache", StepAccent::deterministic,
            LiveStepState::running(0.35)};
}

std::string withoutRunning(std::string subtitle) {
    const std::string running = "Running \u00b7 ";
    for (auto at = subtitle.find(running); at != std::string::npos; at = subtitle.find(running)) {
        subtitle.erase(at, running.size());
    }
    return subtitle;
}

} // namespace

StepAccent stepAccent(const FlowStep& step) {
    if (step.type.find("approval") != std::string::npos ||
        step.type.find("review") != std::string::npos) {
        return StepAccent::human;
    }
    if (step.type.find("llm") != std::string::npos || hasLLMRole(step.config) ||
        hasLLMRole(step.action)) {
        return StepAccent::llm;
    }
    return StepAccent::deterministic;
}

FlowRunSession makeGenericScriptRunningSession(const FlowDefinition& workflow,
                                               std::int64_t totalMinutesSaved,
                                               const std::string& trigger) {
    FlowRunSession session;
    session.flowID = workflow.id;
    session.flowName = workflow.name;
    session.trigger = trigger;
    session.startedAt = nowMinute();
    session.stage = RunStage::running;
    session.subtitle = runningSubtitle(0, workflow.steps.size(), "script workflow");
    for (std::size_t i = 0; i < workflow.steps.size(); ++i) {
        const auto& step = workflow.steps[i];
        session.liveSteps.push_back(liveStep(
            i, step, step.type, i == 0 ? LiveStepState::running(0.35) : LiveStepState::pending()));
    }
    session.resultTotalMinutes = totalMinutesSaved;
    return session;
}

FlowRunSession applyGenericScriptProgress(FlowRunSession session,
                                          const GenericScriptWorkflowProgress& progress) {
    std::size_t done = 0;
    for (std::size_t i = 0; i < session.liveSteps.size(); ++i) {
        auto& step = session.liveSteps[i];
        if (i < progress.stepIndex) {
            step.detail = "Done";
            step.state = LiveStepState::done();
        } else if (i > progress.stepIndex) {
            step.state = LiveStepState::pending();
        } else if (progress.state == GenericScriptWorkflowProgressState::running) {
            step.detail = "Running";
            step.state = LiveStepState::running(0.55);
        } else {
            step.detail = progress.durationSeconds
                              ? std::string("Done") + separator + seconds(*progress.durationSeconds)
                              : "Done";
            step.state = LiveStepState::done();
        }
        if (step.state.kind == LiveStepState::Kind::done) {
            ++done;
        }
    }
    session.subtitle = runningSubtitle(
        done, progress.totalSteps, done < progress.totalSteps ? "script workflow" : "finalizing");
    return session;
}

FlowRunSession makeApprovalWaitingSession(const PreparedApprovalWorkflowRun& prepared,
                                          std::int64_t totalMinutesSaved) {
    auto session = preparedSession(prepared, RunStage::running, totalMinutesSaved);
    const auto& steps = prepared.workflow.steps;
    const std::size_t gate = prepared.approvalStepIndex;
    session.subtitle = runningSubtitle(gate, steps.size(), "waiting for approval");
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (i < gate) {
            session.liveSteps.push_back(liveStep(
                i, steps[i], std::string("Done") + separator + stepDuration(steps[i], prepared),
                LiveStepState::done()));
        } else if (i == gate) {
            session.liveSteps.push_back(liveStep(i, steps[i], "Next step opens the proposals table",
                                                 LiveStepState::waiting()));
        } else {
            session.liveSteps.push_back(
                liveStep(i, steps[i], "Waiting for approval", LiveStepState::pending()));
        }
    }
    session.privacyNote =
        "Paused at the human-approval gate; remaining workflow steps run after approval.";
    return session;
}

FlowRunSession makeApprovalSession(const PreparedApprovalWorkflowRun& prepared,
                                   std::int64_t totalMinutesSaved) {
    auto session = preparedSession(prepared, RunStage::approval, totalMinutesSaved);
    session.subtitle = std::string("Review proposals") + separator +
                       std::to_string(prepared.approvalItems.size()) + " items" + separator +
                       "approve all or edit individually";
    session.approvalItems = prepared.approvalItems;
    session.privacyNote = "Post-approval workflow steps run on the next click and may write "
                          "locally or call external services per workflow permissions.";
    return session;
}

FlowRunSession makeFilingSession(const PreparedApprovalWorkflowRun& prepared,
                                 std::int64_t totalMinutesSaved) {
    auto session = preparedSession(prepared, RunStage::filing, totalMinutesSaved);
    const auto& steps = prepared.workflow.steps;
    const std::size_t gate = prepared.approvalStepIndex;
    const auto remaining =
        static_cast<std::int64_t>(steps.size()) - static_cast<std::int64_t>(gate) - 1;
    session.subtitle = std::string("Post-approval steps running") + separator +
                       std::to_string(remaining) + " steps remaining";
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (i < gate) {
            session.liveSteps.push_back(liveStep(
                i, steps[i], std::string("Done") + separator + stepDuration(steps[i], prepared),
                LiveStepState::done()));
        } else if (i == gate) {
            session.liveSteps.push_back(liveStep(i, steps[i], "Approved", LiveStepState::done()));
        } else if (i == gate + 1) {
            session.liveSteps.push_back(
                liveStep(i, steps[i], "Running", LiveStepState::running(0.78)));
        } else {
            session.liveSteps.push_back(
                liveStep(i, steps[i], "Waiting for previous step", LiveStepState::waiting()));
        }
    }
    session.liveSteps.push_back({"audit", stepTitle(steps.size(), "Write to audit log"),
                                 "Updates list when done", StepAccent::deterministic,
                                 LiveStepState::waiting()});
    session.privacyNote = "This step runs the post-approval workflow steps and writes to the "
                          "audit log when finished.";
    return session;
}

FlowRunSession makeCompletedSession(const FinalizedWorkflowRun& finalized,
                                    std::int64_t totalMinutesSaved) {
    const AuditRun& run = finalized.auditRun;
    FlowRunSession session;
    session.flowID = run.flowID;
    session.flowName = run.flowName;
    session.trigger = run.trigger;
    session.startedAt = run.timestamp;
    session.stage = RunStage::complete;
    session.subtitle = completedSubtitle(run.durationSeconds);
    session.resultOutput = run.outputSummary;
    session.resultMinutes = run.minutesSaved;
    session.resultTotalMinutes = totalMinutesSaved;
    session.resultCost = cost(run.llmCostUSD);
    if (finalized.outputFolder) {
        session.outputFolder = finalized.outputFolder->string();
        session.privacyNote = "Output written to " + *session.outputFolder + "; audit log updated.";
    } else {
        session.privacyNote = "Workflow complete; audit log updated.";
    }
    return session;
}

FlowRunSession makeGenericScriptCompletedSession(const GenericScriptWorkflowRunResult& result,
                                                 std::int64_t totalMinutesSaved,
                                                 std::int64_t minutesSaved,
                                                 const std::string& trigger) {
    FlowRunSession session;
    session.flowID = result.flowID;
    session.flowName = result.flowName;
    session.trigger = trigger;
    session.startedAt = formatLocalMinute(result.startedAt);
    session.stage = RunStage::complete;
    session.subtitle = completedSubtitle(result.durationSeconds);
    session.resultOutput = result.outputSummary;
    session.resultMinutes = minutesSaved;
    session.resultTotalMinutes = totalMinutesSaved + minutesSaved;
    session.outputFolder = result.outputFolder;
    // What the scripts printed, error output first; an empty note rather than none.
    std::string note;
    for (const auto& text : {trimmed(result.stderrText), trimmed(result.stdoutText)}) {
        if (text.empty()) {
            continue;
        }
        note += note.empty() ? text : "\n\n" + text;
    }
    session.privacyNote = note;
    return session;
}

FlowRunSession makeFailedSession(FlowRunSession session, const std::string& message,
                                 bool retryable) {
    session.stage = RunStage::failed;
    session.subtitle = "Run failed";
    session.failureMessage = message;
    session.isRetryable = retryable;
    return session;
}

FlowRunSession makeBootstrapFailedSession(const std::string& flowID, const std::string& flowName,
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

FlowRunSession markedAsRetry(FlowRunSession session, std::int64_t retryCount) {
    session.retryCount = retryCount;
    if (retryCount >= 1 && session.stage == RunStage::running) {
        session.subtitle = "Retrying \u00b7 " + withoutRunning(session.subtitle);
    }
    return session;
}

} // namespace quorlin::RunSessionBuilder

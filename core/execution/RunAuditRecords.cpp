#include "RunAuditRecords.h"

#include "core/foundation/Json.h"

#include <optional>

namespace quorlin {

RunNotRecordedError::RunNotRecordedError(const AuditRun& run, const std::exception& cause)
    : Error("Run " + run.id.uppercaseString().substr(0, 8) + " of " + run.flowName + " (" +
            run.status + ", " + run.timestamp +
            ") could not be recorded in the audit log: " + cause.what()) {}

namespace {

constexpr const char* rejectionMessage = "All proposals rejected; no files written.";

// A payload that can't be encoded (text that isn't UTF-8, say) leaves its field empty:
// losing one detail must not lose the row.
std::optional<std::string> encoded(const nlohmann::json& payload) {
    try {
        return prettySortedJson(payload);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

const LiveStep* firstRunningStep(const std::vector<LiveStep>& steps) {
    for (const auto& step : steps) {
        if (step.state.kind == LiveStepState::Kind::running) {
            return &step;
        }
    }
    return nullptr;
}

// Without the driver's own records, the steps still drawn as running are what the row
// keeps; their fill fraction stands in for a duration.
std::vector<AuditStepTiming> timingsFromLiveSteps(const std::vector<LiveStep>& steps) {
    std::vector<AuditStepTiming> timings;
    for (const auto& step : steps) {
        if (step.state.kind == LiveStepState::Kind::running) {
            timings.push_back({step.id, step.title, step.state.fillFraction});
        }
    }
    return timings;
}

AuditStepRecord recordFromLiveSteps(const std::vector<LiveStep>& steps, const std::string& message,
                                    const std::exception* error) {
    AuditStepRecord record{"workflow", "Workflow execution", std::nullopt, std::nullopt,
                           std::nullopt};
    if (const auto* running = firstRunningStep(steps)) {
        record.stepID = running->id;
        record.title = running->title;
    }
    nlohmann::json payload{{"message", message}};
    if (error != nullptr) {
        payload["errorType"] = dynamicTypeName(*error);
    }
    record.errorJSON = encoded(payload);
    return record;
}

} // namespace

AuditRun successAuditRun(const GenericScriptWorkflowRunResult& result, std::int64_t minutesSaved,
                         const std::string& trigger) {
    AuditRun run;
    run.id = Uuid::random();
    run.flowID = result.flowID;
    run.flowName = result.flowName;
    run.timestamp = formatLocalMinute(result.startedAt);
    run.trigger = trigger;
    run.status = "Success";
    run.outputSummary = result.outputSummary;
    run.minutesSaved = minutesSaved;
    run.llmCostUSD = 0;
    run.durationSeconds = result.durationSeconds;
    run.stepTimings = result.stepTimings;
    run.stepRecords = result.stepRecords;
    run.outputFolder = result.outputFolder;
    return run;
}

AuditRun failureAuditRun(const FlowRunSession& session, const FlowDefinition* workflow,
                         const std::string& message, const std::exception* error) {
    const auto* failure = dynamic_cast<const GenericScriptWorkflowFailure*>(error);
    AuditRun run;
    run.id = Uuid::random();
    if (failure != nullptr) {
        run.flowID = failure->flowID;
        run.flowName = failure->flowName;
        run.timestamp = formatLocalMinute(failure->startedAt);
        run.durationSeconds = failure->durationSeconds;
        run.stepTimings = failure->stepTimings;
        run.stepRecords = failure->stepRecords;
        run.outputFolder = failure->outputFolder;
    } else {
        run.flowID = workflow != nullptr ? workflow->id : session.flowID;
        run.flowName = workflow != nullptr ? workflow->name : session.flowName;
        run.timestamp = session.startedAt;
        run.stepTimings = timingsFromLiveSteps(session.liveSteps);
        run.stepRecords = {recordFromLiveSteps(session.liveSteps, message, error)};
    }
    run.trigger = session.trigger;
    run.status = "Failed";
    run.outputSummary = "Failed: " + message;
    return run;
}

AuditRun rejectionAuditRun(const PreparedApprovalWorkflowRun& prepared,
                           const std::vector<ApprovalProposal>& rejected, SystemTime now) {
    const auto& steps = prepared.workflow.steps;
    const std::string title = prepared.approvalStepIndex < steps.size()
                                  ? steps[prepared.approvalStepIndex].name
                                  : std::string("Approval");

    const auto count = static_cast<std::int64_t>(rejected.size());
    std::optional<std::string> input;
    try {
        nlohmann::json proposals = nlohmann::json::array();
        for (const auto& proposal : rejected) {
            proposals.push_back(nlohmann::json::parse(toJson(proposal).dump()));
        }
        input = encoded({{"totalCount", count},
                         {"approvedCount", 0},
                         {"rejectedCount", count},
                         {"proposals", proposals}});
    } catch (const std::exception&) {
        // A proposal that can't be encoded leaves the input out, as encoded() does.
    }
    const nlohmann::json output{{"status", "rejected"}, {"message", rejectionMessage}};

    AuditRun run;
    run.id = Uuid::random();
    run.flowID = prepared.workflow.id;
    run.flowName = prepared.workflow.name;
    run.timestamp = formatLocalMinute(prepared.startedAt);
    run.trigger = prepared.trigger;
    run.status = "Rejected";
    run.outputSummary = rejectionMessage;
    run.minutesSaved = 0;
    run.llmCostUSD = prepared.llmCostUSD;
    run.durationSeconds = secondsBetween(prepared.startedAt, now);
    run.stepTimings = prepared.stepTimings;
    run.stepTimings.push_back({prepared.approvalStepID, title, 0});
    run.stepRecords = prepared.stepRecords;
    run.stepRecords.push_back(
        {prepared.approvalStepID, title, input, encoded(output), std::nullopt});
    if (prepared.outputFolder) {
        run.outputFolder = prepared.outputFolder->string();
    }
    return run;
}

} // namespace quorlin

#include "GenericScriptWorkflowRecords.h"

namespace quorlin {

GenericScriptWorkflowFailure::GenericScriptWorkflowFailure(
    std::string message, std::string flowID_, std::string flowName_, SystemTime startedAt_,
    double durationSeconds_, std::optional<std::string> outputFolder_,
    std::vector<AuditStepTiming> stepTimings_, std::vector<AuditStepRecord> stepRecords_)
    : Error(message), flowID(std::move(flowID_)), flowName(std::move(flowName_)),
      startedAt(startedAt_), durationSeconds(durationSeconds_),
      outputFolder(std::move(outputFolder_)), stepTimings(std::move(stepTimings_)),
      stepRecords(std::move(stepRecords_)) {}

namespace {

std::string describe(GenericWorkflowStepError::Kind kind, const std::string& stepID) {
    switch (kind) {
    case GenericWorkflowStepError::Kind::approvalRequired:
        return "Workflow is waiting for human approval: " + stepID;
    case GenericWorkflowStepError::Kind::missingGoogleConnection:
        return "Sign in to a Google account in Settings before reading Gmail or Drive.";
    }
    return {};
}

} // namespace

GenericWorkflowStepError::GenericWorkflowStepError(Kind kind, const std::string& stepID)
    : Error(describe(kind, stepID)), kind_(kind) {}

ExecutionEngineError::ExecutionEngineError(Kind kind, const std::string& stepType)
    : Error("No handler can run steps of type \"" + stepType + "\" in this version of Quorlin."),
      kind_(kind) {}

} // namespace quorlin

#include "GenericScriptWorkflowRecords.h"

namespace quorlin {

GenericScriptWorkflowFailure::GenericScriptWorkflowFailure(
    const std::string& message, std::string flowID_, std::string flowName_, SystemTime startedAt_,
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

std::string describe(GenericNativeWorkflowError::Kind kind, const std::string& text) {
    using Kind = GenericNativeWorkflowError::Kind;
    switch (kind) {
    case Kind::missingStagedFile:
        return "Download step produced no attachment: " + text;
    case Kind::invalidTargetYearMonth:
        return "Target Year-Month " + text + " is invalid. Use YYYY-MM or YYYYMM.";
    case Kind::missingPromptTemplate:
        return "LLM step is missing prompt_template: " + text;
    case Kind::missingFallbackScript:
        return "LLM step is missing fallback_script: " + text;
    case Kind::missingLLMProviderConfiguration:
        return "LLM provider not configured: " + text;
    case Kind::unsupportedLLMRoute:
        return "Unsupported LLM route: " + text;
    case Kind::unsupportedLLMFallback:
        return "Unsupported LLM fallback_strategy: " + text;
    case Kind::noMessagesFound:
        return "Gmail returned no messages; stopping run.";
    case Kind::noPDFAttachmentsFound:
        return "Gmail found messages, but none had a PDF attachment to file.";
    case Kind::missingBundledDataset:
        return "Workflow's bundled naming example dataset is missing.";
    case Kind::missingGmailAccessToken:
        return "No Google account signed in.";
    }
    return text;
}

} // namespace

GenericNativeWorkflowError::GenericNativeWorkflowError(Kind kind, const std::string& text)
    : Error(describe(kind, text)), kind_(kind) {}

GenericWorkflowStepError::GenericWorkflowStepError(Kind kind, const std::string& stepID)
    : Error(describe(kind, stepID)), kind_(kind) {}

ExecutionEngineError::ExecutionEngineError(Kind kind, const std::string& stepType)
    : Error("No handler can run steps of type \"" + stepType + "\" in this version of Quorlin."),
      kind_(kind) {}

} // namespace quorlin

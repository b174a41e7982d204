#pragma once

#include "core/definitions/WorkflowBundleLocator.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/execution/RunLog.h"
#include "core/foundation/Error.h"
#include "core/foundation/LocalTime.h"
#include "core/stores/AuditRun.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

enum class GenericScriptWorkflowProgressState { running, finished };

// Handed to the progress callback as each step starts and ends.
struct GenericScriptWorkflowProgress {
    std::string stepID;
    GenericScriptWorkflowProgressState state = GenericScriptWorkflowProgressState::running;
    std::size_t stepIndex = 0;
    std::size_t totalSteps = 0;
    std::optional<double> durationSeconds; // only when finished
    friend bool operator==(const GenericScriptWorkflowProgress&,
                           const GenericScriptWorkflowProgress&) = default;
};

// What every step handler returns.
struct GenericScriptStepRunResult {
    std::string stdoutText;
    std::string stderrText;
    std::string previousOutput; // stored under the step's id in previousOutputs
    WorkflowValueMap outputs;   // stored under the step's id in stepOutputs
    std::optional<std::string> inputJSON;
    std::optional<std::string> outputJSON;
    double duration = 0; // what lands in the step's timing
};

struct GenericScriptWorkflowRunResult {
    std::string flowID;
    std::string flowName;
    SystemTime startedAt;
    double durationSeconds = 0;
    std::string outputSummary;
    std::optional<std::string> outputFolder;
    std::string stdoutText;
    std::string stderrText;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
};

// The frozen state of a run at its approval gate; it lives in memory only.
struct GenericWorkflowApprovalCheckpoint {
    FlowDefinition workflow;
    std::string flowID;
    std::string flowName;
    std::string approvalStepID;
    WorkflowValueMap approvalInputs;
    RunLog log; // as at the gate
    // The bundle the run started from; resuming reads it again, so an edit made while
    // the user decided takes effect.
    WorkflowBundleReference bundle;
};

// A failed step halts its run; this carries everything needed to record the failed run.
// Its text is the step's error text.
class GenericScriptWorkflowFailure : public Error {
public:
    GenericScriptWorkflowFailure(const std::string& message, std::string flowID,
                                 std::string flowName, SystemTime startedAt, double durationSeconds,
                                 std::optional<std::string> outputFolder,
                                 std::vector<AuditStepTiming> stepTimings,
                                 std::vector<AuditStepRecord> stepRecords);

    std::string flowID;
    std::string flowName;
    SystemTime startedAt;
    double durationSeconds;
    std::optional<std::string> outputFolder;
    std::vector<AuditStepTiming> stepTimings;
    std::vector<AuditStepRecord> stepRecords;
};

class GenericWorkflowStepError : public Error {
public:
    enum class Kind { approvalRequired, missingGoogleConnection };

    // stepID: for approvalRequired.
    explicit GenericWorkflowStepError(Kind kind, const std::string& stepID = {});

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

class GenericNativeWorkflowError : public Error {
public:
    enum class Kind {
        missingStagedFile,               // text: the original file name
        invalidTargetYearMonth,          // text: the value given
        missingPromptTemplate,           // text: the step id
        missingFallbackScript,           // text: the step id
        missingLLMProviderConfiguration, // text: the provider
        unsupportedLLMRoute,             // text: the route
        unsupportedLLMFallback,          // text: the strategy
        noMessagesFound,
        noPDFAttachmentsFound,
        missingBundledDataset,
        missingGmailAccessToken
    };

    explicit GenericNativeWorkflowError(Kind kind, const std::string& text = {});

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

class ExecutionEngineError : public Error {
public:
    enum class Kind { missingHandler };

    ExecutionEngineError(Kind kind, const std::string& stepType);

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

} // namespace quorlin

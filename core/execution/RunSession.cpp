#include "RunSession.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ApprovalItems.h"
#include "core/execution/ContextSteps.h"
#include "core/foundation/Json.h"

#include <algorithm>
#include <sstream>

namespace quorlin {

namespace {

// The cost an LLM step left in its outputs. Steps are searched in no particular order and
// the first cost found wins: a run is expected to have one priced LLM step.
double firstLLMCost(const StepOutputs& stepOutputs) {
    for (const auto& [stepID, outputs] : stepOutputs) {
        const auto found = outputs.find("llm_cost_usd");
        if (found == outputs.end()) {
            continue;
        }
        const WorkflowValue& value = found->second;
        if (const auto* real = value.real()) {
            return *real;
        }
        if (const auto* integer = value.integer()) {
            return static_cast<double>(*integer);
        }
        if (const auto* text = value.string()) {
            if (const auto parsed = parseFloatingNumber(*text)) {
                return *parsed;
            }
        }
    }
    return 0;
}

std::vector<std::string> nonEmptyLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

} // namespace

std::int64_t minutesSavedPerRun(const FlowDefinition& workflow) {
    if (!workflow.roi) {
        return 0;
    }
    return workflow.roi->replacesManualMinutesPerRun.value_or(0);
}

std::vector<std::string> finalFiles(const GenericScriptWorkflowRunResult& result) {
    const auto lines = nonEmptyLines(result.stdoutText);
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        const auto json = parseJsonOrDiscarded(*line);
        if (!json.is_object() || !json.contains("final_files")) {
            continue;
        }
        const auto& files = json.at("final_files");
        std::vector<std::string> paths;
        if (files.is_array()) {
            for (const auto& file : files) {
                if (!file.is_string()) {
                    paths.clear();
                    break;
                }
                paths.push_back(file.get<std::string>());
            }
            if (paths.size() == files.size()) {
                return paths;
            }
        }
        // The last line that names its files decides; earlier lines are not consulted.
        throw DecodingError(DecodingError::Kind::typeMismatch, "final_files", "an array of strings",
                            compactJson(files));
    }
    return {};
}

PreparedApprovalWorkflowRun prepareApprovalRun(GenericScriptWorkflowRunning& service,
                                               const std::string& flowID,
                                               const WorkflowRunRequest& request,
                                               const std::string& trigger) {
    auto checkpoint = service.runUntilApproval(flowID, request);
    const auto& steps = checkpoint.workflow.steps;
    const auto gate = std::find_if(steps.begin(), steps.end(), [&](const FlowStep& step) {
        return step.id == checkpoint.approvalStepID;
    });
    if (gate == steps.end()) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::invalidResourcePath,
                                  "Missing approval step " + checkpoint.approvalStepID);
    }

    PreparedApprovalWorkflowRun prepared;
    prepared.workflow = checkpoint.workflow;
    prepared.approvalStepID = checkpoint.approvalStepID;
    prepared.approvalStepIndex = static_cast<std::size_t>(gate - steps.begin());
    prepared.startedAt = checkpoint.startedAt;
    prepared.trigger = trigger;
    prepared.approvalItems = approvalItems(checkpoint);
    prepared.llmCostUSD = firstLLMCost(checkpoint.stepOutputs);
    prepared.stepTimings = checkpoint.stepTimings;
    prepared.stepRecords = checkpoint.stepRecords;
    prepared.outputFolder = outputFolder(checkpoint.stepOutputs);
    prepared.clientProfile = request.clientProfile;
    prepared.checkpoint = std::move(checkpoint);
    return prepared;
}

FinalizedWorkflowRun finalizeApprovedRun(GenericScriptWorkflowRunning& service,
                                         const PreparedApprovalWorkflowRun& prepared,
                                         const std::vector<ApprovalProposal>& approvedItems,
                                         WorkflowRunRequest request) {
    request.clientProfile = prepared.clientProfile;
    const auto result = service.resumeFromApproval(prepared.checkpoint, approvedItems, request);

    FinalizedWorkflowRun finalized;
    for (const auto& path : finalFiles(result)) {
        finalized.finalFiles.emplace_back(path);
    }
    finalized.outputFolder = result.outputFolder
                                 ? std::optional<std::filesystem::path>(*result.outputFolder)
                                 : prepared.outputFolder;

    AuditRun& run = finalized.auditRun;
    run.id = Uuid::random();
    run.flowID = result.flowID;
    run.flowName = result.flowName;
    run.timestamp = formatLocalMinute(prepared.startedAt);
    run.trigger = prepared.trigger;
    run.status = "Success";
    run.outputSummary = result.outputSummary;
    run.minutesSaved = minutesSavedPerRun(prepared.workflow);
    run.llmCostUSD = prepared.llmCostUSD;
    run.durationSeconds = result.durationSeconds;
    run.stepTimings = result.stepTimings;
    run.stepRecords = result.stepRecords;
    if (finalized.outputFolder) {
        run.outputFolder = finalized.outputFolder->string();
    }
    return finalized;
}

} // namespace quorlin

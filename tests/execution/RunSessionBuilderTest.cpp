#include "core/execution/RunSessionBuilder.h"

#include "core/definitions/DecodingError.h"
#include "core/execution/RunResults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using ::testing::ElementsAre;
using State = LiveStepState;

FlowStep step(const std::string& id, const std::string& type,
              std::optional<WorkflowValueMap> config = std::nullopt) {
    FlowStep result;
    result.id = id;
    result.name = "Step " + id;
    result.type = type;
    result.config = std::move(config);
    return result;
}

FlowDefinition workflow(std::vector<FlowStep> steps, std::optional<std::int64_t> minutes = 12) {
    FlowDefinition flow;
    flow.id = "receipts";
    flow.name = "Receipts";
    flow.steps = std::move(steps);
    if (minutes) {
        flow.roi = ROIConfiguration{minutes, std::nullopt};
    }
    return flow;
}

// Four steps with the gate third; only the first has a timing row.
PreparedApprovalWorkflowRun parkedAt(std::size_t gate, std::size_t stepCount = 4) {
    std::vector<FlowStep> steps;
    for (std::size_t i = 0; i < stepCount; ++i) {
        steps.push_back(step("s" + std::to_string(i), i == gate ? "batch-approval" : "script-run"));
    }
    PreparedApprovalWorkflowRun prepared;
    prepared.workflow = workflow(steps);
    prepared.approvalStepIndex = gate;
    prepared.approvalStepID = steps[gate].id;
    prepared.trigger = "Schedule";
    prepared.llmCostUSD = 0.126;
    prepared.stepTimings = {{"s0", "Step s0", 1.24}};
    prepared.outputFolder = "/tmp/out";
    prepared.approvalItems.resize(2);
    return prepared;
}

std::vector<std::string> details(const FlowRunSession& session) {
    std::vector<std::string> result;
    for (const auto& live : session.liveSteps) {
        result.push_back(live.detail);
    }
    return result;
}

std::vector<State> states(const FlowRunSession& session) {
    std::vector<State> result;
    for (const auto& live : session.liveSteps) {
        result.push_back(live.state);
    }
    return result;
}

TEST(RunSessionBuilderTest, RunningSessionListsEveryStepWithItsAccent) {
    const auto session = RunSessionBuilder::makeGenericScriptRunningSession(
        workflow({step("a", "script-run"), step("b", "llm-generate-structured"),
                  step("c", "script-run", WorkflowValueMap{{"llm_role", "naming"}}),
                  step("d", "batch-approval"), step("e", "code-review")}),
        40, "Manual");
    EXPECT_EQ(session.stage, RunStage::running);
    EXPECT_EQ(session.subtitle, "Running \u00b7 0 / 5 steps complete \u00b7 script workflow");
    EXPECT_EQ(session.resultTotalMinutes, 40);
    EXPECT_EQ(session.resultCost, "$0.00");
    ASSERT_EQ(session.liveSteps.size(), 5u);
    EXPECT_EQ(session.liveSteps[1].title, "2. Step b");
    EXPECT_THAT(details(session), ElementsAre("script-run", "llm-generate-structured", "script-run",
                                              "batch-approval", "code-review"));
    std::vector<StepAccent> accents;
    for (const auto& live : session.liveSteps) {
        accents.push_back(live.accent);
    }
    EXPECT_THAT(accents, ElementsAre(StepAccent::deterministic, StepAccent::llm, StepAccent::llm,
                                     StepAccent::human, StepAccent::human));
    EXPECT_THAT(states(session), ElementsAre(State::running(0.35), State::pending(),
                                             State::pending(), State::pending(), State::pending()));

    const auto empty =
        RunSessionBuilder::makeGenericScriptRunningSession(workflow({}), 0, "Manual");
    EXPECT_EQ(empty.subtitle, "Running \u00b7 0 / 0 steps complete \u00b7 script workflow");
    EXPECT_TRUE(empty.liveSteps.empty());
}

TEST(RunSessionBuilderTest, ProgressMovesTheStepList) {
    using Progress = GenericScriptWorkflowProgressState;
    struct Case {
        GenericScriptWorkflowProgress progress;
        std::vector<std::string> details;
        std::vector<State> states;
        std::string subtitleTail;
    };
    const Case cases[] = {
        {{"b", Progress::running, 1, 3, std::nullopt},
         {"Done", "Running", "script-run"},
         {State::done(), State::running(0.55), State::pending()},
         "1 / 3 steps complete \u00b7 script workflow"},
        {{"b", Progress::finished, 1, 3, 2.04},
         {"Done", "Done \u00b7 2.0s", "script-run"},
         {State::done(), State::done(), State::pending()},
         "2 / 3 steps complete \u00b7 script workflow"},
        {{"c", Progress::finished, 2, 3, std::nullopt},
         {"Done", "Done", "Done"},
         {State::done(), State::done(), State::done()},
         "3 / 3 steps complete \u00b7 finalizing"},
        // Only the index counts, and an index past the end marks everything done.
        {{"zzz", Progress::running, 7, 8, std::nullopt},
         {"Done", "Done", "Done"},
         {State::done(), State::done(), State::done()},
         "3 / 8 steps complete \u00b7 script workflow"},
    };
    const auto start = RunSessionBuilder::makeGenericScriptRunningSession(
        workflow({step("a", "script-run"), step("b", "script-run"), step("c", "script-run")}), 5,
        "Manual");
    for (const auto& c : cases) {
        const auto session = RunSessionBuilder::applyGenericScriptProgress(start, c.progress);
        EXPECT_EQ(details(session), c.details) << c.subtitleTail;
        EXPECT_EQ(states(session), c.states) << c.subtitleTail;
        EXPECT_EQ(session.subtitle, "Running \u00b7 " + c.subtitleTail);
        EXPECT_EQ(session.liveSteps[0].title, "1. Step a");
        EXPECT_EQ(session.resultTotalMinutes, 5);
    }
}

TEST(RunSessionBuilderTest, SessionsOfARunParkedAtItsGate) {
    const auto prepared = parkedAt(2);

    const auto waiting = RunSessionBuilder::makeApprovalWaitingSession(prepared, 100);
    EXPECT_EQ(waiting.stage, RunStage::running);
    EXPECT_EQ(waiting.subtitle, "Running \u00b7 2 / 4 steps complete \u00b7 waiting for approval");
    EXPECT_THAT(details(waiting),
                ElementsAre("Done \u00b7 1.2s", "Done \u00b7 -",
                            "Next step opens the proposals table", "Waiting for approval"));
    EXPECT_THAT(states(waiting),
                ElementsAre(State::done(), State::done(), State::waiting(), State::pending()));
    EXPECT_TRUE(waiting.approvalItems.empty());
    EXPECT_EQ(waiting.resultOutput, "2 items");
    EXPECT_EQ(waiting.resultMinutes, 12);
    EXPECT_EQ(waiting.resultTotalMinutes, 112);
    EXPECT_EQ(waiting.resultCost, "$0.13");
    EXPECT_EQ(waiting.trigger, "Schedule");
    EXPECT_EQ(waiting.outputFolder, "/tmp/out");
    EXPECT_EQ(waiting.privacyNote,
              "Paused at the human-approval gate; remaining workflow steps run after approval.");

    const auto approval = RunSessionBuilder::makeApprovalSession(prepared, 100);
    EXPECT_EQ(approval.stage, RunStage::approval);
    EXPECT_EQ(approval.subtitle,
              "Review proposals \u00b7 2 items \u00b7 approve all or edit individually");
    EXPECT_TRUE(approval.liveSteps.empty());
    EXPECT_EQ(approval.approvalItems, prepared.approvalItems);

    const auto filing = RunSessionBuilder::makeFilingSession(prepared, 100);
    EXPECT_EQ(filing.stage, RunStage::filing);
    EXPECT_EQ(filing.subtitle, "Post-approval steps running \u00b7 1 steps remaining");
    EXPECT_THAT(details(filing), ElementsAre("Done \u00b7 1.2s", "Done \u00b7 -", "Approved",
                                             "Running", "Updates list when done"));
    EXPECT_THAT(states(filing), ElementsAre(State::done(), State::done(), State::done(),
                                            State::running(0.78), State::waiting()));
    EXPECT_EQ(filing.liveSteps.back().title, "5. Write to audit log");
    EXPECT_EQ(filing.liveSteps.back().id, "audit");

    const auto lastGate = RunSessionBuilder::makeFilingSession(parkedAt(3), 0);
    EXPECT_EQ(lastGate.subtitle, "Post-approval steps running \u00b7 0 steps remaining");
    const auto early = RunSessionBuilder::makeFilingSession(parkedAt(0, 5), 0);
    EXPECT_THAT(states(early), ElementsAre(State::done(), State::running(0.78), State::waiting(),
                                           State::waiting(), State::waiting(), State::waiting()));
    EXPECT_EQ(early.liveSteps[2].detail, "Waiting for previous step");
}

TEST(RunSessionBuilderTest, CompletedSessions) {
    FinalizedWorkflowRun finalized;
    finalized.auditRun.flowID = "receipts";
    finalized.auditRun.flowName = "Receipts";
    finalized.auditRun.trigger = "Manual";
    finalized.auditRun.timestamp = "2026-03-01 09:30";
    finalized.auditRun.outputSummary = "2 files";
    finalized.auditRun.minutesSaved = 12;
    finalized.auditRun.llmCostUSD = 1.5;
    finalized.auditRun.durationSeconds = 61.26;
    finalized.outputFolder = "/home/u/Receipts/2026-03";

    auto session = RunSessionBuilder::makeCompletedSession(finalized, 50);
    EXPECT_EQ(session.stage, RunStage::complete);
    EXPECT_EQ(session.subtitle, "Run complete \u00b7 61.3s total");
    EXPECT_EQ(session.startedAt, "2026-03-01 09:30");
    EXPECT_EQ(session.resultTotalMinutes, 50); // the caller's total already counts this run
    EXPECT_EQ(session.resultCost, "$1.50");
    EXPECT_EQ(session.privacyNote,
              "Output written to /home/u/Receipts/2026-03; audit log updated.");
    finalized.outputFolder.reset();
    session = RunSessionBuilder::makeCompletedSession(finalized, 50);
    EXPECT_EQ(session.privacyNote, "Workflow complete; audit log updated.");
    EXPECT_FALSE(session.outputFolder);

    GenericScriptWorkflowRunResult result;
    result.flowID = "news";
    result.flowName = "News";
    result.durationSeconds = 3;
    result.outputSummary = "Run complete";
    const std::tuple<std::string, std::string, std::string> notes[] = {
        {"  out \n", "\n warn  ", "warn\n\nout"},
        {"out", " \n", "out"},
        {"", "", ""}, // empty, not absent
    };
    for (const auto& [out, err, expected] : notes) {
        result.stdoutText = out;
        result.stderrText = err;
        session = RunSessionBuilder::makeGenericScriptCompletedSession(result, 50, 7, "Drop");
        EXPECT_EQ(session.privacyNote, expected);
    }
    EXPECT_EQ(session.subtitle, "Run complete \u00b7 3.0s total");
    EXPECT_EQ(session.resultMinutes, 7);
    EXPECT_EQ(session.resultTotalMinutes, 57);
    EXPECT_EQ(session.resultCost, "$0.00");
    EXPECT_EQ(session.trigger, "Drop");
}

TEST(RunSessionBuilderTest, FinalFilesComeFromTheLastLineThatNamesThem) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"", {}},
        {"plain words\n{\"message\": \"x\"}\n", {}},
        {"{\"final_files\": [\"/a\"]}\n{\"final_files\": [\"/b\", \"/c\"]}\nnot json\n\n",
         {"/b", "/c"}},
        {"{\"final_files\": []}\n[1, 2]\n", {}},
    };
    GenericScriptWorkflowRunResult result;
    for (const auto& [stdoutText, expected] : cases) {
        result.stdoutText = stdoutText;
        EXPECT_EQ(finalFiles(result), expected) << stdoutText;
    }
    // A malformed last list fails; an earlier good line is not a fallback.
    for (const char* bad : {"{\"final_files\": [\"/a\"]}\n{\"final_files\": \"/b\"}",
                            "{\"final_files\": [\"/a\", 3]}"}) {
        result.stdoutText = bad;
        EXPECT_THROW(finalFiles(result), DecodingError) << bad;
    }
}

} // namespace
} // namespace quorlin

#include "core/execution/RunCoordinator.h"

#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/GenericScriptWorkflowService.h"
#include "core/foundation/ManualExecutor.h"
#include "core/foundation/Text.h"
#include "tests/support/WorkflowFixture.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Kind = RunEvent::Kind;

std::string scriptStep(const std::string& id, const std::string& entrypoint) {
    return "    - id: " + id + "\n      name: Step " + id +
           "\n      type: script-run\n      config:\n        runtime: python\n        "
           "entrypoint: " +
           entrypoint + "\n        timeout_seconds: 90\n";
}

std::string readText(const std::filesystem::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

const std::string gateStep =
    "    - id: review\n      name: Review\n      type: batch-approval\n"
    "      inputs:\n        table: '{{ steps.collect.outputs.proposals }}'\n";

std::string flowYaml(const std::string& steps) {
    return "flow:\n  id: demo\n  name: Demo Flow\n  version: '1'\n  roi:\n"
           "    replaces_manual_minutes_per_run: 5\n  triggers: []\n  steps:\n" +
           steps;
}

class RunCoordinatorTest : public ::testing::Test {
protected:
    RunCoordinatorTest() {
        const auto root = fixture.root().string();
        fixture.writeBundleFile("demo", "ok.py", "print('{\"message\": \"all good\"}')\n");
        fixture.writeBundleFile("demo", "fail.py",
                                "import sys\nsys.stderr.write('boom')\nsys.exit(4)\n");
        fixture.writeBundleFile("demo", "slow.py",
                                "import os, time\nif os.path.exists('" + root +
                                    "/slow'):\n    time.sleep(60)\nprint('done')\n");
        fixture.writeBundleFile(
            "demo", "collect.py",
            "import json\nprint(json.dumps({'proposals': ["
            "{'original_name': 'a.pdf', 'proposed_name': 'A.pdf', 'sender': 'Acme'},"
            "{'original_name': 'b.pdf', 'proposed_name': 'B.pdf', 'sender': 'Bolt'}]}))\n");
        fixture.writeBundleFile(
            "demo", "file.py",
            "import json, sys\ndata = json.load(sys.stdin)\n"
            "rows = json.loads(data['previous_outputs']['review'])['approved_table']\n"
            "names = [row['proposedName'] for row in rows]\n"
            "open('" +
                root +
                "/filed.txt', 'w').write(','.join(names))\n"
                "print(json.dumps({'final_files': ['" +
                root + "/out/' + n for n in names]}))\n");
        context.totalMinutesSaved = 100;
        context.trigger = "Manual";
        coordinator = makeCoordinator(audit);
    }

    std::unique_ptr<RunCoordinator> makeCoordinator(std::shared_ptr<RunAuditLog> store) {
        return std::make_unique<RunCoordinator>(service, std::move(store),
                                                WorkflowLoader(fixture.locator()), mainExecutor);
    }

    void writeFlow(const std::string& steps) {
        fixture.writeBundleFile("demo", "flow.yaml", flowYaml(steps));
    }

    void start(const std::string& flowID = "demo") {
        coordinator->start(flowID, context,
                           [this](const RunEvent& event) { events.push_back(event); });
    }

    // Drains the main executor until the condition holds; the limit only guards a hang.
    void waitFor(const std::function<bool()>& condition) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        while (mainExecutor.drain(), !condition()) {
            ASSERT_LT(std::chrono::steady_clock::now(), limit) << "the run never got there";
            mainExecutor.waitForTask(std::chrono::milliseconds(20));
        }
    }

    void waitForStage(RunStage stage, const std::string& flowID = "demo") {
        waitFor([&] {
            const auto session = coordinator->session(flowID);
            return session && session->stage == stage && !coordinator->isRunning(flowID);
        });
    }

    void waitForGate() {
        waitFor([&] {
            const auto session = coordinator->session("demo");
            return session && session->privacyNote && startsWith(*session->privacyNote, "Paused");
        });
    }

    std::vector<Kind> kinds() const {
        std::vector<Kind> result;
        for (const auto& event : events) {
            result.push_back(event.kind);
        }
        return result;
    }

    std::vector<Kind> lastKinds(std::size_t count) const {
        const auto all = kinds();
        return {all.end() - static_cast<std::ptrdiff_t>(std::min(count, all.size())), all.end()};
    }

    long countOf(Kind kind) const {
        const auto all = kinds();
        return std::count(all.begin(), all.end(), kind);
    }

    std::vector<AuditRun> auditRows() const { return audit->load().runs; }
    std::filesystem::path stagingRoot() const {
        return fixture.paths().root() / "staging" / "generic" / "demo";
    }

    testing::WorkflowFixture fixture;
    ManualExecutor mainExecutor;
    std::shared_ptr<GenericScriptWorkflowService> service =
        std::make_shared<GenericScriptWorkflowService>(
            WorkflowLoader(fixture.locator()),
            std::make_shared<DefaultScriptRunner>(fixture.locator(),
                                                  [](ScriptRuntime runtime) {
                                                      return testing::systemInterpreter(
                                                          rawValue(runtime));
                                                  }),
            fixture.paths(), mainExecutor);
    std::shared_ptr<AuditLogStore> audit = std::make_shared<AuditLogStore>(fixture.paths());
    RunContext context;
    std::vector<RunEvent> events;
    std::unique_ptr<RunCoordinator> coordinator; // last, so its workers are joined first
};

TEST_F(RunCoordinatorTest, SucceedingRunWritesOneRowAndCompletes) {
    writeFlow(scriptStep("first", "ok.py") + scriptStep("second", "ok.py"));
    start();
    waitForStage(RunStage::complete);

    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events.front().session->subtitle,
              "Running \u00b7 0 / 2 steps complete \u00b7 script workflow");
    EXPECT_THAT(lastKinds(2), ElementsAre(Kind::auditRunRecorded, Kind::sessionUpdated));
    const auto rows = auditRows();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].status, "Success");
    EXPECT_EQ(rows[0].minutesSaved, 5);
    EXPECT_EQ(rows[0].trigger, "Manual");
    EXPECT_EQ(rows[0].stepTimings.size(), 2u);
    EXPECT_EQ(*events[events.size() - 2].auditRun, rows[0]);

    const auto session = *coordinator->session("demo");
    EXPECT_EQ(session, *events.back().session);
    EXPECT_THAT(session.subtitle, HasSubstr("Run complete \u00b7 "));
    EXPECT_EQ(session.resultTotalMinutes, 105);
    EXPECT_EQ(session.privacyNote, "{\"message\": \"all good\"}\n{\"message\": \"all good\"}");
}

TEST_F(RunCoordinatorTest, FailingRunWritesOneFailedRowAndMayBeRetried) {
    writeFlow(scriptStep("first", "ok.py") + scriptStep("bad", "fail.py"));
    start();
    waitForStage(RunStage::failed);

    EXPECT_THAT(lastKinds(3),
                ElementsAre(Kind::sessionUpdated, Kind::auditRunRecorded, Kind::failed));
    auto rows = auditRows();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].status, "Failed");
    EXPECT_EQ(rows[0].outputSummary, "Failed: Script failed with exit code 4: boom");
    EXPECT_EQ(rows[0].stepRecords.back().stepID, "bad");
    auto session = *coordinator->session("demo");
    EXPECT_EQ(session.failureMessage, "Script failed with exit code 4: boom");
    EXPECT_EQ(session.subtitle, "Run failed");
    EXPECT_TRUE(session.isRetryable);
    EXPECT_EQ(session.liveSteps[0].state, LiveStepState::done()); // as it stood at the failure

    events.clear();
    start();
    mainExecutor.drain();
    EXPECT_EQ(events.front().session->subtitle,
              "Retrying \u00b7 0 / 2 steps complete \u00b7 script workflow");
    EXPECT_EQ(events.front().session->retryCount, 1);
    waitForStage(RunStage::failed);
    EXPECT_EQ(coordinator->session("demo")->retryCount, 1);
    EXPECT_EQ(auditRows().size(), 2u);
}

TEST_F(RunCoordinatorTest, RunsThatCannotStartFailAtOnceWithAFailedRow) {
    struct Case {
        std::string flowID;
        std::string message;
        std::string flowName;
        std::optional<std::string> errorType;
    };
    writeFlow(scriptStep("first", "collect.py") +
              "    - id: odd\n      name: Odd\n      type: teleport\n");
    const Case cases[] = {
        {"nope", "Workflow not found: nope", "nope", "quorlin::WorkflowLoaderError"},
        {"demo", "This workflow isn't wired into the generic runner or has no runnable blocks.",
         "Demo Flow", std::nullopt},
    };
    for (const auto& c : cases) {
        events.clear();
        start(c.flowID);
        EXPECT_FALSE(coordinator->isRunning(c.flowID));
        mainExecutor.drain();
        EXPECT_THAT(kinds(),
                    ElementsAre(Kind::sessionUpdated, Kind::auditRunRecorded, Kind::failed));
        const auto session = *coordinator->session(c.flowID);
        EXPECT_EQ(session.failureMessage, c.message);
        EXPECT_EQ(session.flowName, c.flowName);
        EXPECT_FALSE(session.isRetryable);
        ASSERT_EQ(session.liveSteps.size(), 1u);
        EXPECT_EQ(session.liveSteps[0].title, "Initialize runtime");

        const auto row = events[1].auditRun;
        EXPECT_EQ(row->outputSummary, "Failed: " + c.message);
        EXPECT_EQ(row->stepTimings,
                  (std::vector<AuditStepTiming>{{"bootstrap", "Initialize runtime", 0.35}}));
        const auto error = nlohmann::json::parse(*row->stepRecords.at(0).errorJSON);
        EXPECT_EQ(error["message"], c.message);
        EXPECT_EQ(error.contains("errorType"), c.errorType.has_value());
        if (c.errorType) {
            EXPECT_EQ(error["errorType"], *c.errorType);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(stagingRoot())); // no step ran
    EXPECT_EQ(auditRows().size(), 2u);

    start("nope"); // not retryable, so no retry either
    mainExecutor.drain();
    EXPECT_EQ(coordinator->session("nope")->retryCount, 0);
}

TEST_F(RunCoordinatorTest, CancelStopsTheRunWithoutARow) {
    testing::writeTextFile(fixture.root() / "slow", "");
    writeFlow(scriptStep("wait", "slow.py"));
    start();
    waitFor([&] { return coordinator->session("demo")->liveSteps[0].detail == "Running"; });
    coordinator->cancel("demo");
    mainExecutor.drain();

    EXPECT_EQ(kinds().back(), Kind::cancelled);
    EXPECT_FALSE(coordinator->session("demo"));
    EXPECT_FALSE(coordinator->isRunning("demo"));
    coordinator.reset(); // joins the stopped worker
    mainExecutor.drain();
    EXPECT_EQ(kinds().back(), Kind::cancelled);
    EXPECT_TRUE(auditRows().empty());
}

TEST_F(RunCoordinatorTest, ApprovalRunStopsAtTheGateAndFilesTheProposalsAsMade) {
    writeFlow(scriptStep("collect", "collect.py") + gateStep + scriptStep("file", "file.py"));
    coordinator->advance("demo", context); // nothing to advance yet
    mainExecutor.drain();
    EXPECT_TRUE(events.empty());

    start();
    waitForGate();
    auto session = *coordinator->session("demo");
    EXPECT_EQ(session.stage, RunStage::running);
    EXPECT_EQ(session.subtitle, "Running \u00b7 1 / 3 steps complete \u00b7 waiting for approval");
    EXPECT_EQ(session.resultOutput, "2 items");
    EXPECT_TRUE(auditRows().empty()); // nothing is recorded at the gate

    coordinator->advance("demo", context);
    mainExecutor.drain();
    session = *coordinator->session("demo");
    EXPECT_EQ(session.stage, RunStage::approval);
    ASSERT_EQ(session.approvalItems.size(), 2u);
    EXPECT_EQ(session.approvalItems[1].proposedName, "B.pdf");
    EXPECT_EQ(session.approvalItems[1].sender, "Bolt");

    coordinator->advance("demo", context);
    mainExecutor.drain();
    EXPECT_EQ(coordinator->session("demo")->stage, RunStage::filing);
    coordinator->advance("demo", context); // ignored while filing
    waitForStage(RunStage::complete);

    EXPECT_EQ(readText(fixture.root() / "filed.txt"), "A.pdf,B.pdf");
    const auto rows = auditRows();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].status, "Success");
    EXPECT_EQ(rows[0].minutesSaved, 5);
    EXPECT_EQ(rows[0].stepRecords.size(), 3u);
    EXPECT_THAT(lastKinds(2), ElementsAre(Kind::auditRunRecorded, Kind::sessionUpdated));
    session = *coordinator->session("demo");
    EXPECT_EQ(session.resultTotalMinutes, 100);
    EXPECT_EQ(session.privacyNote, "Workflow complete; audit log updated.");
    EXPECT_TRUE(std::filesystem::is_empty(stagingRoot())); // the parked run's folder is gone

    const auto before = events.size();
    coordinator->advance("demo", context); // complete: nothing more to do
    mainExecutor.drain();
    EXPECT_EQ(events.size(), before);
}

TEST_F(RunCoordinatorTest, AParkedRunSaysSoOnceAndAPreloadedWorkflowRunsTheSame) {
    writeFlow(scriptStep("collect", "collect.py") + gateStep + scriptStep("file", "file.py"));
    // The front end read the workflow to build its context; the run does not read it again.
    auto workflow = WorkflowLoader(fixture.locator()).loadRunnableWorkflow("demo");
    fixture.writeBundleFile("demo", "flow.yaml", "not: a workflow\n");
    coordinator->start(std::move(workflow), context,
                       [this](const RunEvent& event) { events.push_back(event); });
    waitFor([&] { return countOf(Kind::waitingAtGate) == 1; });
    EXPECT_THAT(lastKinds(2), ElementsAre(Kind::sessionUpdated, Kind::waitingAtGate));
    EXPECT_FALSE(coordinator->isRunning("demo"));
    EXPECT_EQ(coordinator->session("demo")->stage, RunStage::running);

    coordinator->advance("demo", context);
    mainExecutor.drain();
    EXPECT_EQ(coordinator->session("demo")->stage, RunStage::approval);
    EXPECT_EQ(countOf(Kind::waitingAtGate), 1);
}

TEST_F(RunCoordinatorTest, RejectAllRecordsTheRejectionAndFilesNothing) {
    writeFlow(scriptStep("collect", "collect.py") + gateStep + scriptStep("file", "file.py"));
    start();
    waitForGate();
    coordinator->advance("demo", context);
    coordinator->rejectAllApprovalItems("demo", context);
    mainExecutor.drain();

    EXPECT_THAT(lastKinds(2), ElementsAre(Kind::auditRunRecorded, Kind::sessionUpdated));
    const auto rows = auditRows();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].status, "Rejected");
    EXPECT_EQ(rows[0].outputSummary, "All proposals rejected; no files written.");
    EXPECT_EQ(rows[0].minutesSaved, 0);
    const auto& record = rows[0].stepRecords.back();
    EXPECT_EQ(record.stepID, "review");
    EXPECT_EQ(record.title, "Review");
    const auto input = nlohmann::json::parse(*record.inputJSON);
    EXPECT_EQ(input["rejectedCount"], 2);
    EXPECT_EQ(input["approvedCount"], 0);
    EXPECT_EQ(input["proposals"][1]["isSelected"], false);
    EXPECT_EQ(nlohmann::json::parse(*record.outputJSON)["status"], "rejected");
    EXPECT_EQ(rows[0].stepTimings.back().durationSeconds, 0);
    EXPECT_EQ(coordinator->session("demo")->stage, RunStage::complete);
    EXPECT_FALSE(std::filesystem::exists(fixture.root() / "filed.txt"));
    EXPECT_TRUE(std::filesystem::is_empty(stagingRoot()));

    // With nothing parked any more, rejecting is a cancel.
    coordinator->rejectAllApprovalItems("demo", context);
    mainExecutor.drain();
    EXPECT_EQ(kinds().back(), Kind::cancelled);
    EXPECT_FALSE(coordinator->session("demo"));
    EXPECT_EQ(auditRows().size(), 1u);
}

TEST_F(RunCoordinatorTest, AStartReplacesTheLiveRunOfItsFlow) {
    testing::writeTextFile(fixture.root() / "slow", "");
    writeFlow(scriptStep("wait", "slow.py"));
    start();
    waitFor([&] { return coordinator->session("demo")->liveSteps[0].detail == "Running"; });
    std::filesystem::remove(fixture.root() / "slow");
    events.clear();
    start(); // the first run is stopped; only the second counts
    waitForStage(RunStage::complete);

    EXPECT_EQ(countOf(Kind::auditRunRecorded), 1);
    EXPECT_EQ(countOf(Kind::failed), 0);
    EXPECT_EQ(coordinator->session("demo")->retryCount, 0);
    EXPECT_EQ(auditRows().size(), 1u);
}

TEST_F(RunCoordinatorTest, AnAuditRowThatCannotBeWrittenFailsTheRun) {
    testing::writeTextFile(fixture.root() / "blocker", "a file where a folder should be");
    const auto broken =
        std::make_shared<AuditLogStore>(fixture.root() / "blocker" / "quorlin.sqlite",
                                        fixture.root() / "blocker" / "audit-log.json");
    coordinator = makeCoordinator(broken);

    writeFlow(scriptStep("first", "ok.py"));
    start();
    waitForStage(RunStage::failed);
    EXPECT_THAT(lastKinds(2),
                ElementsAre(Kind::sessionUpdated, Kind::failed)); // and no row to announce
    EXPECT_TRUE(coordinator->session("demo")->isRetryable);
    // The user learns which run the history will not show, and why.
    EXPECT_THAT(*coordinator->session("demo")->failureMessage,
                ::testing::MatchesRegex("Run [0-9A-F]{8} of Demo Flow \\(Success, .*\\) could "
                                        "not be recorded in the audit log: .*"));

    writeFlow(scriptStep("collect", "collect.py") + gateStep + scriptStep("file", "file.py"));
    start();
    waitForGate();
    coordinator->advance("demo", context);
    coordinator->rejectAllApprovalItems("demo", context);
    mainExecutor.drain();
    EXPECT_THAT(lastKinds(2), ElementsAre(Kind::sessionUpdated, Kind::failed));
    const auto session = *coordinator->session("demo");
    EXPECT_EQ(session.stage, RunStage::failed);
    EXPECT_TRUE(session.isRetryable);
    EXPECT_EQ(session.approvalItems.size(), 2u); // kept, unrejected
    EXPECT_EQ(session.retryCount, 0);            // a run that reached its gate is no longer a retry
    // The parked run's folder stays beside the plain run's.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(stagingRoot()), {}), 2);
}

} // namespace
} // namespace quorlin

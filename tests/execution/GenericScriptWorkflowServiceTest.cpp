#include "core/execution/GenericScriptWorkflowService.h"

#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/ScriptEnvironment.h"
#include "core/execution/StandardStepHandlers.h"
#include "core/foundation/Cancellation.h"
#include "core/foundation/ManualExecutor.h"
#include "tests/support/WorkflowFixture.h"

#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A python step whose script prints the given text and exits with the given status.
std::string scriptStep(const std::string& id, const std::string& entrypoint) {
    return "    - id: " + id + "\n      name: Step " + id +
           "\n      type: script-run\n      config:\n        runtime: python\n        "
           "entrypoint: " +
           entrypoint + "\n        timeout_seconds: 20\n";
}

std::string typedStep(const std::string& id, const std::string& type) {
    return "    - id: " + id + "\n      name: Step " + id + "\n      type: " + type + "\n";
}

std::string flowYaml(const std::string& steps) {
    return "flow:\n  id: demo\n  name: Demo Flow\n  version: '1'\n  triggers: []\n  steps:\n" +
           (steps.empty() ? std::string("    []\n") : steps);
}

class GenericScriptWorkflowServiceTest : public ::testing::Test {
protected:
    GenericScriptWorkflowServiceTest()
        : service(WorkflowLoader(fixture.locator()),
                  std::make_shared<DefaultScriptRunner>(fixture.locator(),
                                                        [](ScriptRuntime runtime) {
                                                            return testing::systemInterpreter(
                                                                rawValue(runtime));
                                                        }),
                  fixture.paths(), mainExecutor) {
        fixture.writeBundleFile(
            "demo", "print_json.py",
            "import json, sys\n"
            "data = json.load(sys.stdin)\n"
            "print(json.dumps({'seen': sorted(data['previous_outputs']), "
            "'step': data['step_id'], 'message': 'hi from ' + data['step_id']}))\n");
        fixture.writeBundleFile("demo", "plain_text.py", "print('  just words  ')\n");
        fixture.writeBundleFile("demo", "blank.py", "print('   ')\n");
        fixture.writeBundleFile("demo", "fail.py",
                                "import sys\nsys.stderr.write('boom')\nsys.exit(4)\n");
        request.progress = [this](const GenericScriptWorkflowProgress& update) {
            progress.push_back(update);
        };
    }

    // The workflow as the coordinator hands it over: read and checked once.
    LoadedWorkflow loaded(const std::string& flowID) const {
        return WorkflowLoader(fixture.locator()).loadRunnableWorkflow(flowID);
    }

    void writeFlow(const std::string& steps) {
        fixture.writeBundleFile("demo", "flow.yaml", flowYaml(steps));
    }

    // Runs work on a worker thread, as the coordinator does, draining the main executor
    // here so progress callbacks run on this thread.
    template <typename Work> auto onWorker(Work work) {
        auto future = std::async(std::launch::async, work);
        while (future.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) {
            if (mainExecutor.waitForTask(std::chrono::milliseconds(5))) {
                mainExecutor.drain();
            }
        }
        mainExecutor.drain();
        return future.get();
    }

    GenericScriptWorkflowFailure runExpectingFailure() {
        try {
            onWorker([&] { return service.run(loaded("demo"), request); });
        } catch (const GenericScriptWorkflowFailure& failure) {
            return failure;
        }
        throw std::logic_error("the run did not fail with a failure record");
    }

    testing::WorkflowFixture fixture;
    ManualExecutor mainExecutor;
    GenericScriptWorkflowService service;
    WorkflowRunRequest request;
    std::vector<GenericScriptWorkflowProgress> progress;
};

TEST_F(GenericScriptWorkflowServiceTest, RunsScriptStepsInOrderAndPassesEarlierOutputs) {
    writeFlow(scriptStep("first", "print_json.py") + scriptStep("second", "print_json.py"));
    const auto result = onWorker([&] { return service.run(loaded("demo"), request); });

    EXPECT_EQ(result.flowID, "demo");
    EXPECT_EQ(result.flowName, "Demo Flow");
    EXPECT_EQ(result.stdoutText,
              R"({"seen": [], "step": "first", "message": "hi from first"})"
              "\n"
              R"({"seen": ["first"], "step": "second", "message": "hi from second"})");
    EXPECT_EQ(result.outputSummary, result.stdoutText); // two JSON lines are not one object
    ASSERT_EQ(result.stepTimings.size(), 2u);
    EXPECT_EQ(result.stepTimings[1].stepID, "second");
    EXPECT_EQ(result.stepTimings[1].title, "Step second");
    ASSERT_EQ(result.stepRecords.size(), 2u);
    const auto input = nlohmann::json::parse(*result.stepRecords[1].inputJSON);
    EXPECT_EQ(input["flow_id"], "demo");
    EXPECT_EQ(input["previous_outputs"]["first"],
              "{\"seen\": [], \"step\": \"first\", \"message\": \"hi from first\"}\n");
    EXPECT_FALSE(result.stepRecords[1].errorJSON);

    ASSERT_EQ(progress.size(), 4u);
    EXPECT_EQ(progress[0],
              (GenericScriptWorkflowProgress{"first", GenericScriptWorkflowProgressState::running,
                                             0, 2, std::nullopt}));
    EXPECT_EQ(progress[3].stepID, "second");
    EXPECT_EQ(progress[3].state, GenericScriptWorkflowProgressState::finished);
    EXPECT_EQ(progress[3].durationSeconds, result.stepTimings[1].durationSeconds);
}

TEST_F(GenericScriptWorkflowServiceTest, SingleJsonStepGivesItsMessageAsSummary) {
    writeFlow(scriptStep("only", "print_json.py"));
    EXPECT_EQ(onWorker([&] { return service.run(loaded("demo"), request); }).outputSummary,
              "hi from only");
}

TEST_F(GenericScriptWorkflowServiceTest, PlainTextAndBlankOutputs) {
    writeFlow(scriptStep("words", "plain_text.py") + scriptStep("blank", "blank.py") +
              scriptStep("reader", "print_json.py"));
    const auto result = onWorker([&] { return service.run(loaded("demo"), request); });
    EXPECT_EQ(result.stdoutText,
              "just words\n"
              R"({"seen": ["blank", "words"], "step": "reader", "message": "hi from reader"})");
    const auto reader = nlohmann::json::parse(*result.stepRecords[2].inputJSON);
    EXPECT_EQ(reader["previous_outputs"]["blank"], "   \n"); // kept untrimmed for scripts
    EXPECT_EQ(result.stepRecords[0].outputJSON, "  just words  \n");
}

TEST_F(GenericScriptWorkflowServiceTest, EmptyWorkflowFinishesAtOnceWithAStagingFolder) {
    writeFlow("");
    const auto result = onWorker([&] { return service.run(loaded("demo"), request); });
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.outputSummary, "Run complete");
    EXPECT_TRUE(result.stepTimings.empty());
    const auto staging = fixture.paths().root() / "staging" / "generic" / "demo";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(staging), {}), 1);
}

TEST_F(GenericScriptWorkflowServiceTest, FailedStepHaltsTheRunWithItsRecords) {
    writeFlow(scriptStep("ok", "print_json.py") +
              "    - id: bad\n      name: Bad step\n      type: script-run\n      on_error: warn\n"
              "      config:\n        runtime: python\n        entrypoint: fail.py\n        "
              "retries: 2\n" +
              scriptStep("never", "print_json.py"));
    const auto failure = runExpectingFailure();

    EXPECT_STREQ(failure.what(), "Script failed with exit code 4: boom");
    EXPECT_EQ(failure.flowID, "demo");
    ASSERT_EQ(failure.stepTimings.size(), 2u);
    ASSERT_EQ(failure.stepRecords.size(), 2u);
    const auto& record = failure.stepRecords[1];
    EXPECT_EQ(record.stepID, "bad");
    EXPECT_FALSE(record.outputJSON);
    EXPECT_EQ(*record.inputJSON,
              "{\n  \"config\": {\n    \"entrypoint\": \"fail.py\",\n    \"retries\": 2,\n"
              "    \"runtime\": \"python\"\n  },\n  \"previousOutputStepIDs\": [\n    \"ok\"\n"
              "  ],\n  \"stepOutputStepIDs\": [\n    \"ok\"\n  ]\n}");
    const auto error = nlohmann::json::parse(*record.errorJSON);
    EXPECT_EQ(error["message"], "Script failed with exit code 4: boom");
    EXPECT_EQ(error["errorType"], "quorlin::ScriptRunnerError");
    // The failed step got "running" and no "finished"; the step behind it nothing.
    ASSERT_EQ(progress.size(), 3u);
    EXPECT_EQ(progress.back().stepID, "bad");
    EXPECT_EQ(progress.back().state, GenericScriptWorkflowProgressState::running);
}

TEST_F(GenericScriptWorkflowServiceTest, StepProblemsFailThroughTheFailurePath) {
    const std::pair<std::string, std::string> cases[] = {
        {typedStep("gate", "batch-approval"), "Workflow is waiting for human approval: gate"},
        {typedStep("mail", "gmail-search"), "gmail-search"},
        {"    - id: s\n      name: S\n      type: script-run\n      config:\n        entrypoint: "
         "x.py\n",
         "Missing runtime for step s"},
        {"    - id: s\n      name: S\n      type: script-run\n      action:\n        runtime: "
         "node\n",
         "Missing entrypoint for step s"},
        {"    - id: loud\n      name: Loud\n      type: script-run\n      config: {runtime: "
         "python, entrypoint: print_json.py, max_output_bytes: 10}\n",
         "Step loud wrote more than 10 bytes to stdout; set max_output_bytes in its config to "
         "allow more."},
    };
    for (const auto& [step, expected] : cases) {
        writeFlow(scriptStep("before", "print_json.py") + step);
        const auto failure = runExpectingFailure();
        EXPECT_THAT(failure.what(), HasSubstr(expected));
        EXPECT_EQ(failure.stepRecords.size(), 2u) << expected;
    }
}

TEST_F(GenericScriptWorkflowServiceTest, ErrorsBeforeAnyStepCarryNoRecords) {
    writeFlow(scriptStep("first", "print_json.py") + typedStep("odd", "teleport"));
    EXPECT_THROW(onWorker([&] { return service.run(loaded("demo"), request); }),
                 ExecutionEngineError);
    EXPECT_EQ(progress.size(), 2u); // the first step ran

    EXPECT_THROW(onWorker([&] { return service.run(loaded("nope"), request); }),
                 WorkflowLoaderError);

    std::stop_source stop;
    stop.request_stop();
    request.stopToken = stop.get_token();
    writeFlow(scriptStep("first", "print_json.py"));
    EXPECT_THROW(onWorker([&] { return service.run(loaded("demo"), request); }), CancellationError);
}

TEST_F(GenericScriptWorkflowServiceTest, RunUntilApprovalStopsAtTheGateAndResumes) {
    writeFlow(scriptStep("collect", "print_json.py") +
              "    - id: review\n      name: Review\n      type: batch-approval\n"
              "      inputs:\n        table: '{{ steps.collect.proposals }}'\n" +
              scriptStep("file", "print_json.py"));
    const auto checkpoint =
        onWorker([&] { return service.runUntilApproval(loaded("demo"), request); });
    EXPECT_EQ(checkpoint.approvalStepID, "review");
    EXPECT_THAT(checkpoint.log.stdoutParts, ElementsAre(HasSubstr("hi from collect")));
    EXPECT_EQ(checkpoint.log.stepTimings.size(), 1u);
    EXPECT_EQ(progress.size(), 2u); // nothing for the gate
    EXPECT_TRUE(std::filesystem::is_directory(checkpoint.log.stagingDirectory));

    ApprovalProposal approved;
    approved.id = Uuid::random();
    approved.index = 1;
    approved.originalName = "invoice.pdf";
    approved.proposedName = "2024-01 Acme.pdf";
    progress.clear();
    const auto result =
        onWorker([&] { return service.resumeFromApproval(checkpoint, {approved}, request); });
    ASSERT_EQ(result.stepRecords.size(), 3u);
    EXPECT_EQ(result.stepRecords[1].stepID, "review");
    const auto table = nlohmann::json::parse(*result.stepRecords[1].outputJSON)["approved_table"];
    EXPECT_EQ(table[0]["proposedName"], "2024-01 Acme.pdf");
    EXPECT_EQ(nlohmann::json::parse(*result.stepRecords[1].inputJSON)["approved_count"], 1);
    EXPECT_THAT(result.stdoutText, HasSubstr(R"("seen": ["collect", "review"])"));
    ASSERT_EQ(progress.size(), 2u);
    EXPECT_EQ(progress[0].stepIndex, 2u);
    EXPECT_EQ(progress[0].totalSteps, 3u);

    writeFlow(scriptStep("collect", "print_json.py")); // the gate is gone from the file
    try {
        onWorker([&] { return service.resumeFromApproval(checkpoint, {}, request); });
        FAIL() << "expected the resume to fail";
    } catch (const WorkflowLoaderError& error) {
        EXPECT_STREQ(error.what(), "Missing approval step review");
    }
}

TEST_F(GenericScriptWorkflowServiceTest, RunUntilApprovalWithoutAGateFailsAfterAllSteps) {
    writeFlow(scriptStep("only", "print_json.py"));
    try {
        onWorker([&] { return service.runUntilApproval(loaded("demo"), request); });
        FAIL() << "expected approvalRequired";
    } catch (const GenericWorkflowStepError& error) {
        EXPECT_STREQ(error.what(), "Workflow is waiting for human approval: batch-approval");
    }
    EXPECT_EQ(progress.size(), 2u);
}

TEST_F(GenericScriptWorkflowServiceTest, RepeatedStepIdsOverwriteMapsButKeepBothRecords) {
    writeFlow(scriptStep("same", "plain_text.py") + scriptStep("same", "print_json.py") +
              scriptStep("after", "print_json.py"));
    const auto result = onWorker([&] { return service.run(loaded("demo"), request); });
    EXPECT_EQ(result.stepRecords.size(), 3u);
    const auto input = nlohmann::json::parse(*result.stepRecords[2].inputJSON);
    EXPECT_THAT(input["previous_outputs"]["same"].get<std::string>(), HasSubstr("hi from same"));
}

// A script block of the bundle: its manifest declares one output, "summary".
class ScriptBlockTest : public GenericScriptWorkflowServiceTest {
protected:
    void writeBlock(const std::string& script, const std::string& runtime = "python") {
        fixture.writeBundleFile(
            "demo", "blocks/report/block.yaml",
            "id: report\nname: Report\nversion: 1.0.0\nkind: script\n"
            "execution:\n  kind: script\n  handler_type: script-run\n  runtime: " +
                runtime +
                "\n  entrypoint: scripts/report.py\n  timeout_seconds: 15\n"
                "inputs:\n  title: {type: string, required: true}\n"
                "outputs:\n  summary: {type: string}\n");
        fixture.writeBundleFile("demo", "scripts/report.py", script);
        writeFlow(scriptStep("first", "print_json.py") +
                  "    - id: report\n      name: Report\n      block: report@1.0.0\n"
                  "      type: script-run\n      inputs:\n        title: Monthly\n");
    }
};

TEST_F(ScriptBlockTest, ReceivesTheEnvelopeAndPassesItsOutputsOn) {
    writeBlock("import json, sys\n"
               "env = json.load(sys.stdin)\n"
               "ctx = env['context']\n"
               "print(json.dumps({'outputs': {'summary': env['inputs']['title'] + ' by ' + "
               "ctx['block_id'] + "
               "'@' + ctx['block_version'] + ' after ' + ','.join(ctx['previous_outputs'])}, "
               "'audit': {'rows': 1}}))\n");
    const auto result = onWorker([&] { return service.run(loaded("demo"), request); });
    EXPECT_EQ(result.outputSummary, result.stdoutText);
    EXPECT_THAT(result.stdoutText,
                HasSubstr(R"({"summary":"Monthly by report@1.0.0 after first"})"));
    const auto envelope = nlohmann::json::parse(*result.stepRecords[1].inputJSON);
    EXPECT_EQ(envelope["context"]["flow_name"], "Demo Flow");
    EXPECT_TRUE(
        std::filesystem::is_directory(envelope["context"]["staging_dir"].get<std::string>()));
    EXPECT_EQ(envelope["context"]["bundle_root"],
              (fixture.root() / "resources/Workflows/demo").string());
}

TEST_F(ScriptBlockTest, OutputThatBreaksTheContractFailsTheStep) {
    const std::pair<std::string, std::string> cases[] = {
        {"print('not json')\n", "Script output isn't valid JSON: not json\n"},
        {"pass\n", "Script output isn't valid JSON: <empty stdout>"},
        {"print('{\"summary\": \"no envelope\"}')\n",
         "Script output isn't valid JSON: {\"summary\": \"no envelope\"}\n"},
        {"print('{\"outputs\": {\"secret\": 1}}')\n",
         "step report declares an undefined output for block report: secret"},
    };
    for (const auto& [script, expected] : cases) {
        writeBlock(script);
        const auto failure = runExpectingFailure();
        EXPECT_EQ(failure.what(), expected) << script;
        EXPECT_EQ(failure.stepRecords.size(), 2u);
    }
}

TEST_F(ScriptBlockTest, UnknownBlockRuntimeIsNamed) {
    writeBlock("print('{}')\n", "ruby");
    EXPECT_STREQ(runExpectingFailure().what(), "Unsupported block runtime ruby for step report");
}

TEST_F(GenericScriptWorkflowServiceTest, BlockProblemsStopTheRunBeforeTheFirstStep) {
    writeFlow(scriptStep("first", "print_json.py") +
              "    - id: search\n      name: Search\n      block: gmail.search-messages@0.1.0\n"
              "      type: script-run\n");
    EXPECT_THROW(onWorker([&] { return service.run(loaded("demo"), request); }),
                 WorkflowBlockValidationError);
    EXPECT_TRUE(progress.empty());
}

// A step type added the way every new one is: a handler and one registration.
// Fails the way the standard library's file functions do.
class MissingFileStepHandler final : public StepHandler {
public:
    GenericScriptStepRunResult run(const StepContext&) const override {
        throw std::filesystem::filesystem_error(
            "cannot copy file", "/no/such/file.pdf",
            std::make_error_code(std::errc::no_such_file_or_directory));
    }
};

class TallyStepHandler final : public StepHandler {
public:
    GenericScriptStepRunResult run(const StepContext& context) const override {
        const auto seen = static_cast<std::int64_t>(context.log.previousOutputs.size());
        GenericScriptStepRunResult result;
        result.stdoutText = context.step.id + " saw " + std::to_string(seen);
        result.previousOutput = result.stdoutText;
        result.outputs = {{"seen", WorkflowValue(seen)},
                          {"staged", WorkflowValue(context.log.stagingDirectory.string())}};
        result.duration = 0.5;
        return result;
    }
};

TEST_F(GenericScriptWorkflowServiceTest, StepsRunThroughTheHandlersTheRegistryHolds) {
    const auto runner =
        std::make_shared<DefaultScriptRunner>(fixture.locator(), [](ScriptRuntime runtime) {
            return testing::systemInterpreter(rawValue(runtime));
        });
    auto extended = standardStepHandlers({runner, fixture.paths()});
    extended.add("tally", std::make_shared<TallyStepHandler>());
    extended.add("copy", std::make_shared<MissingFileStepHandler>());
    GenericScriptWorkflowService withTally(WorkflowLoader(fixture.locator()), extended,
                                           fixture.paths(), mainExecutor);
    EXPECT_TRUE(withTally.supportedStepTypes().contains("tally"));
    EXPECT_FALSE(service.supportedStepTypes().contains("tally"));
    EXPECT_TRUE(service.supportedStepTypes().contains("gmail-search"));

    writeFlow(scriptStep("first", "print_json.py") + typedStep("count", "tally"));
    const auto result = onWorker([&] { return withTally.run(loaded("demo"), request); });
    EXPECT_THAT(result.stdoutText, HasSubstr("count saw 1"));
    ASSERT_EQ(result.stepTimings.size(), 2u);
    EXPECT_EQ(result.stepTimings[1].durationSeconds, 0.5); // the handler's, not a clock's
    EXPECT_EQ(progress.back().stepID, "count");

    // Unregistered, the type is unknown: the run stops before the step, with no record.
    progress.clear();
    EXPECT_THROW(onWorker([&] { return service.run(loaded("demo"), request); }),
                 ExecutionEngineError);
    EXPECT_EQ(progress.size(), 2u);

    // A file-system failure is told in our words, with its path.
    writeFlow(typedStep("copy", "copy"));
    try {
        onWorker([&] { return withTally.run(loaded("demo"), request); });
        ADD_FAILURE() << "the copy step passed";
    } catch (const GenericScriptWorkflowFailure& copyFailure) {
        EXPECT_STREQ(copyFailure.what(),
                     "Could not use /no/such/file.pdf: No such file or directory");
    }

    // A known type whose handler this build lacks fails its step, with a record.
    writeFlow(scriptStep("first", "print_json.py") + typedStep("search", "gmail-search"));
    const auto failure = runExpectingFailure();
    EXPECT_STREQ(failure.what(),
                 "No handler can run steps of type \"gmail-search\" in this version of Quorlin.");
    ASSERT_EQ(failure.stepRecords.size(), 2u);
    EXPECT_EQ(failure.stepRecords[1].stepID, "search");
}

FlowDefinition demoFlow() {
    FlowDefinition flow;
    flow.id = "demo";
    return flow;
}

TEST_F(GenericScriptWorkflowServiceTest, RuntimeEnvironmentLayersSettingsRoutesPathsAndOverrides) {
    AppSettings settings;
    settings.anthropicAPIKey = "  sk-test \n";
    settings.ollamaURL = " ";
    const EnvironmentOverrides overrides{
        {"QUORLIN_FOLDER_INBOX", "/tmp/in"}, {"  ", "dropped"}, {"LLM_PROVIDER", "mine"}};
    FlowStep step;
    step.id = "summarize";
    const auto python = scriptEnvironment(fixture.paths(), demoFlow(), step, ScriptRuntime::python,
                                          settings, {}, overrides);
    EXPECT_EQ(python, (std::map<std::string, std::string>{
                          {"ANTHROPIC_API_KEY", "sk-test"},
                          {"ANTHROPIC_MODEL", "claude-3-7-sonnet-20250219"},
                          {"LLM_PROVIDER", "mine"}, // overrides win
                          {"PYTHONPATH",
                           (fixture.paths().root() / "script-dependencies/python/demo").string()},
                          {"QUORLIN_FOLDER_INBOX", "/tmp/in"}}));

    ClientProfileDocument profile;
    profile.clientProfile.llmRouting = profile.clientProfile.llmRouting.settingStepProvider(
        "demo", "summarize", " ollama: qwen2.5:7b ");
    const auto node =
        scriptEnvironment(fixture.paths(), demoFlow(), step, ScriptRuntime::node, {}, profile, {});
    EXPECT_EQ(node.at("NODE_PATH"),
              (fixture.paths().root() / "script-dependencies/node/demo/node_modules").string());
    EXPECT_EQ(node.at("OLLAMA_BASE_URL"), "http://localhost:11434");
    EXPECT_EQ(node.at("LLM_PROVIDER"), "ollama");
    EXPECT_EQ(node.at("OLLAMA_MODEL"), "qwen2.5:7b");
    EXPECT_FALSE(node.contains("ANTHROPIC_MODEL"));
}

} // namespace
} // namespace quorlin

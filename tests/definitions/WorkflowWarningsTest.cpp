#include "core/definitions/WorkflowWarnings.h"

#include "core/definitions/WorkflowLoader.h"
#include "tests/support/WorkflowFixture.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const fs::path testData = QUORLIN_TEST_DATA_DIR;

// A flow.yaml with the given steps (indented as list items under steps) and extra keys
// of flow and triggers.
std::string flowYaml(const std::string& steps, const std::string& flowExtra = "",
                     const std::string& triggers = "    - type: manual\n") {
    return "flow:\n  id: case\n  name: Case\n  version: 1.0.0\n" + flowExtra + "  triggers:\n" +
           triggers + "  steps:\n" + steps;
}

const std::string pythonStep = "    - id: fetch\n      name: Fetch\n      type: script-run\n"
                               "      config: {runtime: python, entrypoint: scripts/fetch.py}\n";

std::vector<std::string> messages(const std::vector<WorkflowWarning>& warnings) {
    std::vector<std::string> texts;
    for (const auto& warning : warnings) {
        texts.push_back(warning.message);
    }
    return texts;
}

class WorkflowWarningsTest : public ::testing::Test {
protected:
    // Writes a bundle of the given files into a fresh folder and lints it.
    std::vector<WorkflowWarning>
    lint(const std::vector<std::pair<std::string, std::string>>& files) {
        const auto bundle = scratch.path() / ("bundle-" + std::to_string(++bundles));
        for (const auto& [path, text] : files) {
            testing::writeTextFile(bundle / path, text);
        }
        return loader.lintWorkflow(bundle).warnings;
    }

    testing::TemporaryDirectory scratch;
    testing::WorkflowFixture fixture;
    WorkflowLoader loader{fixture.locator()};
    int bundles = 0;
};

// The flows we ship and the test bundles that run as they are must lint clean, or the
// warnings would teach people to ignore them.
TEST_F(WorkflowWarningsTest, WorkflowsThatRunGiveNoWarnings) {
    std::vector<fs::path> directories;
    for (const auto& entry :
         fs::directory_iterator(fs::path(QUORLIN_SOURCE_RESOURCES_DIR) / "Workflows")) {
        directories.push_back(entry.path());
    }
    ASSERT_GE(directories.size(), 3u);
    directories.push_back(testData / "approval-demo");
    directories.push_back(testData / "packages" / "_base");
    directories.push_back(testData / "bundles" / "bundled-shadows-builtin");
    for (const auto& directory : directories) {
        EXPECT_THAT(messages(loader.lintWorkflow(directory).warnings), IsEmpty()) << directory;
    }
}

// Test bundles that pass validation but stop at run time are told apart from the above.
TEST_F(WorkflowWarningsTest, ValidButBrokenTestBundlesAreNamed) {
    struct Case {
        const char* bundle;
        std::string stepID;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"builtin-block",
         "plain",
         {"Step 'plain': no 'runtime' in config or action; a script step needs one of python, "
          "node.",
          "Step 'plain': no 'entrypoint' in config or action; a script step needs the path of its "
          "script."}},
        {"native-block-without-entrypoint",
         "one",
         {"Step 'one': no 'target_folder' in action; a context step needs this folder.",
          "Step 'one': no 'read_folder' in action; a context step needs this folder."}},
    };
    for (const auto& [bundle, stepID, expected] : cases) {
        const auto warnings = loader.lintWorkflow(testData / "bundles" / bundle).warnings;
        EXPECT_THAT(messages(warnings), ElementsAreArray(expected)) << bundle;
        for (const auto& warning : warnings) {
            EXPECT_EQ(warning.stepID, stepID) << bundle;
        }
    }
}

// Linting loads as validation does: the same document and blocks, or the same error.
TEST_F(WorkflowWarningsTest, LintFailsAndResolvesExactlyLikeValidation) {
    for (const auto& entry : fs::directory_iterator(testData / "bundles")) {
        const auto directory = entry.path();
        std::string validated;
        std::string linted;
        try {
            const auto document = loader.loadWorkflow(directory / "flow.yaml");
            for (const auto& resolution : loader.validateWorkflowBlocks(document, directory)) {
                validated += resolution.stepID + " " + resolution.reference.text() + "\n";
            }
        } catch (const std::exception& error) {
            validated = std::string("error: ") + error.what();
        }
        try {
            for (const auto& resolution : loader.lintWorkflow(directory).blockResolutions) {
                linted += resolution.stepID + " " + resolution.reference.text() + "\n";
            }
        } catch (const std::exception& error) {
            linted = std::string("error: ") + error.what();
        }
        EXPECT_EQ(linted, validated) << directory;
    }
}

struct StepCase {
    const char* name;
    std::string flow;
    std::vector<std::pair<std::string, std::string>> extraFiles;
    std::vector<std::string> expected;
};

TEST_F(WorkflowWarningsTest, NamesWhatWillFailInAStep) {
    const StepCase cases[] = {
        {"a clean script step", flowYaml(pythonStep), {}, {}},
        {"misspelt step type",
         flowYaml("    - id: name\n      name: Name\n      type: llm-generate-structurd\n"),
         {},
         {"Step 'name': type 'llm-generate-structurd' is not a step type; did you mean "
          "'llm-generate-structured'?"}},
        {"misspelt step key",
         flowYaml(pythonStep + "      inptus: {a: 1}\n"),
         {},
         {"Step 'fetch': unknown key 'inptus'; did you mean 'inputs'?"}},
        {"a key far from any known one is left alone",
         flowYaml(pythonStep + "      notes: hi\n"),
         {},
         {}},
        {"misspelt key in a step output",
         flowYaml(pythonStep + "      outputs: [{name: x, type: string, shema: {}}]\n"),
         {},
         {"Step 'fetch': unknown key 'shema' in outputs[0]; did you mean 'schema'?"}},
        {"misspelt entrypoint",
         flowYaml("    - id: fetch\n      name: Fetch\n      type: script-run\n"
                  "      config: {runtime: python, entrypiont: scripts/fetch.py}\n"),
         {},
         {"Step 'fetch': unknown key 'entrypiont' in config; did you mean 'entrypoint'?"}},
        {"entrypoint on the step instead of in config",
         flowYaml("    - id: fetch\n      name: Fetch\n      type: script-run\n"
                  "      entrypoint: scripts/fetch.py\n      config: {runtime: python}\n"),
         {},
         {"Step 'fetch': 'entrypoint' belongs under config, not on the step itself."}},
        {"runtime and entrypoint from action",
         flowYaml("    - id: fetch\n      name: Fetch\n      type: script-run\n"
                  "      action: {runtime: node, entrypoint: scripts/fetch.py}\n"),
         {},
         {}},
        {"unknown runtime",
         flowYaml("    - id: x\n      name: X\n      type: script-run\n"
                  "      config: {runtime: python3, entrypoint: scripts/fetch.py}\n"),
         {},
         {"Step 'x': runtime 'python3' is not one of python, node."}},
        {"missing script",
         flowYaml("    - id: x\n      name: X\n      type: script-run\n"
                  "      config: {runtime: python, entrypoint: scripts/missing.py}\n"),
         {},
         {"Step 'x': script 'scripts/missing.py' does not exist in the bundle."}},
        {"script outside the bundle",
         flowYaml("    - id: x\n      name: X\n      type: script-run\n"
                  "      config: {runtime: python, entrypoint: ../scripts/fetch.py}\n"),
         {},
         {"Step 'x': script '../scripts/fetch.py' reaches outside the bundle; name it from the "
          "bundle folder."}},
    };
    for (const auto& [name, flow, extraFiles, expected] : cases) {
        auto files = extraFiles;
        files.emplace_back("flow.yaml", flow);
        files.emplace_back("scripts/fetch.py", "print('{}')\n");
        const auto warnings = lint(files);
        EXPECT_THAT(messages(warnings), ElementsAreArray(expected)) << name;
    }
}

TEST_F(WorkflowWarningsTest, ListsTheStepTypesWhenNoneIsClose) {
    const auto warnings =
        lint({{"flow.yaml", flowYaml("    - id: odd\n      name: Odd\n      type: teleport\n")}});
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].stepID, "odd");
    EXPECT_THAT(warnings[0].message,
                ::testing::StartsWith("Step 'odd': type 'teleport' is not a step type; the step "
                                      "types are runtime-check, dependency-check, script-run,"));
}

std::string llmStep(const std::string& config) {
    return "    - id: name\n      name: Name\n      type: llm-generate-structured\n      config: "
           "{" +
           config + "}\n";
}

TEST_F(WorkflowWarningsTest, ChecksWhatAnLLMStepReadsFromTheBundle) {
    const StepCase cases[] = {
        {"prompt present", flowYaml(llmStep("prompt_template: prompts/name.md")), {}, {}},
        {"prompt missing",
         flowYaml(llmStep("prompt_template: prompts/other.md")),
         {},
         {"Step 'name': prompt 'prompts/other.md' does not exist in the bundle."}},
        {"prompt outside the bundle",
         flowYaml(llmStep("prompt_template: /etc/passwd")),
         {},
         {"Step 'name': prompt '/etc/passwd' is not a path inside the bundle."}},
        {"prompt key misspelt",
         flowYaml(llmStep("promt_template: prompts/name.md")),
         {},
         {"Step 'name': unknown key 'promt_template' in config; did you mean 'prompt_template'?"}},
        {"no prompt at all",
         flowYaml(llmStep("llm_role: naming")),
         {},
         {"Step 'name': no 'prompt_template' in config; an LLM step needs the path of its "
          "prompt."}},
        {"fallback script present",
         flowYaml(llmStep("prompt_template: prompts/name.md, fallback_strategy: bundled_script, "
                          "fallback_script: scripts/fallback.py, fallback_runtime: python")),
         {{"scripts/fallback.py", "print('{}')\n"}},
         {}},
        {"fallback script missing and its runtime unknown",
         flowYaml(llmStep("prompt_template: prompts/name.md, fallback_strategy: bundled_script, "
                          "fallback_script: scripts/fallback.py, fallback_runtime: node18")),
         {},
         {"Step 'name': script 'scripts/fallback.py' does not exist in the bundle.",
          "Step 'name': fallback_runtime 'node18' is not one of python, node."}},
        {"fallback script not named",
         flowYaml(llmStep("prompt_template: prompts/name.md, fallback_strategy: bundled_script")),
         {},
         {"Step 'name': no 'fallback_script' in config; its fallback_strategy bundled_script "
          "needs the path of a script."}},
        {"a fallback that needs no script",
         flowYaml(llmStep("prompt_template: prompts/name.md, fallback_strategy: "
                          "news_briefing_summary, fallback_runtime: node18")),
         {},
         {}},
    };
    for (const auto& [name, flow, extraFiles, expected] : cases) {
        auto files = extraFiles;
        files.emplace_back("flow.yaml", flow);
        files.emplace_back("prompts/name.md", "Name {{context}}\n");
        EXPECT_THAT(messages(lint(files)), ElementsAreArray(expected)) << name;
    }
}

TEST(WorkflowWarnings, PromptThroughALinkIsRefused) {
    testing::TemporaryDirectory bundle;
    const auto flow = flowYaml(llmStep("prompt_template: prompts/name.md"));
    bundle.write("flow.yaml", flow);
    bundle.write("real.md", "Name\n");
    fs::create_directories(bundle.path() / "prompts");
    fs::create_symlink(bundle.path() / "real.md", bundle.path() / "prompts" / "name.md");
    const auto document = decodeWorkflowDocumentYaml(flow);
    EXPECT_THAT(messages(workflowWarnings(document, parseYaml(flow), bundle.path(), {})),
                ElementsAreArray({"Step 'name': prompt 'prompts/name.md' is a symbolic link; put "
                                  "the file itself in the bundle."}));
}

// Steps a, b, c in order; step b holds the given inputs.
std::string templateFlow(const std::string& inputs) {
    return flowYaml(pythonStep +
                    "    - id: b\n      name: B\n"
                    "      block: human.batch-approval@0.1.0\n"
                    "      type: batch-approval\n      inputs: " +
                    inputs +
                    "\n    - id: collect\n      name: Collect\n      type: script-run\n"
                    "      config: {runtime: python, entrypoint: scripts/fetch.py}\n");
}

TEST_F(WorkflowWarningsTest, TemplatesMustNameAStepThatHasRun) {
    const StepCase cases[] = {
        {"an earlier step", templateFlow("{table: '{{ steps.fetch.outputs.rows }}'}"), {}, {}},
        {"an earlier step, pieces spaced out",
         templateFlow("{table: '{{steps..fetch.outputs}}'}"),
         {},
         {}},
        {"a later step",
         templateFlow("{table: '{{steps.collect.output}}'}"),
         {},
         {"Step 'b': template '{{steps.collect.output}}' names step 'collect', which runs later."}},
        {"its own step",
         templateFlow("{table: '{{ steps.b.outputs }}'}"),
         {},
         {"Step 'b': template '{{ steps.b.outputs }}' names step 'b', its own step, whose outputs "
          "do not exist while it runs."}},
        {"no such step, with a near one",
         templateFlow("{table: '{{steps.fetc.outputs.rows}}'}"),
         {},
         {"Step 'b': template '{{steps.fetc.outputs.rows}}' names step 'fetc', which is not in "
          "this flow; did you mean 'fetch'?"}},
        {"no such step, nothing near",
         templateFlow("{table: '{{steps.somewhere.outputs.rows}}'}"),
         {},
         {"Step 'b': template '{{steps.somewhere.outputs.rows}}' names step 'somewhere', which "
          "is not in this flow."}},
        {"deep in a value, twice in one text, once reported",
         templateFlow(
             "{table: [{path: 'out/{{steps.collect.outputs.x}}/{{steps.collect.outputs.x}}'}]}"),
         {},
         {"Step 'b': template '{{steps.collect.outputs.x}}' names step 'collect', which runs "
          "later."}},
        {"other templates are not step references",
         templateFlow("{table: '{{ profile.client_name }} {{ current_month | archive.folder }}'}"),
         {},
         {}},
    };
    for (const auto& [name, flow, extraFiles, expected] : cases) {
        const auto warnings = lint({{"flow.yaml", flow}, {"scripts/fetch.py", "print('{}')\n"}});
        EXPECT_THAT(messages(warnings), ElementsAreArray(expected)) << name;
        for (const auto& warning : warnings) {
            EXPECT_EQ(warning.stepID, "b") << name;
        }
    }
}

TEST_F(WorkflowWarningsTest, NamesFlowWideMistakes) {
    const StepCase cases[] = {
        {"trigger type misspelt",
         flowYaml(pythonStep, "",
                  "    - type: manual\n    - type: shedule\n      cron: 0 8 * * *\n"),
         {},
         {"Trigger 2: type 'shedule' is not a trigger type; did you mean 'schedule'?"}},
        {"trigger type unknown",
         flowYaml(pythonStep, "", "    - type: webhook\n"),
         {},
         {"Trigger 1: type 'webhook' is not a trigger type; use one of manual, schedule, "
          "scheduled."}},
        {"misspelt keys of the flow and a trigger",
         flowYaml(pythonStep, "  descripton: Lists\n",
                  "    - type: schedule\n      crn: 0 8 * * *\n"),
         {},
         {"In flow: unknown key 'descripton'; did you mean 'description'?",
          "In flow.triggers[0]: unknown key 'crn'; did you mean 'cron'?"}},
        {"every key the format has",
         flowYaml(pythonStep +
                      "      block: \n      on_error: warn\n      replaces_manual_minutes: 3\n"
                      "      capabilities: [network]\n      outputs: [{name: x, type: string, "
                      "schema: {}}]\n",
                  "  description: D\n  requires_profile_schema: [a]\n"
                  "  roi: {replaces_manual_minutes_per_run: 1, expected_runs_per_month: 2}\n"
                  "  llm_requirements:\n    naming: {label: L, default: x, allowed: [x], "
                  "quality_hint: q}\n"
                  "  artifacts: [{type: t, path: p, label: l, action: a, fields: [{label: l, "
                  "value: v}]}]\n"
                  "  audit: {record_llm_calls: true, record_cost: true, "
                  "record_manual_minutes_replaced: true,\n"
                  "          record_step_timings: true, record_file_operations: true}\n"
                  "  on_step_failure: {default: halt, quarantine_folder: q}\n",
                  "    - {type: schedule, cron: 0 8 * * *}\n    - {type: scheduled}\n"),
         {},
         {}},
    };
    for (const auto& [name, flow, extraFiles, expected] : cases) {
        const auto warnings = lint({{"flow.yaml", flow}, {"scripts/fetch.py", "print('{}')\n"}});
        EXPECT_THAT(messages(warnings), ElementsAreArray(expected)) << name;
        for (const auto& warning : warnings) {
            EXPECT_EQ(warning.stepID, "") << name;
        }
    }
}

TEST_F(WorkflowWarningsTest, ChecksTheScriptBlocksOfTheBundle) {
    const std::string twoSteps = "    - id: one\n      name: One\n      block: mine@1.0.0\n"
                                 "      type: script-run\n"
                                 "    - id: two\n      name: Two\n      block: mine@1.0.0\n"
                                 "      type: script-run\n";
    const auto manifest = [](const std::string& extra, const std::string& runtime) {
        return "id: mine\nname: Mine\nversion: 1.0.0\nkind: script\n" + extra +
               "execution:\n  kind: script\n  runtime: " + runtime +
               "\n  entrypoint: scripts/run.py\n";
    };
    const StepCase cases[] = {
        {"a managed runtime name",
         flowYaml(twoSteps),
         {{"blocks/mine/block.yaml", manifest("", "managed_runtime.node")}},
         {}},
        {"unknown runtime, said for each step",
         flowYaml(twoSteps),
         {{"blocks/mine/block.yaml", manifest("", "python3")}},
         {"Step 'one': runtime 'python3' of block mine is not one of python, node.",
          "Step 'two': runtime 'python3' of block mine is not one of python, node."}},
        {"a blank runtime leaves it to the step",
         flowYaml(twoSteps),
         {{"blocks/mine/block.yaml", manifest("", "' '")}},
         {"Step 'one': no 'runtime' in config or action; a script step needs one of python, node.",
          "Step 'two': no 'runtime' in config or action; a script step needs one of python, "
          "node."}},
        // The run refuses a type it does not know before it looks at the step's block.
        {"a script block's handler type must still be a step type",
         flowYaml("    - id: one\n      name: One\n      block: mine@1.0.0\n"
                  "      type: script-runner\n"),
         {{"blocks/mine/block.yaml", manifest("handler_type: script-runner\n", "python")}},
         {"Step 'one': type 'script-runner' is not a step type; did you mean 'script-run'?"}},
        {"misspelt manifest keys, said once",
         flowYaml(twoSteps),
         {{"blocks/mine/block.yaml", manifest("summry: Runs\n", "python\n  timeout_second: 5")}},
         {"Step 'one': unknown key 'summry' in blocks/mine/block.yaml; did you mean 'summary'?",
          "Step 'one': unknown key 'timeout_second' in blocks/mine/block.yaml (execution); did "
          "you mean 'timeout_seconds'?"}},
    };
    for (const auto& [name, flow, extraFiles, expected] : cases) {
        auto files = extraFiles;
        files.emplace_back("flow.yaml", flow);
        files.emplace_back("scripts/run.py", "print('{}')\n");
        EXPECT_THAT(messages(lint(files)), ElementsAreArray(expected)) << name;
    }
}

TEST_F(WorkflowWarningsTest, ContextStepsNeedTheirFolders) {
    const auto contextStep = [](const std::string& action) {
        return flowYaml(
            "    - id: ctx\n      name: Ctx\n      type: context-load\n      action: {" + action +
            "}\n");
    };
    const StepCase cases[] = {
        {"both folders", contextStep("target_folder: ~/Out, read_folder: ~/In"), {}, {}},
        {"one misspelt, one blank",
         contextStep("target_foldr: ~/Out, read_folder: ' '"),
         {},
         {"Step 'ctx': unknown key 'target_foldr' in action; did you mean 'target_folder'?",
          "Step 'ctx': 'read_folder' in action is blank or not text; a context step needs this "
          "folder."}},
    };
    for (const auto& [name, flow, extraFiles, expected] : cases) {
        EXPECT_THAT(messages(lint({{"flow.yaml", flow}})), ElementsAreArray(expected)) << name;
    }
}

TEST_F(WorkflowWarningsTest, ABundleWithAManifestIsLintedFromItsEntrypoint) {
    const auto directory = scratch.path() / "plugin";
    testing::writeTextFile(directory / "main.yaml",
                           flowYaml("    - id: x\n      name: X\n      type: script-run\n"
                                    "      config: {runtime: python3, entrypoint: run.py}\n"));
    testing::writeTextFile(directory / "run.py", "print('{}')\n");
    WorkflowBundleReference reference;
    reference.flowID = "case";
    reference.directory = directory;
    reference.manifest = WorkflowPluginManifest{};
    reference.manifest->plugin.entrypoint = "main.yaml";
    const auto linted = loader.lintWorkflowBundle(reference);
    EXPECT_EQ(linted.document.flow.id, "case");
    EXPECT_THAT(messages(linted.warnings),
                ElementsAreArray({"Step 'x': runtime 'python3' is not one of python, node."}));
}

} // namespace
} // namespace quorlin

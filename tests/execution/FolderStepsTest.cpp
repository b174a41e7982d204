#include "core/definitions/WorkflowLoader.h"
#include "core/execution/ContextSteps.h"
#include "core/execution/FolderSteps.h"
#include "core/execution/RunContext.h"
#include "core/foundation/AtomicFile.h"
#include "tests/support/WorkflowFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

FlowStep stepWith(const std::string& type, WorkflowValueMap config) {
    FlowStep step;
    step.id = "pick";
    step.name = "Pick";
    step.type = type;
    step.config = std::move(config);
    return step;
}

TEST(FolderSteps, SettingAndEnvironmentKeys) {
    EXPECT_EQ(workflowFolderEnvironmentKey("my-flow", "out dir"), "QUORLIN_FOLDER_MY_FLOW_OUT_DIR");
    EXPECT_EQ(workflowFileEnvironmentKey("flow", "réçu"), "QUORLIN_FILE_FLOW_RÉÇU");
    EXPECT_EQ(stepSettingKey(stepWith("x", {{"setting_key", "  "}})), "pick");
    EXPECT_EQ(stepSettingKey(stepWith("x", {{"setting_key", " inbox "}})), "inbox");
    EXPECT_EQ(stepEnvironmentKey(stepWith("x", {{"env", "MY_KEY"}}), "flow", true), "MY_KEY");

    FlowDefinition flow;
    flow.id = "flow";
    flow.steps = {stepWith("filesystem-output-folder", {{"setting_key", "reports"}}),
                  stepWith("filesystem-input-file", {})};
    EXPECT_EQ(folderSettingEnvironmentKey(flow, "reports"), "QUORLIN_FOLDER_FLOW_REPORTS");
    EXPECT_FALSE(folderSettingEnvironmentKey(flow, "pick"));
    EXPECT_EQ(firstFileSettingEnvironmentKey(flow), "QUORLIN_FILE_FLOW_PICK");
}

TEST(FolderSteps, AllowedExtensionsAreNormalised) {
    const std::pair<WorkflowValue, std::set<std::string>> cases[] = {
        {".PDF, csv", {"pdf", "csv"}},
        {WorkflowValue::Array{" ..Txt.", 3, ""}, {"txt"}},
        {true, {}},
        {",,", {}},
    };
    for (const auto& [value, expected] : cases) {
        EXPECT_EQ(allowedFileExtensions(stepWith("x", {{"allowed_extensions", value}})), expected);
    }
}

class FolderStepsRunTest : public ::testing::Test {
protected:
    std::string inputFileError(const FlowStep& step, const EnvironmentOverrides& overrides) {
        try {
            steps.inputFile(flow, step, profile, overrides);
        } catch (const Error& error) {
            return error.what();
        }
        return "no error";
    }

    testing::WorkflowFixture fixture;
    FolderSteps steps{fixture.paths()};
    FlowDefinition flow = [] {
        FlowDefinition definition;
        definition.id = "flow";
        definition.name = "Flow";
        return definition;
    }();
    WorkflowValue profile = WorkflowValue::Object{{"paths", WorkflowValue::Object{{"root", fixture.root().string()}}}};
};

TEST_F(FolderStepsRunTest, InputFileChecksWhatTheUserPicked) {
    fixture.writeBundleFile("x", "report.PDF", "12345");
    const auto file = (fixture.root() / "resources/Workflows/x/report.PDF").string();
    const auto step = stepWith("filesystem-input-file", {{"allowed_extensions", ".pdf, csv"}});
    const EnvironmentOverrides chosen{{"QUORLIN_FILE_FLOW_PICK", " " + file + " "}};

    const auto result = steps.inputFile(flow, step, profile, chosen);
    EXPECT_EQ(result.outputs.at("file_name"), WorkflowValue("report.PDF"));
    EXPECT_EQ(result.outputs.at("extension"), WorkflowValue("pdf"));
    EXPECT_EQ(result.outputs.at("size_bytes"), WorkflowValue(5));

    EXPECT_EQ(inputFileError(step, {{"QUORLIN_FILE_FLOW_PICK", "   "}}),
              "Input file is not configured. Select a file for pick.");
    EXPECT_EQ(inputFileError(step, {{"QUORLIN_FILE_FLOW_PICK", "/no/such/file.pdf"}}),
              "Input file is not configured or does not exist. Select a file for pick.");
    EXPECT_EQ(inputFileError(step, {{"QUORLIN_FILE_FLOW_PICK", fixture.root().string()}}),
              "Input file path is a directory: " + fixture.root().string());
    EXPECT_EQ(inputFileError(stepWith("filesystem-input-file", {{"must_exist", false}, {"allowed_extensions", "pdf"}}),
                             {{"QUORLIN_FILE_FLOW_PICK", "/no/such/README"}}),
              "Input file extension . is not allowed for pick. Allowed: pdf");
    const auto missingOk = steps.inputFile(
        flow, stepWith("filesystem-input-file", {{"must_exist", false}, {"default_path", "{{profile.paths.root}}/later.csv"}}),
        profile, {});
    EXPECT_EQ(missingOk.outputs.at("size_bytes"), WorkflowValue(0));
    EXPECT_EQ(missingOk.outputs.at("file"), WorkflowValue((fixture.root() / "later.csv").string()));
}

TEST_F(FolderStepsRunTest, FoldersFallBackToTheManagedOnes) {
    const auto input = steps.inputFolder(flow, stepWith("filesystem-input-folder", {{"list_files", true}}), profile, {});
    EXPECT_EQ(input.outputs.at("folder"), WorkflowValue(fixture.paths().workflowInputDirectory("flow", "pick").string()));
    EXPECT_EQ(input.outputs.at("files"), WorkflowValue(WorkflowValue::Array{}));

    const auto target = fixture.root() / "chosen" / "deep";
    const auto output = steps.outputFolder(flow, stepWith("filesystem-output-folder", {}), profile,
                                           {{"QUORLIN_FOLDER_FLOW_PICK", target.string()}});
    EXPECT_TRUE(std::filesystem::is_directory(target));
    EXPECT_EQ(outputFolder({{"pick", output.outputs}}), target);

    EXPECT_THROW(steps.inputFolder(flow, stepWith("filesystem-input-folder", {{"must_exist", true}}), profile,
                                   {{"QUORLIN_FOLDER_FLOW_PICK", "/no/such/folder"}}),
                 WorkflowLoaderError);
}

TEST(ContextSteps, TargetMonthsAndNamingExamples) {
    const auto march = targetReferenceDate(std::string("2-0-2-6-0-3"));
    ASSERT_TRUE(march);
    EXPECT_EQ(formatLocalMinute(*march), "2026-03-01 00:00");
    EXPECT_EQ(targetReferenceDate(std::string("202603")), march);
    EXPECT_FALSE(targetReferenceDate(std::string("  ")));
    for (const char* bad : {"2026-13", "2026", "abcd-01", "2026-003"}) {
        try {
            targetReferenceDate(std::string(bad));
            ADD_FAILURE() << bad;
        } catch (const GenericNativeWorkflowError& error) {
            EXPECT_EQ(error.what(), "Target Year-Month " + std::string(bad) + " is invalid. Use YYYY-MM or YYYYMM.");
        }
    }

    testing::TemporaryDirectory directory;
    const auto history = directory.path() / "history";
    std::filesystem::create_directories(history);
    EXPECT_THROW(namingExamples(history, directory.path()), GenericNativeWorkflowError); // empty: dataset
    directory.write("data/default_naming_examples.json", R"(["2024-01 Acme.pdf"])");
    EXPECT_THAT(namingExamples(history, directory.path()), ::testing::ElementsAre("2024-01 Acme.pdf"));
    directory.write("history/b.pdf", "");
    directory.write("history/.hidden", "");
    directory.write("history/a.pdf", "");
    EXPECT_THAT(namingExamples(history, directory.path()), ::testing::ElementsAre("a.pdf", "b.pdf"));
}


TEST(RunChoicesTest, ChoicesThatCannotWorkAreRefusedBeforeTheRun) {
    testing::TemporaryDirectory directory;
    const auto existing = directory.path().string();
    const auto file = directory.path() / "receipt.pdf";
    writeFileAtomically(file, "%PDF");
    FlowDefinition flow;
    flow.id = "inventory";
    flow.steps = {stepWith("filesystem-input-folder", {{"setting_key", "source_folder"}}),
                  stepWith("filesystem-output-folder", {{"setting_key", "report_folder"}})};
    flow.steps[1].id = "report";

    struct Case {
        RunChoices choices;
        std::string error; // empty: accepted
    };
    const std::vector<Case> cases{
        {{std::nullopt, {{"source_folder", existing}, {"report_folder", existing + "/new"}}}, ""},
        {{std::nullopt, {{"elsewhere", existing}}},
         "Workflow inventory has no folder setting named 'elsewhere'; its folder settings are: "
         "source_folder, report_folder."},
        {{std::nullopt, {{"source_folder", existing + "/missing"}}},
         "The folder for source_folder does not exist: " + existing + "/missing"},
        {{std::nullopt, {{"report_folder", file}}},
         "The path for report_folder is not a folder: " + file.string()},
        {{file, {}}, "Workflow inventory takes no input file."},
    };
    for (const auto& item : cases) {
        std::string error;
        try {
            checkRunChoices(flow, item.choices);
        } catch (const RunChoiceError& refused) {
            error = refused.what();
        }
        EXPECT_EQ(error, item.error);
    }

    FlowDefinition takesFile;
    takesFile.id = "reader";
    takesFile.steps = {stepWith("filesystem-input-file", {})};
    EXPECT_NO_THROW(checkRunChoices(takesFile, {file, {}}));
    EXPECT_THROW(checkRunChoices(takesFile, {directory.path() / "none.pdf", {}}), RunChoiceError);
    EXPECT_EQ(choiceOverrides(takesFile, {file, {}}).at("QUORLIN_FILE_READER_PICK"), file.string());
}

} // namespace
} // namespace quorlin

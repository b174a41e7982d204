#include "core/state/FolderSettingPresentation.h"
#include "core/state/RunPresentation.h"
#include "core/state/SchedulePresentation.h"
#include "core/state/StepPresentation.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

#include <ctime>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

AuditRun run(std::string flowID, std::string timestamp, std::string status, double cost = 0,
             std::int64_t minutes = 0) {
    AuditRun value;
    value.id = Uuid::random();
    value.flowID = std::move(flowID);
    value.timestamp = std::move(timestamp);
    value.status = std::move(status);
    value.llmCostUSD = cost;
    value.minutesSaved = minutes;
    value.durationSeconds = 41.25;
    return value;
}

TEST(RunPresentationTest, StatsCountOneFlowsRunsNewestFirst) {
    EXPECT_EQ(runStats("receipts", {run("other", "2024-01-01 00:00", "Success")}), FlowRunStats{});

    std::vector<AuditRun> runs;
    const char* statuses[] = {"Success",  "Failed", "success", "Success",
                              "Rejected", "Failed", "Success"};
    for (int day = 1; day <= 7; ++day) {
        runs.push_back(run("receipts", "2024-01-0" + std::to_string(day) + " 09:00",
                           statuses[day - 1], 0.125, 10));
    }
    runs.push_back(run("other", "2024-02-01 09:00", "Success", 5, 100));
    // Two runs in one minute keep the order they were written in.
    runs.push_back(run("receipts", "2024-01-07 09:00", "Failed"));
    const auto stats = runStats("receipts", runs);
    EXPECT_EQ(stats.totalRuns, 8);
    EXPECT_EQ(stats.successRate, 37) << "3 of 8, rounded down; \"success\" is not \"Success\"";
    EXPECT_EQ(stats.totalMinutesSaved, 70);
    EXPECT_EQ(stats.totalCost, "$0.88");
    ASSERT_EQ(stats.recentRuns.size(), 5U);
    EXPECT_EQ(stats.recentRuns[0].id, runs[6].id);
    EXPECT_EQ(stats.recentRuns[1].id, runs[8].id);
    EXPECT_EQ(stats.recentRuns[4].timestamp, "2024-01-04 09:00");
    EXPECT_EQ(stats.recentRuns[0].llmCost, "$0.12");
    EXPECT_EQ(stats.recentRuns[0].duration, "41.2s");
}

TEST(RunPresentationTest, TotalCostAddsTheAmountsAsShown) {
    std::vector<AuditEntry> entries;
    for (const double cost : {0.004, 0.004, 0.004, 1.006}) {
        entries.push_back(makeAuditEntry(run("receipts", "t", "Success", cost, 3)));
    }
    entries.back().llmCost = "not money";
    EXPECT_EQ(totalCost(entries), "$0.00") << "three rows of $0.00 and one unreadable";
    EXPECT_EQ(totalMinutesSaved(entries), 12);
    EXPECT_EQ(makeAuditEntry(run("python-hello-world-v1", "t", "Success")).symbol, "terminal");
    EXPECT_EQ(makeAuditEntry(run("contract-audit-v1", "t", "Success")).symbol, "square.and.pencil");
}

class SchedulePresentationTest : public ::testing::Test {
protected:
    SchedulePresentationTest() { tzset(); }
    ~SchedulePresentationTest() override { tzset(); }

    static FlowDefinition flow(std::optional<std::string> cron) {
        FlowDefinition definition;
        definition.id = "receipts";
        definition.triggers.push_back({"manual", std::nullopt});
        if (cron) {
            definition.triggers.push_back({"schedule", cron});
        }
        return definition;
    }

    testing::ScopedEnvironment zone{"TZ", "UTC0"};
    SystemTime now = *parseLocalMinute("2024-05-01 07:30");
};

TEST_F(SchedulePresentationTest, PreferenceOverTheFlowsOwnExpression) {
    using Preference = std::optional<WorkflowSchedulePreference>;
    const std::string enter = "Enter a cron expression, e.g. 0 8 * * *";
    const std::string fiveFields = "Cron must be 5 fields: minute hour day month weekday";
    const struct {
        std::string name;
        std::optional<std::string> cron;
        Preference preference;
        std::optional<std::string> fallback;
        FlowSchedulePresentation expected;
    } cases[] = {
        {"the flow's own, on by default",
         "0 8 * * *",
         std::nullopt,
         std::nullopt,
         {true, "", "0 8 * * *", "2024-05-01 08:00", "Daily at 08:00", std::nullopt}},
        {"switched off, expression kept",
         "0 8 * * *",
         WorkflowSchedulePreference{false, ""},
         std::nullopt,
         {false, "", "0 8 * * *", "Disabled", "Schedule disabled", std::nullopt}},
        {"no schedule at all",
         std::nullopt,
         std::nullopt,
         std::nullopt,
         {false, "", std::nullopt, "Manual trigger", "Manual", std::nullopt}},
        {"on with nothing to run by",
         std::nullopt,
         WorkflowSchedulePreference{true, "  "},
         std::nullopt,
         {true, "  ", std::nullopt, "Manual trigger", "Manual", enter}},
        {"a bad one is reported while off",
         std::nullopt,
         WorkflowSchedulePreference{false, " 0 8 * "},
         std::nullopt,
         {false, " 0 8 * ", std::nullopt, "Invalid cron", "Invalid cron: 0 8 *", fiveFields}},
        {"the user's own wins",
         "0 8 * * *",
         WorkflowSchedulePreference{true, "0 18 * * 1-5"},
         std::nullopt,
         {true, "0 18 * * 1-5", "0 8 * * *", "2024-05-01 18:00", "Weekdays at 18:00",
          std::nullopt}},
        {"a fallback stands for the flow's own",
         "0 8 * * *",
         std::nullopt,
         "30 7 * * *",
         {true, "", "30 7 * * *", "2024-05-02 07:30", "Cron: 30 7 * * *", std::nullopt}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(schedulePresentation(flow(c.cron), c.preference, c.fallback, now), c.expected)
            << c.name;
    }
}

TEST(StepPresentationTest, WordsForEveryKindOfValueAndStep) {
    const std::pair<WorkflowValue, std::string> values[] = {
        {WorkflowValue("text as is"), "text as is"},
        {WorkflowValue(42), "42"},
        {WorkflowValue(0.5), "0.5"},
        {WorkflowValue(2.0), "2.0"},
        {WorkflowValue(false), "false"},
        {WorkflowValue(), "null"},
        {WorkflowValue(WorkflowValue::Array{1, "b", WorkflowValue::Array{true}}), "1, b, true"},
        {WorkflowValue(WorkflowValue::Object{{"z", 1}, {"a", "x"}}), "a: x, z: 1"},
    };
    for (const auto& [value, text] : values) {
        EXPECT_EQ(renderWorkflowValue(value), text);
    }
    EXPECT_EQ(humanizedLLMRole("naming_proposal"), "Naming Proposal");
    EXPECT_EQ(humanizedLLMRole("contract_review_v2"), "Contract Review V2");
    EXPECT_TRUE(permissionsRequireNetwork({"filesystem.read", "Gmail.readonly"}));
    EXPECT_TRUE(permissionsRequireNetwork({"network"}));
    EXPECT_FALSE(permissionsRequireNetwork({"networking", "filesystem.write"}));

    FlowStep step;
    step.id = "ask";
    step.name = "Ask";
    step.type = "script-run";
    EXPECT_EQ(accentFor(step), StepAccent::deterministic);
    step.config = WorkflowValueMap{{"llm_role", "contract_review"}, {"max_tokens", 300}};
    EXPECT_EQ(accentFor(step), StepAccent::llm);
    step.type = "batch-approval";
    EXPECT_EQ(accentFor(step), StepAccent::human);
    step.type = "llm-generate-structured";
    step.outputs = std::vector<StepOutputDefinition>{
        {"review", "object", WorkflowValueMap{{"risks", "array"}}}};
    step.capabilities = {"Network.anthropic"};
    step.onError = StepErrorBehavior::warn;

    const auto shown = makeStepPresentation(step);
    EXPECT_EQ(shown.role, "contract_review");
    EXPECT_EQ(shown.accent, StepAccent::llm);
    EXPECT_EQ(shown.configItems, (std::vector<StepKeyValuePresentation>{
                                     {"ask-config-llm_role", "llm_role", "contract_review"},
                                     {"ask-config-max_tokens", "max_tokens", "300"}}));
    ASSERT_EQ(shown.outputItems.size(), 1U);
    EXPECT_EQ(shown.outputItems[0].id, "ask-output-review");
    EXPECT_EQ(shown.outputItems[0].schema[0].id, "ask-output-review-schema-risks");
    EXPECT_TRUE(shown.requiresNetwork);
    EXPECT_EQ(shown.onError, "warn");
}

TEST(FolderSettingPresentationTest, KeysAsRunsUseThemAndTheUsersOwnFolders) {
    const testing::TemporaryDirectory directory;
    const AppSupportPaths paths(directory.path() / "data");
    FlowDefinition flow;
    flow.id = "contracts";
    const auto step = [](std::string id, std::string type, WorkflowValueMap config) {
        FlowStep value;
        value.id = id;
        value.name = "Step " + id;
        value.type = std::move(type);
        value.config = std::move(config);
        return value;
    };
    flow.steps = {step("contract", "filesystem-input-file",
                       {{"setting_key", "contract_file"}, {"allowed_extensions", "md, .TXT"}}),
                  step("source", "filesystem-input-folder", {{"setting_key", "source_folder"}}),
                  step("report", "filesystem-output-folder", {{"env", "MY_REPORTS"}}),
                  step("read", "script-run", {})};
    FlowLibraryPreferencesDocument preferences;
    preferences.folderPreferences["contracts"] = {
        {"source_folder", {"  /home/me/in ", std::nullopt}}, {"report", {"   ", std::nullopt}}};

    const auto settings = workflowFolderSettings(flow, preferences, paths);
    ASSERT_EQ(settings.size(), 3U);
    const auto managed = [&](const char* kind, const char* key) {
        return (directory.path() / "data" / "workflow-data" / "contracts" / kind / key).string();
    };
    EXPECT_EQ(settings[0],
              (WorkflowFolderSettingPresentation{"contracts.contract_file",
                                                 "contracts",
                                                 "contract",
                                                 "Step contract",
                                                 WorkflowFolderKind::file,
                                                 "contract_file",
                                                 "QUORLIN_FILE_CONTRACTS_CONTRACT_FILE",
                                                 "",
                                                 managed("inputs", "contract_file"),
                                                 true,
                                                 "Pick on run",
                                                 {"md", "txt"}}));
    EXPECT_EQ(settings[1].path, "/home/me/in");
    EXPECT_EQ(settings[1].status, "Custom");
    EXPECT_FALSE(settings[1].usesManagedDefault);
    EXPECT_EQ(settings[2].settingKey, "report");
    EXPECT_EQ(settings[2].environmentKey, "MY_REPORTS");
    EXPECT_EQ(settings[2].path, managed("outputs", "report")) << "a blank choice is no choice";
    EXPECT_EQ(settings[2].status, "App Managed");
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "data")) << "showing creates nothing";
}

} // namespace
} // namespace quorlin

#include "core/definitions/ClientProfileStore.h"
#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/YamlWriter.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace quorlin {
namespace {

// A valid profile whose llm_routing and budget are given.
std::string profileText(std::string_view routing = "{}", std::string_view budget = "25") {
    return R"(client_profile:
  client_name: Acme
  approvers: {owner: Jo}
  gmail:
    account: jo@acme.test
    auth_method: gmail-api-oauth
    search_query: "has:attachment"
    target_year_month: 2026-03
  paths:
    receipts_root: ~/Receipts
    folder_name_template: "{{YYYY}}-{{MM}}"
  llm_routing: )" +
           std::string(routing) + "\n  monthly_llm_budget_usd: " + std::string(budget) +
           "\n  unknown_key: ignored\n";
}

ClientProfile sampleProfile(LLMRouting routing = LLMRouting()) {
    return {"Acme",
            {"Jo"},
            {"jo@acme.test", "gmail-api-oauth", "has:attachment", "2026-03"},
            {"~/Receipts", "{{YYYY}}-{{MM}}"},
            std::move(routing),
            25};
}

TEST(YamlWriter, StringsReadBackAsTheSameText) {
    std::vector<std::string> plain{"plain words", "~/Documents/Quorlin", "ollama:qwen2.5:7b",
                                   "日本語 ü", std::string(300, 'x')};
    // Nulls, bools, numbers, a merge key, then texts libyaml can't write plain.
    std::vector<std::string> quoted{"~", "null", "", "true", "False", "yes", "<<"};
    quoted.insert(quoted.end(), {"010", "0x1F", "1_000", "1:30", ".5", "-.inf", "NaN", "Infinity"});
    quoted.insert(quoted.end(), {"a: b", "# hash", "- dash", "{{YYYY}}-{{MM}}", "[x]", " padded "});
    std::vector<std::string> anyStyle{"line\nbreak\n", "tab\tand\x01control", "it's \"quoted\""};
    for (const auto* texts : {&plain, &quoted, &anyStyle}) {
        for (const auto& text : *texts) {
            SCOPED_TRACE(text);
            YamlWriter writer;
            writer.beginMapping();
            writer.key(text);
            writer.string(text);
            writer.endMapping();
            const auto root = parseYaml(writer.finish());
            ASSERT_EQ(root.entries.size(), 1U);
            EXPECT_EQ(root.entries[0].first, text);
            EXPECT_EQ(workflowValueFromYaml(root.entries[0].second), WorkflowValue(text));
            if (texts != &anyStyle) {
                EXPECT_EQ(root.entries[0].second.plain, texts == &plain);
            }
        }
    }
}

TEST(YamlWriter, WritesBlockStyleInTheGivenOrder) {
    YamlWriter writer;
    writer.beginMapping();
    writer.key("zeta");
    writer.integer(-7);
    writer.key("alpha");
    writer.beginSequence();
    writer.boolean(true);
    writer.null();
    writer.string("x");
    writer.endSequence();
    writer.key("empty");
    writer.beginMapping();
    writer.endMapping();
    writer.key("nested");
    writer.beginMapping();
    writer.key("k");
    writer.string("v");
    writer.endMapping();
    writer.endMapping();
    const auto text = writer.finish();
    EXPECT_EQ(text, "zeta: -7\nalpha:\n- true\n- null\n- x\nempty: {}\nnested:\n  k: v\n");
    const auto value = workflowValueFromYaml(parseYaml(text));
    EXPECT_EQ(value.object()->at("alpha"),
              WorkflowValue(WorkflowValue::Array{true, WorkflowValue::Null{}, "x"}));
}

TEST(YamlWriter, BadInputAndMisuseAreErrors) {
    YamlWriter invalid;
    invalid.beginSequence();
    EXPECT_THROW(invalid.string("\xff\xfe"), YamlWriterError);

    YamlWriter unbalanced;
    unbalanced.beginMapping();
    unbalanced.key("open");
    EXPECT_THROW(unbalanced.finish(), YamlWriterError);
}

TEST(ClientProfileDocument, ReadsEveryField) {
    const auto document = decodeClientProfileDocumentYaml(profileText(
        "{triage: local, summary: ollama, workflows: {receipts-to-folder-v1: local}, "
        "steps: {receipts.v1.propose: claude-sonnet}, default_provider: anthropic:claude-x}"));
    const LLMRouting routing(
        "claude-sonnet", "anthropic:claude-x", {{"summary", "ollama"}, {"triage", "local"}},
        {{"receipts-to-folder-v1", "local"}}, {{"receipts.v1.propose", "claude-sonnet"}});
    EXPECT_EQ(document.clientProfile, sampleProfile(routing));

    const auto noMonth = decodeClientProfileDocumentYaml(
        "client_profile:\n  client_name: A\n  approvers: {owner: B}\n"
        "  gmail: {account: a, auth_method: m, search_query: q, target_year_month: ~}\n"
        "  paths: {receipts_root: r, folder_name_template: f}\n"
        "  llm_routing: {}\n  monthly_llm_budget_usd: 0x10\n");
    EXPECT_EQ(noMonth.clientProfile.gmail.targetYearMonth, std::nullopt);
    EXPECT_EQ(noMonth.clientProfile.monthlyLLMBudgetUSD, 16);
}

TEST(ClientProfileDocument, RoutingReadsDynamicKeys) {
    const std::vector<std::pair<std::string, LLMRouting>> cases{
        {"{}", LLMRouting()},
        {"{default: ollama}", LLMRouting("claude-sonnet", "ollama")},
        {"{naming_proposal: local}", LLMRouting("local")},
        {"{default: a, default_provider: b}", LLMRouting("claude-sonnet", "b")},
        {"{default_provider: b, default: a}", LLMRouting("claude-sonnet", "a")},
        {"{summary: ollama, naming_proposal: x, workflows: {}, steps: {}}",
         LLMRouting("x", std::nullopt, {{"summary", "ollama"}})},
        {"{'true': yes, 2fa: 010}",
         LLMRouting("claude-sonnet", std::nullopt, {{"true", "yes"}, {"2fa", "010"}})},
    };
    for (const auto& [routing, expected] : cases) {
        SCOPED_TRACE(routing);
        EXPECT_EQ(decodeClientProfileDocumentYaml(profileText(routing)).clientProfile.llmRouting,
                  expected);
    }
}

TEST(ClientProfileDocument, MalformedProfilesNameWhereTheyFail) {
    using Kind = DecodingError::Kind;
    const std::string routingPath = "client_profile.llm_routing";
    const std::vector<std::tuple<std::string, Kind, std::string>> cases{
        {"", Kind::keyNotFound, ""},
        {"client_profile:\n  client_name: A\n", Kind::keyNotFound, "client_profile"},
        {profileText("{summary: {model: x}}"), Kind::typeMismatch, routingPath + ".summary"},
        {profileText("{workflows: local}"), Kind::typeMismatch, routingPath + ".workflows"},
        {profileText("{steps: [a]}"), Kind::typeMismatch, routingPath + ".steps"},
        {profileText("{default: [a]}"), Kind::typeMismatch, routingPath + ".default"},
        {profileText("{steps: {wf.s: {x: y}}}"), Kind::typeMismatch, routingPath + ".steps.wf.s"},
        {profileText("~"), Kind::typeMismatch, routingPath},
        {profileText("{}", "lots"), Kind::typeMismatch, "client_profile.monthly_llm_budget_usd"},
        {profileText("{}", "'25'"), Kind::typeMismatch, "client_profile.monthly_llm_budget_usd"},
    };
    for (const auto& [text, kind, path] : cases) {
        SCOPED_TRACE(text);
        try {
            decodeClientProfileDocumentYaml(text);
            ADD_FAILURE() << "decoded";
        } catch (const DecodingError& error) {
            EXPECT_EQ(error.kind(), kind) << error.what();
            EXPECT_EQ(error.codingPath(), path) << error.what();
        }
    }
}

TEST(LLMRouting, LooksUpAndChangesRoutes) {
    const LLMRouting routing("claude-sonnet", "ollama", {{"summary", "local"}});
    EXPECT_EQ(routing.provider("unknown"), "ollama");
    EXPECT_EQ(routing.provider("summary"), "local");
    EXPECT_EQ(routing.provider("naming_proposal"), "claude-sonnet");

    const auto named = routing.settingRole("naming_proposal", "ollama:qwen2.5:7b");
    EXPECT_EQ(named.namingProposal, "ollama:qwen2.5:7b");
    EXPECT_TRUE(named.additionalRoutes.count("naming_proposal") == 0);
    const auto routed = routing.settingRole("triage", "anthropic:x");
    EXPECT_EQ(routed.provider("triage"), "anthropic:x");
    EXPECT_EQ(routed.defaultProvider, "ollama");
    EXPECT_EQ(routing.provider("triage"), "ollama") << "the original stays as it was";

    const auto workflow = routing.settingWorkflowDefault("receipts-v1", "local");
    EXPECT_EQ(workflow.workflowDefault("receipts-v1"), "local");
    EXPECT_EQ(workflow.workflowDefault("other"), std::nullopt);

    // A workflow id may hold dots: the key is composed, never split.
    const auto stepped = routing.settingStepProvider("com.acme.receipts", "propose", " ollama\n");
    EXPECT_EQ(stepped.stepRoutes, (LLMRouteMap{{"com.acme.receipts.propose", "ollama"}}));
    EXPECT_EQ(stepped.stepProvider("com.acme.receipts", "propose"), "ollama");
    EXPECT_EQ(stepped.stepProvider("com.acme", "propose"), std::nullopt);
    EXPECT_TRUE(
        stepped.settingStepProvider("com.acme.receipts", "propose", "  ").stepRoutes.empty());
    EXPECT_TRUE(stepped.settingStepProvider("com.acme.receipts", "propose", std::nullopt)
                    .stepRoutes.empty());
}

TEST(ClientProfileDocument, WritesKeysInTheirOrder) {
    const auto document = decodeClientProfileDocumentYaml(profileText(
        "{triage: local, summary: ollama, steps: {receipts.v1.propose: claude-sonnet}, "
        "workflows: {receipts-to-folder-v1: local}, default_provider: anthropic:claude-x}"));
    EXPECT_EQ(encodeClientProfileDocumentYaml(document), R"(client_profile:
  client_name: Acme
  approvers:
    owner: Jo
  gmail:
    account: jo@acme.test
    auth_method: gmail-api-oauth
    search_query: has:attachment
    target_year_month: '2026-03'
  paths:
    receipts_root: ~/Receipts
    folder_name_template: '{{YYYY}}-{{MM}}'
  llm_routing:
    default: anthropic:claude-x
    naming_proposal: claude-sonnet
    summary: ollama
    triage: local
    workflows:
      receipts-to-folder-v1: local
    steps:
      receipts.v1.propose: claude-sonnet
  monthly_llm_budget_usd: 25
)");

    auto plain = sampleProfile();
    plain.gmail.targetYearMonth.reset();
    const auto text = encodeClientProfileDocumentYaml({plain});
    for (const auto* absent : {"target_year_month", "workflows", "steps", "default_provider"}) {
        EXPECT_EQ(text.find(absent), std::string::npos) << absent;
    }
}

TEST(ClientProfileDocument, EncodingRoundTripsAndMatchesTheValueTree) {
    auto tricky = sampleProfile(LLMRouting("", "true", {{"<<", "~"}, {"2fa", "010"}, {"y", ""}},
                                           {{"日本語", "a: b"}}, {{"wf.x.step", "- dash"}}));
    tricky.clientName = "Ünïcödé\nsecond line";
    tricky.paths.receiptsRoot = " padded ";
    tricky.gmail.searchQuery = "#not a comment";
    tricky.monthlyLLMBudgetUSD = -1;
    for (const auto& profile : {sampleProfile(), tricky}) {
        const auto text = encodeClientProfileDocumentYaml({profile});
        SCOPED_TRACE(text);
        EXPECT_EQ(decodeClientProfileDocumentYaml(text).clientProfile, profile);
        const auto fileValues = workflowValueFromYaml(parseYaml(text));
        EXPECT_EQ(fileValues.object()->at("client_profile"), toWorkflowValue(profile));
    }
}

TEST(ClientProfileDocument, FindsValuesByDottedPath) {
    const auto tree = toWorkflowValue(sampleProfile(LLMRouting("x", "ollama")));
    const std::vector<std::pair<std::string, std::optional<WorkflowValue>>> cases{
        {"gmail.search_query", "has:attachment"},
        {"..paths..receipts_root.", "~/Receipts"},
        {"llm_routing.default", "ollama"},
        {"monthly_llm_budget_usd", std::int64_t{25}},
        {"gmail.nope", std::nullopt},
        {"client_name.more", std::nullopt},
        {"", tree},
    };
    for (const auto& [path, expected] : cases) {
        SCOPED_TRACE(path);
        const auto* found = findValueAtPath(tree, path);
        EXPECT_EQ(found ? std::optional(*found) : std::nullopt, expected);
    }
}

class ClientProfileStoreTest : public ::testing::Test {
protected:
    testing::TemporaryDirectory home;
    testing::ScopedEnvironment homeVariable{"HOME", home.path().string()};
    ClientProfileStore store{AppSupportPaths(home.path() / "data")};
    QuorlinResources shipped{std::filesystem::path(QUORLIN_SOURCE_RESOURCES_DIR), std::nullopt};

    std::filesystem::path profileFile() const { return store.profilePath(); }
    std::size_t filesInRoot() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(home.path() / "data"), {}));
    }
};

constexpr std::string_view managedReceipts =
    "workflow-data/receipts-to-folder-v1/outputs/receipts_output_folder";

TEST_F(ClientProfileStoreTest, FirstLoadCreatesTheShippedProfileInTheDataRoot) {
    const auto document = store.loadOrCreateDefault(shipped);
    EXPECT_EQ(document.clientProfile.clientName, "Example Company");
    EXPECT_EQ(document.clientProfile.paths.receiptsRoot, "~/data/" + std::string(managedReceipts));
    EXPECT_EQ(store.load(profileFile()), document);

    const auto bytes = readFile(profileFile());
    EXPECT_EQ(store.loadOrCreateDefault(shipped), document);
    EXPECT_EQ(readFile(profileFile()), bytes);
}

TEST_F(ClientProfileStoreTest, MigratesOnlyTheExactLegacyReceiptsFolder) {
    testing::TemporaryDirectory elsewhere;
    const std::string outsideRoot = (elsewhere.path() / "root").string();
    const std::vector<std::tuple<std::string, std::string, std::string>> cases{
        // receipts_root, data root (relative to home, or absolute), expected receipts_root
        {"~/Documents/Quorlin/Receipts", "data", "~/data/" + std::string(managedReceipts)},
        {"~/Documents/Quorlin/Receipts", outsideRoot,
         outsideRoot + "/" + std::string(managedReceipts)},
        {"~/Documents/Quorlin/Receipts/", "data", ""},
        {"~/Documents/Quorlin/receipts", "data", ""},
    };
    for (const auto& [receiptsRoot, root, expected] : cases) {
        SCOPED_TRACE(receiptsRoot + " in " + root);
        const ClientProfileStore rooted{AppSupportPaths(home.path() / root)};
        auto text = profileText();
        text.replace(text.find("~/Receipts"), 10, receiptsRoot);
        text += "# kept unless migrated\n";
        const auto file = rooted.profilePath();
        writeFileAtomically(file, text);
        const auto document = rooted.loadOrCreateDefault(shipped);
        if (expected.empty()) {
            EXPECT_EQ(document.clientProfile.paths.receiptsRoot, receiptsRoot);
            EXPECT_EQ(readFile(file), text);
        } else {
            EXPECT_EQ(document.clientProfile.paths.receiptsRoot, expected);
            EXPECT_EQ(readFile(file), encodeClientProfileDocumentYaml(document));
        }
    }
}

TEST_F(ClientProfileStoreTest, MissingDefaultProfileIsReported) {
    testing::TemporaryDirectory emptyResources;
    for (const auto& resources :
         {QuorlinResources{}, QuorlinResources{emptyResources.path(), std::nullopt}}) {
        try {
            store.loadOrCreateDefault(resources);
            ADD_FAILURE() << "loaded";
        } catch (const ClientProfileStoreError& error) {
            EXPECT_EQ(error.kind(), ClientProfileStoreError::Kind::defaultProfileMissing);
        }
        EXPECT_FALSE(std::filesystem::exists(profileFile()));
    }
}

TEST_F(ClientProfileStoreTest, MalformedProfileIsReportedAndLeftAlone) {
    const std::vector<std::string> cases{"client_profile: [",
                                         "",
                                         "client_profile:\n  client_name: A\n",
                                         profileText("{summary: {model: x}}"),
                                         "client_profile: \xff\xfe\n",
                                         profileText("{default: a, default: b}")};
    for (const auto& text : cases) {
        SCOPED_TRACE(text);
        writeFileAtomically(profileFile(), text);
        EXPECT_THROW(store.loadOrCreateDefault(shipped), Error);
        EXPECT_EQ(readFile(profileFile()), text);
        EXPECT_EQ(filesInRoot(), 1U);
    }
}

TEST_F(ClientProfileStoreTest, SaveThenLoadGivesTheSameRouting) {
    const auto routing = LLMRouting()
                             .settingRole("summary", "ollama:qwen2.5:7b")
                             .settingWorkflowDefault("receipts-to-folder-v1", "local")
                             .settingStepProvider("com.acme.flow", "propose", "anthropic:x");
    const ClientProfileDocument document{sampleProfile(routing)};
    store.save(document);
    EXPECT_EQ(store.load(profileFile()).clientProfile.llmRouting, routing);

    // A role named like one of llm_routing's own keys can't be written back faithfully.
    const auto saved = readFile(profileFile());
    for (const auto* taken : {"default", "default_provider", "workflows", "steps"}) {
        const ClientProfileDocument clash{sampleProfile(routing.settingRole(taken, "x"))};
        EXPECT_THROW(store.save(clash), ClientProfileError) << taken;
    }
    EXPECT_EQ(readFile(profileFile()), saved);
    EXPECT_EQ(filesInRoot(), 1U);
}

} // namespace
} // namespace quorlin

#include "core/definitions/DecodingError.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/stores/FlowLibraryPreferencesStore.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace quorlin {
namespace {

using Ids = std::vector<std::string>;

Uuid uuid(const char* text) {
    return *Uuid::parse(text);
}

const Uuid work = uuid("11111111-1111-4111-8111-111111111111");
const Uuid home = uuid("22222222-2222-4222-8222-222222222222");
const Uuid blank = uuid("33333333-3333-4333-8333-333333333333");

TEST(FlowLibraryPreferencesTest, NormalizingPutsEveryAvailableFlowInExactlyOnePlace) {
    FlowLibraryPreferencesDocument document;
    document.folders = {{work, "  Work  ", {"receipts", "gone", "digest", "receipts"}},
                        {blank, " \n ", {"inventory", "notes"}},
                        {home, "Home", {"digest", "gone"}}};
    document.uncategorizedFlowIDs = {"digest", "hello", "gone"};
    document.schedulePreferences = {{"receipts", {true, "0 8 * * *"}}, {"gone", {true, ""}}};
    document.folderPreferences = {{"receipts",
                                   {{"source", {"/home/me/in", std::string("  ")}},
                                    {"report", {"/home/me/out", std::string("  bookmark  ")}},
                                    {"blank", {"   ", std::nullopt}}}},
                                  {"gone", {{"source", {"/x", std::nullopt}}}}};

    const auto result =
        document.normalized({"receipts", "digest", "hello", "inventory", "notes", "new", "new"});
    ASSERT_EQ(result.folders.size(), 2U) << "the blank folder is dissolved";
    EXPECT_EQ(result.folders[0], (FlowLibraryFolder{work, "Work", {"receipts", "digest"}}));
    EXPECT_EQ(result.folders[1], (FlowLibraryFolder{home, "Home", {}})) << "kept, now empty";
    EXPECT_EQ(result.uncategorizedFlowIDs, (Ids{"hello", "inventory", "notes", "new"}));
    EXPECT_EQ(result.schedulePreferences, (std::map<std::string, WorkflowSchedulePreference>{
                                              {"receipts", {true, "0 8 * * *"}}}));
    EXPECT_EQ(result.folderPreferences,
              (std::map<std::string, std::map<std::string, WorkflowFolderPreference>>{
                  {"receipts",
                   {{"source", {"/home/me/in", std::nullopt}},
                    {"report", {"/home/me/out", std::string("bookmark")}}}}}));
    EXPECT_EQ(result.normalized({"receipts", "digest", "hello", "inventory", "notes", "new"}),
              result)
        << "normalizing twice changes nothing";
}

TEST(FlowLibraryPreferencesTest, DecodingDefaultsMissingKeysAndNamesTheBadOne) {
    EXPECT_EQ(decodeFlowLibraryPreferences(nlohmann::json::object()),
              FlowLibraryPreferencesDocument{});
    const std::pair<const char*, const char*> bad[] = {
        {R"({"folders": {}})", "folders"},
        {R"({"folders": [{"id": "not-a-uuid", "name": "A", "flowIDs": []}]})", "folders[0].id"},
        {R"({"folders": [{"id": "11111111-1111-4111-8111-111111111111", "flowIDs": []}]})", "name"},
        {R"({"uncategorizedFlowIDs": ["a", 2]})", "uncategorizedFlowIDs[1]"},
        {R"({"schedulePreferences": {"a": {"isEnabled": "yes", "cronExpression": ""}}})",
         "schedulePreferences.a.isEnabled"},
        {R"({"folderPreferences": {"a": {"source": {"securityScopedBookmark": "b"}}}})", "path"},
        {"[]", "an object"},
    };
    for (const auto& [text, words] : bad) {
        try {
            decodeFlowLibraryPreferences(parseJson(text));
            ADD_FAILURE() << text;
        } catch (const DecodingError& error) {
            EXPECT_NE(std::string(error.what()).find(words), std::string::npos)
                << text << ": " << error.what();
        }
    }
}

TEST(FlowLibraryPreferencesTest, TheStoreRoundTripsAndLeavesABadFileAlone) {
    const testing::TemporaryDirectory directory;
    const FlowLibraryPreferencesStore store(AppSupportPaths(directory.path() / "data"));
    EXPECT_EQ(store.loadIfPresent(), std::nullopt);

    FlowLibraryPreferencesDocument document;
    document.folders = {{work, "Work", {"receipts"}}};
    document.uncategorizedFlowIDs = {"hello"};
    document.schedulePreferences = {{"receipts", {false, "*/5 * * * *"}}};
    document.folderPreferences = {{"receipts", {{"source", {"/in", std::nullopt}}}}};
    store.save(document);
    EXPECT_EQ(store.loadIfPresent(), document);
    EXPECT_NE(readFile(store.preferencesPath()).find("\"11111111-1111-4111-8111-111111111111\""),
              std::string::npos);

    testing::writeTextFile(store.preferencesPath(), "{\"folders\": [");
    try {
        store.loadIfPresent();
        ADD_FAILURE() << "a cut-off file loaded";
    } catch (const FlowLibraryPreferencesError& error) {
        EXPECT_NE(std::string(error.what()).find(store.preferencesPath().string()),
                  std::string::npos);
    }
    EXPECT_EQ(readFile(store.preferencesPath()), "{\"folders\": [");
}

} // namespace
} // namespace quorlin

#include "core/stores/AuditLogStore.h"

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/DecodingError.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/stores/AuditRunJson.h"
#include "tests/stores/SqliteTestSupport.h"
#include "tests/support/TemporaryDirectory.h"

#include <cctype>
#include <functional>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

using testing::sqlExecute;
using testing::sqlQuery;
using testing::SqlRows;
using testing::TemporaryDirectory;

AuditRun sampleRun(std::string flowID, std::size_t steps = 2) {
    AuditRun run;
    run.id = Uuid::random();
    run.flowID = std::move(flowID);
    run.flowName = "Monthly receipts — “März”";
    run.timestamp = "2024-03-01 09:30";
    run.trigger = "schedule";
    run.status = "success";
    run.outputSummary = "Filed 3 receipts, \"quoted\"";
    run.minutesSaved = 12;
    run.llmCostUSD = 0.0125;
    run.durationSeconds = 41.5;
    run.outputFolder = "/home/user/Receipts/2024-03";
    for (std::size_t step = 0; step < steps; ++step) {
        const std::string id = "step-" + std::to_string(step);
        run.stepTimings.push_back(
            {id, "Step " + std::to_string(step), 1.25 * static_cast<double>(step)});
        run.stepRecords.push_back({id, "Step " + std::to_string(step), R"({"query":"x"})",
                                   std::nullopt,
                                   step == 1 ? std::optional<std::string>("") : std::nullopt});
    }
    return run;
}

class AuditLogStoreTest : public ::testing::Test {
protected:
    std::filesystem::path database() const { return directory.path() / "data" / "quorlin.sqlite"; }
    std::filesystem::path legacy() const { return directory.path() / "data" / "audit-log.json"; }
    AuditLogStore store() const { return {database(), legacy()}; }
    std::int64_t rows(const std::string& table) const {
        return std::stoll(*sqlQuery(database(), "SELECT COUNT(*) FROM " + table + ";")[0][0]);
    }
    void writeLegacy(std::string_view text) const { testing::writeTextFile(legacy(), text); }

    TemporaryDirectory directory;
};

TEST_F(AuditLogStoreTest, FreshInstallCreatesTheSchemaOnFirstUseOnly) {
    const AuditLogStore fromPaths(AppSupportPaths(directory.path() / "root"));
    EXPECT_FALSE(std::filesystem::exists(directory.path() / "root"));
    EXPECT_EQ(fromPaths.databasePath(), directory.path() / "root" / "quorlin.sqlite");
    EXPECT_EQ(fromPaths.legacyPath(), directory.path() / "root" / "audit-log.json");

    EXPECT_TRUE(fromPaths.load().runs.empty());
    const auto columns = sqlQuery(fromPaths.databasePath(),
                                  "SELECT name FROM pragma_table_info('audit_step_records');");
    EXPECT_EQ(columns.size(), 8u);
    EXPECT_EQ(columns.back()[0], "error_json");
    EXPECT_EQ(sqlQuery(fromPaths.databasePath(),
                       "SELECT name FROM sqlite_master WHERE type = 'index' AND name LIKE "
                       "'idx_%' ORDER BY name;"),
              (SqlRows{{"idx_audit_step_records_run_id"}, {"idx_audit_step_timings_run_id"}}));
}

TEST_F(AuditLogStoreTest, RunsRoundTripInHistoryOrderWithAbsentFieldsKeptAbsent) {
    AuditRun bare = sampleRun("bare", 0);
    bare.outputFolder.reset();
    bare.minutesSaved = -3;
    AuditRun full = sampleRun("full", 3);
    full.stepRecords[2].errorJSON = R"({"message":"boom"})";
    full.stepRecords[2].outputJSON = "";

    auto audit = store();
    audit.save({{full}});
    audit.append(bare);
    EXPECT_EQ(audit.load(), (AuditLogDocument{{full, bare}}));
    // Absent stays NULL on disk, distinct from empty text.
    EXPECT_EQ(sqlQuery(database(), "SELECT output_json, error_json FROM audit_step_records "
                                   "WHERE position = 1 ORDER BY id LIMIT 1;"),
              (SqlRows{{std::nullopt, ""}}));
    EXPECT_EQ(sqlQuery(database(), "SELECT id FROM audit_runs WHERE flow_id = 'full';")[0][0],
              full.id.uppercaseString());
}

TEST_F(AuditLogStoreTest, AppendingTheSameIdReplacesTheRunAndMovesItToTheEnd) {
    auto audit = store();
    AuditRun first = sampleRun("first", 5);
    const AuditRun second = sampleRun("second", 1);
    audit.append(first);
    audit.append(second);

    first.status = "failed";
    first.stepTimings.resize(2);
    first.stepRecords.resize(1);
    audit.append(first);

    EXPECT_EQ(audit.load(), (AuditLogDocument{{second, first}}));
    EXPECT_EQ(rows("audit_runs"), 2);
    EXPECT_EQ(rows("audit_step_timings"), 3);
    EXPECT_EQ(rows("audit_step_records"), 2);
}

TEST_F(AuditLogStoreTest, SaveReplacesTheWholeHistory) {
    auto audit = store();
    audit.save({{sampleRun("a", 3), sampleRun("b", 4), sampleRun("c")}});
    const AuditLogDocument replacement{{sampleRun("d", 1), sampleRun("e", 0)}};
    audit.save(replacement);
    EXPECT_EQ(audit.load(), replacement);
    EXPECT_EQ(rows("audit_step_timings"), 1);

    audit.save({});
    EXPECT_TRUE(audit.load().runs.empty());
    EXPECT_EQ(rows("audit_step_records") + rows("audit_step_timings"), 0);
}

TEST_F(AuditLogStoreTest, ADatabaseWithoutErrorJsonGainsTheColumnAndKeepsItsRows) {
    createDirectories(database().parent_path());
    const auto run = sampleRun("old", 0);
    sqlExecute(database(),
               "CREATE TABLE audit_runs (id TEXT PRIMARY KEY NOT NULL, flow_id TEXT NOT NULL, "
               "flow_name TEXT NOT NULL, timestamp TEXT NOT NULL, trigger TEXT NOT NULL, "
               "status TEXT NOT NULL, output_summary TEXT NOT NULL, minutes_saved INTEGER NOT "
               "NULL, llm_cost_usd REAL NOT NULL, duration_seconds REAL NOT NULL, output_folder "
               "TEXT);"
               "CREATE TABLE audit_step_records (id INTEGER PRIMARY KEY AUTOINCREMENT, run_id "
               "TEXT NOT NULL, position INTEGER NOT NULL, step_id TEXT NOT NULL, title TEXT NOT "
               "NULL, input_json TEXT, output_json TEXT);"
               "INSERT INTO audit_runs VALUES ('" +
                   run.id.uppercaseString() +
                   "', 'old', 'Old', '2023-01-01 08:00', 'manual', 'success', 'Done', 4, 0.5, "
                   "2.5, NULL);"
                   "INSERT INTO audit_step_records (run_id, position, step_id, title, "
                   "input_json, output_json) VALUES ('" +
                   run.id.uppercaseString() + "', 0, 's', 'S', '{}', '[]');");

    auto audit = store();
    const auto loaded = audit.load();
    ASSERT_EQ(loaded.runs.size(), 1u);
    EXPECT_EQ(loaded.runs[0].id, run.id);
    EXPECT_EQ(loaded.runs[0].outputFolder, std::nullopt);
    EXPECT_EQ(loaded.runs[0].stepRecords,
              (std::vector<AuditStepRecord>{{"s", "S", "{}", "[]", std::nullopt}}));

    auto failed = sampleRun("new", 2);
    failed.stepRecords[0].errorJSON = R"({"error":true})";
    audit.append(failed);
    EXPECT_EQ(audit.load().runs.back(), failed);
}

constexpr const char* threeLegacyRuns = R"({"runs": [
  {"id": "6F9619FF-8B86-D011-B42D-00C04FC964FF", "flowID": "one", "flowName": "One",
   "timestamp": "2023-05-01 10:00", "trigger": "manual", "status": "success",
   "outputSummary": "first", "minutesSaved": 5.0, "llmCostUSD": 0, "durationSeconds": 1,
   "stepTimings": [{"stepID": "a", "title": "A", "durationSeconds": 0.5}],
   "stepRecords": [{"stepID": "a", "title": "A", "inputJSON": "{}", "errorJSON": null}],
   "outputFolder": "/tmp/out", "somethingNew": [1, 2]},
  {"flowID": "two", "flowName": "Two", "timestamp": "2023-05-02 10:00", "trigger": "schedule",
   "status": "failed", "outputSummary": "second", "minutesSaved": 0, "llmCostUSD": 0.25,
   "durationSeconds": 2.5, "stepTimings": null},
  {"id": "0a0b0c0d-0000-4000-8000-000000000003", "flowID": "three", "flowName": "Three",
   "timestamp": "2023-05-03 10:00", "trigger": "file", "status": "success",
   "outputSummary": "third", "minutesSaved": 1, "llmCostUSD": 0, "durationSeconds": 3,
   "outputFolder": null}
]})";

TEST_F(AuditLogStoreTest, LegacyFileIsImportedOnceInFileOrderAndKept) {
    writeLegacy(threeLegacyRuns);
    auto audit = store();
    const auto imported = audit.load();
    ASSERT_EQ(imported.runs.size(), 3u);
    EXPECT_EQ(imported.runs[0].flowID, "one");
    EXPECT_EQ(imported.runs[0].minutesSaved, 5);
    EXPECT_EQ(imported.runs[0].outputFolder, "/tmp/out");
    EXPECT_EQ(imported.runs[0].stepRecords,
              (std::vector<AuditStepRecord>{{"a", "A", "{}", std::nullopt, std::nullopt}}));
    EXPECT_EQ(imported.runs[1].flowID, "two");
    EXPECT_TRUE(imported.runs[1].stepTimings.empty());
    EXPECT_TRUE(imported.runs[1].stepRecords.empty());
    EXPECT_EQ(imported.runs[2].id.uppercaseString(), "0A0B0C0D-0000-4000-8000-000000000003");
    EXPECT_EQ(imported.runs[2].outputFolder, std::nullopt);

    // The run without an id got one at import; a second load must not import again.
    EXPECT_EQ(audit.load(), imported);

    // save() never imports; the next load finds an empty database and the file still there.
    audit.save({});
    EXPECT_EQ(rows("audit_runs"), 0);
    const auto again = audit.load();
    ASSERT_EQ(again.runs.size(), 3u);
    EXPECT_NE(again.runs[1].id, imported.runs[1].id);
    EXPECT_EQ(readFile(legacy()), threeLegacyRuns);
}

TEST_F(AuditLogStoreTest, LegacyFileIsImportedOnlyIntoAnEmptyDatabase) {
    auto audit = store();
    const auto mine = sampleRun("mine");
    audit.append(mine);
    writeLegacy(threeLegacyRuns);
    EXPECT_EQ(audit.load(), AuditLogDocument{{mine}});

    // append() imports too, before its own run.
    TemporaryDirectory other;
    testing::writeTextFile(other.path() / "audit-log.json", threeLegacyRuns);
    AuditLogStore fresh(other.path() / "quorlin.sqlite", other.path() / "audit-log.json");
    fresh.append(mine);
    const auto history = fresh.load();
    ASSERT_EQ(history.runs.size(), 4u);
    EXPECT_EQ(history.runs[0].flowID, "one");
    EXPECT_EQ(history.runs[3], mine);
}

TEST_F(AuditLogStoreTest, CorruptLegacyFileFailsEveryCallAndIsNeverTouched) {
    using Json = nlohmann::json;
    const Json validRun{{"flowID", "f"},       {"flowName", "F"},     {"timestamp", "t"},
                        {"trigger", "manual"}, {"status", "success"}, {"outputSummary", "s"},
                        {"minutesSaved", 1},   {"llmCostUSD", 0},     {"durationSeconds", 1}};
    const auto with = [&](const std::function<void(Json&)>& change) {
        Json run = validRun;
        change(run);
        return Json{{"runs", Json::array({run})}}.dump();
    };
    const struct {
        std::string text;
        std::string error;
    } cases[] = {
        // Named with its file: the parser alone can't say which.
        {"{\"runs\": [", "Invalid JSON in "},
        {"[]", "Expected an object at the document root, found an array"},
        {"{}", "Missing required key 'runs' at the document root"},
        {with([](Json& run) { run.erase("flowID"); }), "Missing required key 'flowID' at runs[0]"},
        {with([](Json& run) { run["status"] = 7; }),
         "Expected a string at runs[0].status, found 7"},
        {with([](Json& run) { run["minutesSaved"] = 2.5; }),
         "Expected an integer at runs[0].minutesSaved, found 2.5"},
        {with([](Json& run) { run["llmCostUSD"] = "free"; }),
         "Expected a number at runs[0].llmCostUSD, found \"free\""},
        {with([](Json& run) { run["id"] = "nope"; }), "Invalid UUID string: nope at runs[0].id"},
        {with([](Json& run) {
             run["stepTimings"] = Json::array({Json{{"stepID", "a"}, {"title", "A"}}});
         }),
         "Missing required key 'durationSeconds' at runs[0].stepTimings[0]"},
        {with([](Json& run) {
             run["stepRecords"] = Json::array({Json{{"stepID", "a"}}});
         }),
         "Missing required key 'title' at runs[0].stepRecords[0]"},
    };
    for (const auto& [text, error] : cases) {
        SCOPED_TRACE(text);
        writeLegacy(text);
        auto audit = store();
        const std::vector<std::function<void()>> calls{
            [&] { audit.load(); }, [&] { audit.append(sampleRun("x")); }, [&] { audit.load(); }};
        for (const auto& call : calls) {
            try {
                call();
                ADD_FAILURE() << "expected the legacy file to be reported";
            } catch (const JsonError& failure) {
                EXPECT_TRUE(std::string(failure.what())
                                .starts_with(error + legacy().string() + ": line 1, column 11"))
                    << failure.what();
            } catch (const DecodingError& failure) {
                EXPECT_EQ(failure.what(), error);
            }
        }
        EXPECT_EQ(readFile(legacy()), text);
        EXPECT_EQ(rows("audit_runs"), 0);
    }
}

TEST_F(AuditLogStoreTest, FailuresNameTheirCause) {
    const auto setUp = [&](const std::string& sql) {
        createDirectories(database().parent_path());
        sqlExecute(database(), sql);
    };
    const struct {
        std::string name;
        std::function<void()> arrange;
        std::string error;
    } cases[] = {
        {"directory in the database's place", [&] { createDirectories(database()); },
         "Audit SQLite access failed: unable to open database file"},
        {"file that is not a database",
         [&] { testing::writeTextFile(database(), std::string(4096, 'x')); },
         "Audit SQLite access failed: file is not a database"},
        {"file in the folder's place",
         [&] { testing::writeTextFile(database().parent_path(), "x"); },
         "Could not create the folder " + database().parent_path().string()},
        {"run id that is not a UUID",
         [&] {
             setUp("CREATE TABLE audit_runs (id TEXT PRIMARY KEY NOT NULL, flow_id TEXT NOT "
                   "NULL, flow_name TEXT NOT NULL, timestamp TEXT NOT NULL, trigger TEXT NOT "
                   "NULL, status TEXT NOT NULL, output_summary TEXT NOT NULL, minutes_saved "
                   "INTEGER NOT NULL, llm_cost_usd REAL NOT NULL, duration_seconds REAL NOT "
                   "NULL, output_folder TEXT);"
                   "INSERT INTO audit_runs VALUES ('run-7', 'f', 'F', 't', 'manual', 'ok', "
                   "'s', 1, 0, 1, NULL);");
         },
         "Audit SQLite access failed: Invalid audit run id: run-7"},
        {"NULL in a text column of a loosely made table",
         [&] {
             setUp("CREATE TABLE audit_runs (id TEXT PRIMARY KEY, flow_id TEXT, flow_name "
                   "TEXT, timestamp TEXT, trigger TEXT, status TEXT, output_summary TEXT, "
                   "minutes_saved INTEGER, llm_cost_usd REAL, duration_seconds REAL, "
                   "output_folder TEXT);"
                   "INSERT INTO audit_runs VALUES ('6F9619FF-8B86-D011-B42D-00C04FC964FF', "
                   "'f', NULL, 't', 'manual', 'ok', 's', 1, 0, 1, NULL);");
         },
         "Audit SQLite access failed: Unexpected null text column at index 2"},
        {"table of another shape", [&] { setUp("CREATE TABLE audit_runs (id TEXT PRIMARY KEY);"); },
         "Audit SQLite access failed: no such column: flow_id"},
    };
    for (const auto& [name, arrange, error] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove_all(database().parent_path());
        arrange();
        try {
            store().load();
            ADD_FAILURE() << "load succeeded";
        } catch (const Error& failure) {
            EXPECT_TRUE(std::string(failure.what()).starts_with(error)) << failure.what();
        }
    }
}

TEST_F(AuditLogStoreTest, AFailedWriteLeavesThePreviousContent) {
    auto audit = store();
    AuditRun kept = sampleRun("kept", 3);
    const AuditLogDocument before{{sampleRun("other", 1), kept}};
    audit.save(before);
    // A trigger stands in for any failure in the middle of a write (a full disk, a lock).
    sqlExecute(database(), "CREATE TRIGGER reject BEFORE INSERT ON audit_step_records "
                           "WHEN NEW.title = 'boom' BEGIN SELECT RAISE(ABORT, 'rejected'); END;");

    AuditRun changed = kept;
    changed.status = "failed";
    changed.stepRecords.push_back({"late", "boom", std::nullopt, std::nullopt, std::nullopt});
    AuditRun added = sampleRun("added", 1);
    added.stepRecords[0].title = "boom";

    const std::vector<std::function<void()>> writes{
        [&] { audit.append(changed); },
        [&] { audit.append(added); },
        [&] {
            audit.save({{sampleRun("new"), added}});
        },
    };
    for (const auto& write : writes) {
        try {
            write();
            ADD_FAILURE() << "write succeeded";
        } catch (const AuditLogStoreError& failure) {
            EXPECT_STREQ(failure.what(), "Audit SQLite access failed: rejected");
        }
        EXPECT_EQ(audit.load(), before);
    }
}

// What a history query must give: the runs of load(), newest first, filtered, cut.
std::vector<AuditRun> expectedRuns(const AuditLogDocument& document, const AuditRunQuery& query) {
    const auto folded = [](std::string text) {
        for (auto& c : text) {
            c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
        }
        return text;
    };
    std::vector<AuditRun> runs;
    for (auto run = document.runs.rbegin(); run != document.runs.rend(); ++run) {
        const bool matches = (!query.flowID || run->flowID == *query.flowID) &&
                             (!query.status || folded(run->status) == folded(*query.status));
        if (matches && (!query.limit || runs.size() < *query.limit)) {
            runs.push_back(*run);
        }
    }
    return runs;
}

TEST_F(AuditLogStoreTest, QueriesAndTotalsAgreeWithTheWholeHistory) {
    auto audit = store();
    EXPECT_EQ(audit.totals(), AuditTotals{});
    std::vector<AuditRun> written;
    for (int index = 0; index < 12; ++index) {
        auto run = sampleRun(index % 3 == 0 ? "receipts" : "inventory", index % 4);
        run.status = index % 5 == 0 ? "Failed" : (index % 2 == 0 ? "Success" : "SUCCESS");
        run.minutesSaved = index;
        run.llmCostUSD = 0.25 * index;
        audit.append(run);
        written.push_back(run);
    }
    audit.append(written[1]); // rewritten: now the newest

    const auto history = audit.load();
    const std::vector<AuditRunQuery> queries{
        {},
        {std::nullopt, std::nullopt, 3},
        {"receipts", std::nullopt, std::nullopt},
        {std::nullopt, "success", std::nullopt},
        {"inventory", "sUcCeSs", 2},
        {"receipts", "failed", 1},
        {"nobody", std::nullopt, std::nullopt},
        {std::nullopt, "succ", std::nullopt},
    };
    for (const auto& query : queries) {
        EXPECT_EQ(audit.runs(query), expectedRuns(history, query))
            << query.flowID.value_or("-") << " " << query.status.value_or("-") << " "
            << query.limit.value_or(0);
    }
    EXPECT_EQ(audit.runs({std::nullopt, std::nullopt, 1}).front().id, written[1].id);

    const auto id = written[7].id.uppercaseString();
    for (const auto& prefix : {id, id.substr(0, 8), "  " + id}) {
        const auto found = audit.runsWithIDPrefix(prefix);
        if (prefix.front() == ' ') {
            EXPECT_TRUE(found.empty());
        } else {
            ASSERT_EQ(found.size(), 1u) << prefix;
            EXPECT_EQ(found.front(), written[7]);
        }
    }
    std::string lower = id.substr(0, 6);
    for (auto& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    EXPECT_EQ(audit.runsWithIDPrefix(lower).front().id, written[7].id);
    EXPECT_EQ(audit.runsWithIDPrefix("").size(), written.size());

    AuditTotals sums;
    for (const auto& run : history.runs) {
        sums.runs += 1;
        sums.minutesSaved += run.minutesSaved;
        sums.llmCostUSD += run.llmCostUSD;
    }
    const auto totals = audit.totals();
    EXPECT_EQ(totals.runs, sums.runs);
    EXPECT_EQ(totals.minutesSaved, sums.minutesSaved);
    EXPECT_DOUBLE_EQ(totals.llmCostUSD, sums.llmCostUSD);
}

TEST_F(AuditLogStoreTest, WritabilityIsCheckedWithoutWritingARow) {
    store().checkWritable();
    EXPECT_EQ(rows("audit_runs"), 0);

    testing::writeTextFile(directory.path() / "blocker", "a file where a folder should be");
    const AuditLogStore blocked(directory.path() / "blocker" / "quorlin.sqlite", legacy());
    try {
        blocked.checkWritable();
        ADD_FAILURE() << "a database that can't exist passed";
    } catch (const AuditLogStoreError& error) {
        EXPECT_EQ(error.kind(), AuditLogStoreError::Kind::notWritable);
        EXPECT_TRUE(std::string(error.what())
                        .starts_with("The audit log " + blocked.databasePath().string() +
                                     " can't be written, so no run is started"))
            << error.what();
    }
}

TEST_F(AuditLogStoreTest, QueriesImportTheLegacyHistoryFirst) {
    writeLegacy(threeLegacyRuns);
    const auto audit = store();
    EXPECT_EQ(audit.totals().runs, 3);
    EXPECT_EQ(audit.runs({}).size(), 3u);
    EXPECT_EQ(audit.runs({}).front().flowID, audit.load().runs.back().flowID);
}

} // namespace
} // namespace quorlin

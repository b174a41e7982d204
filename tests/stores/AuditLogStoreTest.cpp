#include "core/stores/AuditLogStore.h"

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/DecodingError.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/foundation/LocalTime.h"
#include "core/stores/AuditRunJson.h"
#include "tests/stores/SqliteTestSupport.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <tuple>

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
              (SqlRows{{"idx_audit_runs_flow_id"},
                       {"idx_audit_runs_timestamp"},
                       {"idx_audit_step_records_run_id"},
                       {"idx_audit_step_timings_run_id"}}));
    EXPECT_EQ(sqlQuery(fromPaths.databasePath(), "SELECT * FROM audit_totals;"),
              (SqlRows{{"1", "0", "0", "0.0"}}));
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

TEST_F(AuditLogStoreTest, StepRowsStoredOutOfOrderStillReadInPositionOrder) {
    auto audit = store();
    const AuditRun shuffled = sampleRun("shuffled", 3);
    const AuditRun plain = sampleRun("plain", 2);
    audit.append(shuffled);
    audit.append(plain);
    // Positions turned round by hand, and a step row whose run is gone.
    const auto id = shuffled.id.uppercaseString();
    for (const std::string table : {"audit_step_timings", "audit_step_records"}) {
        sqlExecute(database(),
                   "UPDATE " + table + " SET position = 2 - position WHERE run_id = '" + id + "';");
    }
    sqlExecute(database(), "INSERT INTO audit_step_timings (run_id, position, step_id, title, "
                           "duration_seconds) VALUES ('gone', 0, 'x', 'X', 1);");

    AuditRun expected = shuffled;
    std::reverse(expected.stepTimings.begin(), expected.stepTimings.end());
    std::reverse(expected.stepRecords.begin(), expected.stepRecords.end());
    EXPECT_EQ(audit.load(), (AuditLogDocument{{expected, plain}}));
    EXPECT_EQ(audit.runs({}), (std::vector<AuditRun>{plain, expected}));
}

// A query with only the fields that set assigns; written so because aggregate
// initialisation would have to name every field.
AuditRunQuery queryWith(const std::function<void(AuditRunQuery&)>& set) {
    AuditRunQuery query;
    set(query);
    return query;
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
        queryWith([](auto& query) { query.limit = 3; }),
        queryWith([](auto& query) { query.flowID = "receipts"; }),
        queryWith([](auto& query) { query.status = "success"; }),
        queryWith([](auto& query) {
            query.flowID = "inventory";
            query.status = "sUcCeSs";
            query.limit = 2;
        }),
        queryWith([](auto& query) {
            query.flowID = "receipts";
            query.status = "failed";
            query.limit = 1;
        }),
        queryWith([](auto& query) { query.flowID = "nobody"; }),
        queryWith([](auto& query) { query.status = "succ"; }),
    };
    for (const auto& query : queries) {
        EXPECT_EQ(audit.runs(query), expectedRuns(history, query))
            << query.flowID.value_or("-") << " " << query.status.value_or("-") << " "
            << query.limit.value_or(0);
    }
    EXPECT_EQ(audit.runs(queryWith([](auto& query) { query.limit = 1; })).front().id,
              written[1].id);

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

// Sets the process's local time zone for the object's lifetime.
class LocalZone {
public:
    explicit LocalZone(const char* zone) {
        if (const char* current = std::getenv("TZ")) {
            previous_ = current;
        }
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~LocalZone() {
        if (previous_) {
            ::setenv("TZ", previous_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    LocalZone(const LocalZone&) = delete;
    LocalZone& operator=(const LocalZone&) = delete;

private:
    std::optional<std::string> previous_;
};

// A moment given by the local wall clock.
std::chrono::system_clock::time_point localTime(int year, int month, int day, int hour, int minute,
                                                int second = 0) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&parts));
}

constexpr std::chrono::milliseconds justAfter{1};

// A history whose runs differ in every field a filter reads. Each run is known by a label
// kept in its trigger, a field no filter reads. "feb-first" is written again last, so
// history order and time order differ.
class AuditLogQueryTest : public AuditLogStoreTest {
protected:
    void SetUp() override {
        const struct {
            const char* label;
            const char* flowID;
            const char* flowName;
            const char* timestamp;
            const char* status;
            const char* summary;
            std::int64_t minutes;
            double cost;
        } rows[] = {
            {"old-year", "receipts", "Receipts", "2023-12-31 23:59", "Success", "Filed 3 receipts",
             10, 0.5},
            {"jan-last", "receipts", "Receipts", "2024-01-31 23:59", "success",
             "Filed 1000 receipts", 20, 0.25},
            {"feb-first", "inventory", "Inventory Sync", "2024-02-01 00:00", "Failed",
             "Failed: step 2", 0, 0.125},
            {"feb-mid", "mail_digest", "Mail digest", "2024-02-15 12:30", "Rejected",
             "All proposals rejected", 0, 1.5},
            {"mar", "mail-digest", "Mail digest (old)", "2024-03-01 09:30", "Success",
             "Sent 100% of drafts to C:\\Drafts", 5, 0},
            {"mar-late", "receipts", "Receipts", "2024-03-20 18:45", "FAILED", "Failed: no folder",
             3, 0.75},
            {"apr", "inventory", "Inventory Sync", "2024-04-02 07:00", "Success",
             "Counted 40 items", 7, 0.0625},
        };
        auto audit = store();
        for (const auto& row : rows) {
            AuditRun run = sampleRun(row.flowID, 2);
            run.trigger = row.label;
            run.flowName = row.flowName;
            run.timestamp = row.timestamp;
            run.status = row.status;
            run.outputSummary = row.summary;
            run.minutesSaved = row.minutes;
            run.llmCostUSD = row.cost;
            run.stepRecords[0].inputJSON = R"({"token":"hidden-token"})";
            audit.append(run);
            byLabel.emplace(row.label, run);
        }
        byLabel["feb-first"].stepRecords[1].errorJSON = R"({"message":"Quota EXCEEDED"})";
        audit.append(byLabel["feb-first"]);
    }

    // The labels of what runs() gives, after checking each is the run written, steps and all.
    std::vector<std::string> labels(const AuditRunQuery& query) const {
        std::vector<std::string> result;
        for (const auto& run : store().runs(query)) {
            EXPECT_EQ(run, byLabel.at(run.trigger));
            result.push_back(run.trigger);
        }
        return result;
    }

    // Five and a half hours east of UTC, so a bound worked out in UTC, or on the wrong
    // side of a minute, misses.
    LocalZone zone{"XST-5:30"};
    std::map<std::string, AuditRun> byLabel;
};

using Labels = std::vector<std::string>;

TEST_F(AuditLogQueryTest, EachFilterAndTheirCombinationsMatchWhatTheyName) {
    const struct {
        std::string name;
        std::function<void(AuditRunQuery&)> set;
        Labels expected;
    } cases[] = {
        {"none",
         [](auto&) {},
         {"feb-first", "apr", "mar-late", "mar", "feb-mid", "jan-last", "old-year"}},
        {"flow", [](auto& q) { q.flowID = "receipts"; }, {"mar-late", "jan-last", "old-year"}},
        {"flow, _ and all", [](auto& q) { q.flowID = "mail_digest"; }, {"feb-mid"}},
        {"status, any case", [](auto& q) { q.status = "failed"; }, {"feb-first", "mar-late"}},
        {"since a minute's start",
         [](auto& q) { q.since = localTime(2024, 2, 1, 0, 0); },
         {"feb-first", "apr", "mar-late", "mar", "feb-mid"}},
        {"since just after it",
         [](auto& q) { q.since = localTime(2024, 2, 1, 0, 0) + justAfter; },
         {"apr", "mar-late", "mar", "feb-mid"}},
        {"since within the minute before",
         [](auto& q) { q.since = localTime(2024, 1, 31, 23, 59, 30); },
         {"feb-first", "apr", "mar-late", "mar", "feb-mid"}},
        {"until a minute's start",
         [](auto& q) { q.until = localTime(2024, 2, 1, 0, 0); },
         {"jan-last", "old-year"}},
        {"until just after it",
         [](auto& q) { q.until = localTime(2024, 2, 1, 0, 0) + justAfter; },
         {"feb-first", "jan-last", "old-year"}},
        {"until the new year",
         [](auto& q) { q.until = localTime(2024, 1, 1, 0, 0); },
         {"old-year"}},
        {"one month",
         [](auto& q) {
             q.since = localTime(2024, 3, 1, 0, 0);
             q.until = localTime(2024, 4, 1, 0, 0);
         },
         {"mar-late", "mar"}},
        {"empty span",
         [](auto& q) {
             q.since = localTime(2024, 3, 1, 9, 30);
             q.until = localTime(2024, 3, 1, 9, 30);
         },
         {}},
        {"text in the summary, any case", [](auto& q) { q.text = "FILED 1000"; }, {"jan-last"}},
        {"text in the flow name", [](auto& q) { q.text = "inventory SYNC"; }, {"feb-first", "apr"}},
        {"text in the flow id", [](auto& q) { q.text = "L-DIGEST"; }, {"mar"}},
        {"text in a step's error", [](auto& q) { q.text = "quota exceeded"; }, {"feb-first"}},
        {"text with _ matches only _", [](auto& q) { q.text = "mail_d"; }, {"feb-mid"}},
        {"text with % matches only %", [](auto& q) { q.text = "100%"; }, {"mar"}},
        {"text with a backslash", [](auto& q) { q.text = "c:\\drafts"; }, {"mar"}},
        {"text only in a step's input", [](auto& q) { q.text = "hidden-token"; }, {}},
        {"text only in the status", [](auto& q) { q.text = "success"; }, {}},
        {"flow and status",
         [](auto& q) {
             q.flowID = "receipts";
             q.status = "Failed";
         },
         {"mar-late"}},
        {"flow and since",
         [](auto& q) {
             q.flowID = "inventory";
             q.since = localTime(2024, 3, 1, 0, 0);
         },
         {"apr"}},
        {"text, status and until",
         [](auto& q) {
             q.text = "receipts";
             q.status = "SUCCESS";
             q.until = localTime(2024, 2, 1, 0, 0);
         },
         {"jan-last", "old-year"}},
        {"every filter",
         [](auto& q) {
             q.flowID = "inventory";
             q.status = "failed";
             q.since = localTime(2024, 2, 1, 0, 0);
             q.until = localTime(2024, 2, 1, 0, 1);
             q.text = "quota";
         },
         {"feb-first"}},
        {"every filter, one not met",
         [](auto& q) {
             q.flowID = "receipts";
             q.status = "failed";
             q.since = localTime(2024, 2, 1, 0, 0);
             q.text = "quota";
         },
         {}},
    };
    for (const auto& [name, set, expected] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(labels(queryWith(set)), expected);
    }
}

TEST_F(AuditLogQueryTest, OffsetPagesThroughTheMatchesNewestFirst) {
    const std::vector<std::function<void(AuditRunQuery&)>> filters{
        [](auto&) {},
        [](auto& q) { q.flowID = "receipts"; },
        [](auto& q) { q.since = localTime(2024, 2, 1, 0, 0); },
        [](auto& q) { q.text = "e"; },
    };
    for (std::size_t filter = 0; filter < filters.size(); ++filter) {
        SCOPED_TRACE("filter " + std::to_string(filter));
        const auto all = labels(queryWith(filters[filter]));
        for (const std::size_t pageSize : {1u, 2u, 3u}) {
            Labels paged;
            for (std::size_t offset = 0; offset <= all.size(); offset += pageSize) {
                auto page = queryWith(filters[filter]);
                page.limit = pageSize;
                page.offset = offset;
                const auto got = labels(page);
                EXPECT_LE(got.size(), pageSize);
                paged.insert(paged.end(), got.begin(), got.end());
            }
            EXPECT_EQ(paged, all) << "pages of " << pageSize;
        }
        auto rest = queryWith(filters[filter]);
        rest.offset = 2;
        EXPECT_EQ(labels(rest),
                  Labels(all.begin() + std::min<std::size_t>(2, all.size()), all.end()));
        rest.offset = all.size();
        EXPECT_TRUE(labels(rest).empty());
    }
}

// What totals(query) must give: the sums over what runs(query) lists without its page.
AuditTotals summed(const std::vector<AuditRun>& runs) {
    AuditTotals totals;
    for (const auto& run : runs) {
        totals.runs += 1;
        totals.minutesSaved += run.minutesSaved;
        totals.llmCostUSD += run.llmCostUSD;
    }
    return totals;
}

void expectTotals(const AuditTotals& actual, const AuditTotals& expected) {
    EXPECT_EQ(actual.runs, expected.runs);
    EXPECT_EQ(actual.minutesSaved, expected.minutesSaved);
    EXPECT_NEAR(actual.llmCostUSD, expected.llmCostUSD, 1e-9);
}

void expectGroups(const std::vector<AuditGroupTotals>& actual,
                  const std::vector<AuditGroupTotals>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t group = 0; group < actual.size(); ++group) {
        EXPECT_EQ(actual[group].key, expected[group].key);
        expectTotals(actual[group].totals, expected[group].totals);
    }
}

TEST_F(AuditLogQueryTest, TotalsMatchTheQueryAsAWholeByFlowAndByMonth) {
    const std::vector<std::function<void(AuditRunQuery&)>> filters{
        [](auto&) {},
        [](auto& q) { q.status = "failed"; },
        [](auto& q) { q.since = localTime(2024, 2, 1, 0, 0) + justAfter; },
        [](auto& q) {
            q.text = "receipts";
            q.until = localTime(2024, 3, 1, 0, 0);
        },
        [](auto& q) { q.flowID = "nobody"; },
    };
    const auto audit = store();
    for (std::size_t filter = 0; filter < filters.size(); ++filter) {
        SCOPED_TRACE("filter " + std::to_string(filter));
        const auto matching = audit.runs(queryWith(filters[filter]));
        std::map<std::string, std::vector<AuditRun>> flows;
        std::map<std::string, std::vector<AuditRun>, std::greater<>> months;
        for (const auto& run : matching) {
            flows[run.flowID].push_back(run);
            months[run.timestamp.substr(0, 7)].push_back(run);
        }
        std::vector<AuditGroupTotals> byFlow;
        std::vector<AuditGroupTotals> byMonth;
        for (const auto& [flow, runs] : flows) {
            byFlow.push_back({flow, summed(runs)});
        }
        for (const auto& [month, runs] : months) {
            byMonth.push_back({month, summed(runs)});
        }

        // A page of the query doesn't narrow its totals.
        auto query = queryWith(filters[filter]);
        query.limit = 1;
        query.offset = 1;
        expectTotals(audit.totals(query), summed(matching));
        expectGroups(audit.totalsByFlow(query), byFlow);
        expectGroups(audit.totalsByMonth(query), byMonth);
    }

    std::vector<std::string> flowKeys;
    for (const auto& group : audit.totalsByFlow({})) {
        flowKeys.push_back(group.key);
    }
    EXPECT_EQ(flowKeys, (Labels{"inventory", "mail-digest", "mail_digest", "receipts"}));
    std::vector<std::string> monthKeys;
    for (const auto& group : audit.totalsByMonth({})) {
        monthKeys.push_back(group.key);
    }
    EXPECT_EQ(monthKeys, (Labels{"2024-04", "2024-03", "2024-02", "2024-01", "2023-12"}));
}

// The totals a history must show: the sums over load().
void expectTotalsOfHistory(const AuditLogStore& audit) {
    const auto expected = summed(audit.load().runs);
    expectTotals(audit.totals(), expected);
    EXPECT_EQ(audit.totals(AuditRunQuery{}), audit.totals());
}

AuditRun runWorth(std::string flowID, std::int64_t minutes, double cost) {
    auto run = sampleRun(std::move(flowID), 1);
    run.minutesSaved = minutes;
    run.llmCostUSD = cost;
    return run;
}

TEST_F(AuditLogStoreTest, KeptTotalsFollowEveryKindOfWrite) {
    auto audit = store();
    AuditRun first = runWorth("a", 10, 0.1);
    const AuditRun replaced = runWorth("c", 4, 0.3);
    const struct {
        std::string name;
        std::function<void()> write;
    } writes[] = {
        {"nothing yet", [] {}},
        {"appends",
         [&] {
             audit.append(first);
             audit.append(runWorth("b", 5, 0.2));
         }},
        {"an append replacing a run",
         [&] {
             first.minutesSaved = 1;
             first.llmCostUSD = 0.7;
             audit.append(first);
         }},
        {"a save",
         [&] {
             audit.save({{replaced, runWorth("d", 8, 0.05), runWorth("e", 0, 0)}});
         }},
        // Rows written as an older build writes them, knowing nothing of the totals.
        {"a replace by hand",
         [&] {
             sqlExecute(database(),
                        "INSERT OR REPLACE INTO audit_runs (id, flow_id, flow_name, timestamp, "
                        "trigger, status, output_summary, minutes_saved, llm_cost_usd, "
                        "duration_seconds, output_folder) VALUES ('" +
                            replaced.id.uppercaseString() +
                            "', 'c', 'C', '2024-05-01 10:00', 'manual', 'Success', 's', 40, "
                            "1.25, 1, NULL);");
         }},
        {"a delete by hand",
         [&] { sqlExecute(database(), "DELETE FROM audit_runs WHERE flow_id = 'd';"); }},
        {"an update by hand",
         [&] {
             sqlExecute(database(), "UPDATE audit_runs SET minutes_saved = 2, llm_cost_usd = 0.5 "
                                    "WHERE flow_id = 'e';");
         }},
        {"a failed append",
         [&] {
             sqlExecute(database(), "CREATE TRIGGER reject BEFORE INSERT ON audit_step_records "
                                    "BEGIN SELECT RAISE(ABORT, 'rejected'); END;");
             EXPECT_THROW(audit.append(runWorth("f", 100, 9)), AuditLogStoreError);
             sqlExecute(database(), "DROP TRIGGER reject;");
         }},
        {"an empty save",
         [&] {
             audit.save({{runWorth("x", 1, 0.1), runWorth("y", 2, 0.2), runWorth("z", 3, 0.3)}});
             audit.save({});
             // Exactly, though 0.1 + 0.2 + 0.3 taken off one by one doesn't come to 0.
             EXPECT_EQ(audit.totals(), AuditTotals{});
         }},
        {"a legacy import",
         [&] {
             writeLegacy(threeLegacyRuns);
             audit.load();
         }},
        {"the kept row deleted by hand",
         [&] {
             sqlExecute(database(), "DELETE FROM audit_totals;");
             audit.append(runWorth("g", 6, 0.125));
         }},
    };
    for (const auto& [name, write] : writes) {
        SCOPED_TRACE(name);
        write();
        expectTotalsOfHistory(audit);
    }
}

// The schema as the version before the kept totals made it, with some history in it.
void writeDatabaseOfThePreviousVersion(const std::filesystem::path& path,
                                       const std::vector<AuditRun>& runs) {
    createDirectories(path.parent_path());
    std::string sql =
        "CREATE TABLE audit_runs (id TEXT PRIMARY KEY NOT NULL, flow_id TEXT NOT NULL, "
        "flow_name TEXT NOT NULL, timestamp TEXT NOT NULL, trigger TEXT NOT NULL, status TEXT "
        "NOT NULL, output_summary TEXT NOT NULL, minutes_saved INTEGER NOT NULL, llm_cost_usd "
        "REAL NOT NULL, duration_seconds REAL NOT NULL, output_folder TEXT);"
        "CREATE TABLE audit_step_timings (id INTEGER PRIMARY KEY AUTOINCREMENT, run_id TEXT NOT "
        "NULL, position INTEGER NOT NULL, step_id TEXT NOT NULL, title TEXT NOT NULL, "
        "duration_seconds REAL NOT NULL, FOREIGN KEY (run_id) REFERENCES audit_runs(id) ON "
        "DELETE CASCADE);"
        "CREATE TABLE audit_step_records (id INTEGER PRIMARY KEY AUTOINCREMENT, run_id TEXT NOT "
        "NULL, position INTEGER NOT NULL, step_id TEXT NOT NULL, title TEXT NOT NULL, input_json "
        "TEXT, output_json TEXT, error_json TEXT, FOREIGN KEY (run_id) REFERENCES "
        "audit_runs(id) ON DELETE CASCADE);"
        "CREATE INDEX idx_audit_step_timings_run_id ON audit_step_timings(run_id, position);"
        "CREATE INDEX idx_audit_step_records_run_id ON audit_step_records(run_id, position);";
    for (const auto& run : runs) {
        const auto id = run.id.uppercaseString();
        sql += "INSERT INTO audit_runs VALUES ('" + id + "', '" + run.flowID + "', 'Name', '" +
               run.timestamp + "', 'manual', 'Success', 'Summary', " +
               std::to_string(run.minutesSaved) + ", " + std::to_string(run.llmCostUSD) +
               ", 1.5, NULL);";
        sql += "INSERT INTO audit_step_timings (run_id, position, step_id, title, "
               "duration_seconds) VALUES ('" +
               id + "', 0, 's', 'S', 0.5);";
        sql += "INSERT INTO audit_step_records (run_id, position, step_id, title, error_json) "
               "VALUES ('" +
               id + "', 0, 's', 'S', '{\"message\":\"disk full\"}');";
    }
    sqlExecute(path, sql);
}

TEST_F(AuditLogStoreTest, ADatabaseOfThePreviousVersionGainsTotalsAndIndexesKeepingItsTables) {
    std::vector<AuditRun> runs;
    for (int index = 0; index < 5; ++index) {
        auto run = runWorth(index % 2 == 0 ? "even" : "odd", index, 0.5 * index);
        run.timestamp = "2024-0" + std::to_string(index + 1) + "-10 08:00";
        runs.push_back(run);
    }
    writeDatabaseOfThePreviousVersion(database(), runs);
    const auto tablesBefore = sqlQuery(database(), "SELECT name, sql FROM sqlite_master "
                                                   "WHERE name LIKE 'audit_%' AND type = 'table' "
                                                   "OR name LIKE 'idx_audit_step%' ORDER BY name;");

    auto audit = store();
    expectTotals(audit.totals(), summed(runs));
    EXPECT_EQ(sqlQuery(database(), "SELECT name FROM sqlite_master WHERE type = 'index' AND "
                                   "name LIKE 'idx_audit_runs%' ORDER BY name;"),
              (SqlRows{{"idx_audit_runs_flow_id"}, {"idx_audit_runs_timestamp"}}));
    // The history's own tables and indexes are left as they were; ours come beside them.
    auto tablesAfter = sqlQuery(database(), "SELECT name, sql FROM sqlite_master "
                                            "WHERE name LIKE 'audit_%' AND type = 'table' "
                                            "OR name LIKE 'idx_audit_step%' ORDER BY name;");
    std::erase_if(tablesAfter, [](const auto& row) { return row[0] == "audit_totals"; });
    EXPECT_EQ(tablesAfter, tablesBefore);

    // The old rows answer the new queries, and later writes keep the totals.
    auto query = queryWith([](auto& q) { q.text = "DISK FULL"; });
    EXPECT_EQ(audit.runs(query).size(), runs.size());
    query = queryWith([](auto& q) { q.flowID = "even"; });
    expectTotals(audit.totals(query), summed({runs[0], runs[2], runs[4]}));
    audit.append(runWorth("even", 100, 2));
    expectTotalsOfHistory(audit);
}

// The budget's account: the costs the step records carry, not the run rows' own.
TEST_F(AuditLogStoreTest, LLMSpendAddsUpTheStepRecordsOfTheMatchingRuns) {
    const LocalZone zone{"XST-5:30"};
    auto audit = store();
    const auto runAt = [&](const char* timestamp,
                           const std::vector<std::optional<std::string>>& outputs) {
        AuditRun run = sampleRun("flow", outputs.size());
        run.timestamp = timestamp;
        run.llmCostUSD = 100;
        for (std::size_t step = 0; step < outputs.size(); ++step) {
            run.stepRecords[step].outputJSON = outputs[step];
        }
        audit.append(run);
    };
    runAt("2024-02-29 23:59", {R"({"llm_cost_usd": 1.5})"});
    runAt("2024-03-01 00:00", {R"({"llm_cost_usd": 0.25})", R"({"llm_cost_usd": "0.5"})"});
    runAt("2024-03-31 23:59", {R"({"llm_cost_usd": 2})", R"({"llm_cost_usd": 1)", std::nullopt,
                               R"({"inner": {"llm_cost_usd": 9}})", R"({"llm_cost_usd": "n/a"})"});
    runAt("2024-04-01 00:00", {R"({"llm_cost_usd": 4})"});

    AuditRunQuery march;
    std::tie(march.since, march.until) = localMonthBounds(localTime(2024, 3, 15, 12, 0));
    EXPECT_DOUBLE_EQ(audit.llmSpendUSD(march), 2.75);
    EXPECT_DOUBLE_EQ(audit.llmSpendUSD({}), 8.25);
    EXPECT_DOUBLE_EQ(audit.llmSpendUSD(queryWith([](auto& q) { q.flowID = "other"; })), 0);
}

} // namespace
} // namespace quorlin

#include "AuditLogStore.h"

#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/AtomicFile.h"
#include "core/stores/AuditDatabase.h"
#include "core/stores/AuditRunJson.h"

#include <system_error>

// The database keeps SQLite's default rollback journal (with its default synchronous
// FULL) rather than WAL. Every call opens and closes its own short connection, so WAL's
// readers-beside-a-writer buys little, and the rollback journal keeps the history in one
// file that holds every committed run on its own: a copy, a backup or a reset never has
// to know about -wal/-shm companions, which after a crash would still hold the latest
// commits. A commit is on disk when append() returns.

namespace quorlin {

namespace {

constexpr const char* createRunsTable =
    "CREATE TABLE IF NOT EXISTS audit_runs ("
    "id TEXT PRIMARY KEY NOT NULL, flow_id TEXT NOT NULL, flow_name TEXT NOT NULL, "
    "timestamp TEXT NOT NULL, trigger TEXT NOT NULL, status TEXT NOT NULL, "
    "output_summary TEXT NOT NULL, minutes_saved INTEGER NOT NULL, "
    "llm_cost_usd REAL NOT NULL, duration_seconds REAL NOT NULL, output_folder TEXT);";

constexpr const char* createTimingsTable =
    "CREATE TABLE IF NOT EXISTS audit_step_timings ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, run_id TEXT NOT NULL, position INTEGER NOT NULL, "
    "step_id TEXT NOT NULL, title TEXT NOT NULL, duration_seconds REAL NOT NULL, "
    "FOREIGN KEY (run_id) REFERENCES audit_runs(id) ON DELETE CASCADE);";

constexpr const char* createRecordsTable =
    "CREATE TABLE IF NOT EXISTS audit_step_records ("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, run_id TEXT NOT NULL, position INTEGER NOT NULL, "
    "step_id TEXT NOT NULL, title TEXT NOT NULL, input_json TEXT, output_json TEXT, "
    "error_json TEXT, "
    "FOREIGN KEY (run_id) REFERENCES audit_runs(id) ON DELETE CASCADE);";

constexpr const char* createTimingsIndex =
    "CREATE INDEX IF NOT EXISTS idx_audit_step_timings_run_id "
    "ON audit_step_timings(run_id, position);";

constexpr const char* createRecordsIndex =
    "CREATE INDEX IF NOT EXISTS idx_audit_step_records_run_id "
    "ON audit_step_records(run_id, position);";

constexpr std::string_view selectRuns =
    "SELECT id, flow_id, flow_name, timestamp, trigger, status, output_summary, "
    "minutes_saved, llm_cost_usd, duration_seconds, output_folder "
    "FROM audit_runs ORDER BY rowid ASC;";

constexpr std::string_view selectTimings =
    "SELECT step_id, title, duration_seconds FROM audit_step_timings "
    "WHERE run_id = ? ORDER BY position ASC;";

constexpr std::string_view selectRecords =
    "SELECT step_id, title, input_json, output_json, error_json FROM audit_step_records "
    "WHERE run_id = ? ORDER BY position ASC;";

bool hasErrorJsonColumn(AuditDatabase& database) {
    auto columns = database.prepare("PRAGMA table_info(audit_step_records);");
    while (columns.step()) {
        if (columns.optionalText(1) == "error_json") {
            return true;
        }
    }
    return false;
}

// Makes sure the folder, the file, the tables and the indexes exist, and brings a
// database from before error_json up to date. Foreign keys are switched on here only;
// the other connections delete step rows themselves rather than rely on the cascade.
void prepareDatabase(const std::filesystem::path& path) {
    if (path.has_parent_path()) {
        createDirectories(path.parent_path());
    }
    auto database = AuditDatabase::open(path);
    database.execute("PRAGMA foreign_keys = ON;");
    database.execute(createRunsTable);
    database.execute(createTimingsTable);
    database.execute(createRecordsTable);
    if (!hasErrorJsonColumn(database)) {
        // Checked again under the write lock: two processes may both have seen an old
        // database, and the second ALTER would fail on a duplicate column.
        database.inTransaction([&] {
            if (!hasErrorJsonColumn(database)) {
                database.execute("ALTER TABLE audit_step_records ADD COLUMN error_json TEXT;");
            }
        });
    }
    database.execute(createTimingsIndex);
    database.execute(createRecordsIndex);
}

std::int64_t countRuns(AuditDatabase& database) {
    auto count = database.prepare("SELECT COUNT(*) FROM audit_runs;");
    return count.step() ? count.integer(0) : 0;
}

// Writes runs with their step rows; the caller holds the transaction. Statements are
// prepared once per writer and reset between rows.
class RunWriter {
public:
    explicit RunWriter(AuditDatabase& database)
        : upsertRun_(database.prepare(
              "INSERT OR REPLACE INTO audit_runs (id, flow_id, flow_name, timestamp, trigger, "
              "status, output_summary, minutes_saved, llm_cost_usd, duration_seconds, "
              "output_folder) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?);")),
          deleteTimings_(database.prepare("DELETE FROM audit_step_timings WHERE run_id = ?;")),
          insertTiming_(
              database.prepare("INSERT INTO audit_step_timings (run_id, position, step_id, title, "
                               "duration_seconds) VALUES (?, ?, ?, ?, ?);")),
          deleteRecords_(database.prepare("DELETE FROM audit_step_records WHERE run_id = ?;")),
          insertRecord_(database.prepare(
              "INSERT INTO audit_step_records (run_id, position, step_id, title, input_json, "
              "output_json, error_json) VALUES (?, ?, ?, ?, ?, ?, ?);")) {}

    void insert(const AuditRun& run) {
        const std::string id = run.id.uppercaseString();
        upsertRun_.bindText(1, id);
        upsertRun_.bindText(2, run.flowID);
        upsertRun_.bindText(3, run.flowName);
        upsertRun_.bindText(4, run.timestamp);
        upsertRun_.bindText(5, run.trigger);
        upsertRun_.bindText(6, run.status);
        upsertRun_.bindText(7, run.outputSummary);
        upsertRun_.bindInteger(8, run.minutesSaved);
        upsertRun_.bindReal(9, run.llmCostUSD);
        upsertRun_.bindReal(10, run.durationSeconds);
        upsertRun_.bindOptionalText(11, run.outputFolder);
        execute(upsertRun_);

        deleteTimings_.bindText(1, id);
        execute(deleteTimings_);
        for (std::size_t position = 0; position < run.stepTimings.size(); ++position) {
            const auto& timing = run.stepTimings[position];
            insertTiming_.bindText(1, id);
            insertTiming_.bindInteger(2, static_cast<std::int64_t>(position));
            insertTiming_.bindText(3, timing.stepID);
            insertTiming_.bindText(4, timing.title);
            insertTiming_.bindReal(5, timing.durationSeconds);
            execute(insertTiming_);
        }

        deleteRecords_.bindText(1, id);
        execute(deleteRecords_);
        for (std::size_t position = 0; position < run.stepRecords.size(); ++position) {
            const auto& record = run.stepRecords[position];
            insertRecord_.bindText(1, id);
            insertRecord_.bindInteger(2, static_cast<std::int64_t>(position));
            insertRecord_.bindText(3, record.stepID);
            insertRecord_.bindText(4, record.title);
            insertRecord_.bindOptionalText(5, record.inputJSON);
            insertRecord_.bindOptionalText(6, record.outputJSON);
            insertRecord_.bindOptionalText(7, record.errorJSON);
            execute(insertRecord_);
        }
    }

private:
    static void execute(AuditStatement& statement) {
        statement.run();
        statement.reset();
    }

    AuditStatement upsertRun_;
    AuditStatement deleteTimings_;
    AuditStatement insertTiming_;
    AuditStatement deleteRecords_;
    AuditStatement insertRecord_;
};

// Imports the old JSON history into a database that holds no run yet. The file stays
// where it is; the count keeps the import from running twice.
void importLegacyIfNeeded(const std::filesystem::path& databasePath,
                          const std::filesystem::path& legacyPath) {
    std::error_code error;
    if (!std::filesystem::exists(legacyPath, error)) {
        return; // also when it can't be told: then reading it would fail the same way
    }
    auto database = AuditDatabase::open(databasePath);
    if (countRuns(database) != 0) {
        return;
    }
    database.inTransaction([&] {
        // Counted again under the write lock, so two processes starting together can't
        // both import (runs without an id would be doubled).
        if (countRuns(database) != 0) {
            return;
        }
        const auto document = decodeAuditLogDocumentJson(readFile(legacyPath));
        RunWriter writer(database);
        for (const auto& run : document.runs) {
            writer.insert(run);
        }
    });
}

AuditRun readRun(const AuditStatement& row, const std::string& idText) {
    AuditRun run;
    const auto id = Uuid::parse(idText);
    if (!id) {
        throw AuditLogStoreError::sqlite("Invalid audit run id: " + idText);
    }
    run.id = *id;
    run.flowID = row.text(1);
    run.flowName = row.text(2);
    run.timestamp = row.text(3);
    run.trigger = row.text(4);
    run.status = row.text(5);
    run.outputSummary = row.text(6);
    run.minutesSaved = row.integer(7);
    run.llmCostUSD = row.real(8);
    run.durationSeconds = row.real(9);
    run.outputFolder = row.optionalText(10);
    return run;
}

} // namespace

// The data root is not created here: constructing a store touches nothing on disk.
AuditLogStore::AuditLogStore(const AppSupportPaths& paths)
    : AuditLogStore(paths.root() / "quorlin.sqlite", paths.root() / "audit-log.json") {}

AuditLogStore::AuditLogStore(std::filesystem::path databasePath, std::filesystem::path legacyPath)
    : databasePath_(std::move(databasePath)), legacyPath_(std::move(legacyPath)) {}

AuditLogDocument AuditLogStore::load() const {
    prepareDatabase(databasePath_);
    importLegacyIfNeeded(databasePath_, legacyPath_);
    auto database = AuditDatabase::open(databasePath_);
    // Step rows are looked up run by run, all over the file; with SQLite's default 2 MB
    // page cache a large history would be read from the file several times over. This one
    // (at most 64 MiB) grows only as pages are read and goes with the connection.
    database.execute("PRAGMA cache_size = -65536;");
    auto runs = database.prepare(selectRuns);
    auto timings = database.prepare(selectTimings);
    auto records = database.prepare(selectRecords);
    AuditLogDocument document;
    while (runs.step()) {
        // Step rows are looked up by the id as stored, whatever its letter case.
        const std::string idText = runs.text(0);
        AuditRun run = readRun(runs, idText);
        timings.bindText(1, idText);
        while (timings.step()) {
            run.stepTimings.push_back({timings.text(0), timings.text(1), timings.real(2)});
        }
        timings.reset();
        records.bindText(1, idText);
        while (records.step()) {
            run.stepRecords.push_back({records.text(0), records.text(1), records.optionalText(2),
                                       records.optionalText(3), records.optionalText(4)});
        }
        records.reset();
        document.runs.push_back(std::move(run));
    }
    return document;
}

void AuditLogStore::append(const AuditRun& run) {
    prepareDatabase(databasePath_);
    importLegacyIfNeeded(databasePath_, legacyPath_);
    auto database = AuditDatabase::open(databasePath_);
    database.inTransaction([&] { RunWriter(database).insert(run); });
}

void AuditLogStore::save(const AuditLogDocument& document) {
    prepareDatabase(databasePath_);
    auto database = AuditDatabase::open(databasePath_);
    database.inTransaction([&] {
        database.execute("DELETE FROM audit_step_timings;");
        database.execute("DELETE FROM audit_step_records;");
        database.execute("DELETE FROM audit_runs;");
        RunWriter writer(database);
        for (const auto& run : document.runs) {
            writer.insert(run);
        }
    });
}

} // namespace quorlin

#include "core/stores/AuditLogSchema.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/stores/AuditDatabase.h"
#include "core/stores/AuditRunJson.h"
#include "core/stores/AuditRunWriter.h"

#include <system_error>

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

// What the store adds beside the tables above, for queries over a long history: indexes
// for the flow and time filters, and the all-time totals kept up to date by triggers, so
// totals() reads one row. Triggers, not the writer, keep them because an older build of
// this program (the app and the command line may differ) writes through the same
// statements and keeps them right without knowing of them.
constexpr const char* createRunsFlowIndex =
    "CREATE INDEX IF NOT EXISTS idx_audit_runs_flow_id ON audit_runs(flow_id);";

constexpr const char* createRunsTimestampIndex =
    "CREATE INDEX IF NOT EXISTS idx_audit_runs_timestamp ON audit_runs(timestamp);";

// One row. When the last run goes, the cost is set to 0 exactly rather than left as what
// adding and taking off fractions rounds to.
constexpr const char* createTotals =
    "CREATE TABLE audit_totals (id INTEGER PRIMARY KEY CHECK (id = 1), "
    "runs INTEGER NOT NULL, minutes_saved INTEGER NOT NULL, llm_cost_usd REAL NOT NULL);"
    "INSERT INTO audit_totals (id, runs, minutes_saved, llm_cost_usd) "
    "SELECT 1, COUNT(*), COALESCE(SUM(minutes_saved), 0), COALESCE(SUM(llm_cost_usd), 0.0) "
    "FROM audit_runs;"
    // INSERT OR REPLACE deletes the run it replaces without firing the delete trigger
    // (recursive triggers are off), so the replaced run is taken off before the insert.
    "CREATE TRIGGER audit_totals_replace BEFORE INSERT ON audit_runs "
    "WHEN EXISTS (SELECT 1 FROM audit_runs WHERE id = NEW.id) BEGIN "
    "UPDATE audit_totals SET runs = runs - 1, "
    "minutes_saved = minutes_saved - (SELECT minutes_saved FROM audit_runs WHERE id = NEW.id), "
    "llm_cost_usd = CASE WHEN runs > 1 THEN llm_cost_usd - "
    "(SELECT llm_cost_usd FROM audit_runs WHERE id = NEW.id) ELSE 0.0 END; END;"
    "CREATE TRIGGER audit_totals_insert AFTER INSERT ON audit_runs BEGIN "
    "UPDATE audit_totals SET runs = runs + 1, minutes_saved = minutes_saved + NEW.minutes_saved, "
    "llm_cost_usd = llm_cost_usd + NEW.llm_cost_usd; END;"
    "CREATE TRIGGER audit_totals_delete AFTER DELETE ON audit_runs BEGIN "
    "UPDATE audit_totals SET runs = runs - 1, minutes_saved = minutes_saved - OLD.minutes_saved, "
    "llm_cost_usd = CASE WHEN runs > 1 THEN llm_cost_usd - OLD.llm_cost_usd ELSE 0.0 END; END;"
    "CREATE TRIGGER audit_totals_update AFTER UPDATE OF minutes_saved, llm_cost_usd "
    "ON audit_runs BEGIN "
    "UPDATE audit_totals SET minutes_saved = minutes_saved - OLD.minutes_saved + "
    "NEW.minutes_saved, llm_cost_usd = llm_cost_usd - OLD.llm_cost_usd + NEW.llm_cost_usd; END;";

bool hasTable(AuditDatabase& database, const char* name) {
    auto table = database.prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?;");
    table.bindText(1, name);
    return table.step();
}

bool hasErrorJsonColumn(AuditDatabase& database) {
    auto columns = database.prepare("PRAGMA table_info(audit_step_records);");
    while (columns.step()) {
        if (columns.optionalText(1) == "error_json") {
            return true;
        }
    }
    return false;
}

std::int64_t countRuns(AuditDatabase& database) {
    auto count = database.prepare("SELECT COUNT(*) FROM audit_runs;");
    return count.step() ? count.integer(0) : 0;
}

} // namespace

// Makes sure the folder, the file, the tables and the indexes exist, and brings a
// database from before error_json, or from before the kept totals, up to date. Foreign
// keys are switched on here only; the other connections delete step rows themselves
// rather than rely on the cascade.
void prepareAuditDatabase(const std::filesystem::path& path) {
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
    database.execute(createRunsFlowIndex);
    database.execute(createRunsTimestampIndex);
    if (!hasTable(database, "audit_totals")) {
        // Made and filled under the write lock, with its triggers, so no run written
        // meanwhile is missed or counted twice, and two processes can't both make it.
        database.inTransaction([&] {
            if (!hasTable(database, "audit_totals")) {
                database.execute(createTotals);
            }
        });
    }
}

// Imports the old JSON history into a database that holds no run yet. The file stays
// where it is; the count keeps the import from running twice.
void importLegacyAuditLog(const std::filesystem::path& databasePath,
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
        // Years of history may be far larger than a document a person writes.
        AuditLogDocument document;
        try {
            document = decodeAuditLogDocumentJson(readFile(legacyPath, std::size_t{1} << 30U));
        } catch (const JsonError& invalid) {
            throw JsonError(invalid.detail(), legacyPath); // the parser can't name the file
        }
        AuditRunWriter writer(database);
        for (const auto& run : document.runs) {
            writer.insert(run);
        }
    });
}

} // namespace quorlin

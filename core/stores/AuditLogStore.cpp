#include "AuditLogStore.h"

#include "core/definitions/AppSupportPaths.h"
#include "core/stores/AuditLogSchema.h"
#include "core/stores/AuditRunWriter.h"

#include <string>

// The database keeps SQLite's default rollback journal (with its default synchronous
// FULL) rather than WAL. Every call opens and closes its own short connection, so WAL's
// readers-beside-a-writer buys little, and the rollback journal keeps the history in one
// file that holds every committed run on its own: a copy, a backup or a reset never has
// to know about -wal/-shm companions, which after a crash would still hold the latest
// commits. A commit is on disk when append() returns.

namespace quorlin {

namespace {

// The columns readRun reads, in its order.
constexpr std::string_view runColumns =
    "SELECT id, flow_id, flow_name, timestamp, trigger, status, output_summary, "
    "minutes_saved, llm_cost_usd, duration_seconds, output_folder FROM audit_runs ";

// Every filter is written in and switched off by a NULL, so one statement serves every
// query. lower() folds ASCII letters only, as status words are compared.
constexpr std::string_view queriedRuns =
    "WHERE (?1 IS NULL OR flow_id = ?1) AND (?2 IS NULL OR lower(status) = lower(?2)) "
    "ORDER BY rowid DESC LIMIT ?3;";

constexpr std::string_view selectTimings =
    "SELECT step_id, title, duration_seconds FROM audit_step_timings "
    "WHERE run_id = ? ORDER BY position ASC;";

constexpr std::string_view selectRecords =
    "SELECT step_id, title, input_json, output_json, error_json FROM audit_step_records "
    "WHERE run_id = ? ORDER BY position ASC;";

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

// Reads every run the statement gives, each with its step rows.
std::vector<AuditRun> readRuns(AuditDatabase& database, AuditStatement& runs) {
    auto timings = database.prepare(selectTimings);
    auto records = database.prepare(selectRecords);
    std::vector<AuditRun> result;
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
        result.push_back(std::move(run));
    }
    return result;
}

} // namespace

// The data root is not created here: constructing a store touches nothing on disk.
AuditLogStore::AuditLogStore(const AppSupportPaths& paths)
    : AuditLogStore(paths.root() / "quorlin.sqlite", paths.root() / "audit-log.json") {}

AuditLogStore::AuditLogStore(std::filesystem::path databasePath, std::filesystem::path legacyPath)
    : databasePath_(std::move(databasePath)), legacyPath_(std::move(legacyPath)) {}

AuditDatabase AuditLogStore::openForReading() const {
    prepareAuditDatabase(databasePath_);
    importLegacyAuditLog(databasePath_, legacyPath_);
    return AuditDatabase::open(databasePath_);
}

AuditLogDocument AuditLogStore::load() const {
    auto database = openForReading();
    // Step rows are looked up run by run, all over the file; with SQLite's default 2 MB
    // page cache a large history would be read from the file several times over. This one
    // (at most 64 MiB) grows only as pages are read and goes with the connection.
    database.execute("PRAGMA cache_size = -65536;");
    auto runs = database.prepare(std::string(runColumns) + "ORDER BY rowid ASC;");
    return {readRuns(database, runs)};
}

std::vector<AuditRun> AuditLogStore::runs(const AuditRunQuery& query) const {
    auto database = openForReading();
    auto runs = database.prepare(std::string(runColumns) + std::string(queriedRuns));
    if (query.flowID) {
        runs.bindText(1, *query.flowID);
    }
    if (query.status) {
        runs.bindText(2, *query.status);
    }
    // A negative limit is no limit in SQLite.
    runs.bindInteger(3, query.limit ? static_cast<std::int64_t>(*query.limit) : -1);
    return readRuns(database, runs);
}

std::vector<AuditRun> AuditLogStore::runsWithIDPrefix(std::string_view prefix) const {
    auto database = openForReading();
    auto runs = database.prepare(std::string(runColumns) +
                                 "WHERE substr(upper(id), 1, length(?1)) = upper(?1) "
                                 "ORDER BY rowid ASC;");
    runs.bindText(1, prefix);
    return readRuns(database, runs);
}

AuditTotals AuditLogStore::totals() const {
    auto database = openForReading();
    auto sums = database.prepare("SELECT COUNT(*), COALESCE(SUM(minutes_saved), 0), "
                                 "COALESCE(SUM(llm_cost_usd), 0.0) FROM audit_runs;");
    AuditTotals totals;
    if (sums.step()) {
        totals = {sums.integer(0), sums.integer(1), sums.real(2)};
    }
    return totals;
}

void AuditLogStore::checkWritable() const {
    try {
        prepareAuditDatabase(databasePath_);
        auto database = AuditDatabase::open(databasePath_);
        // Taking the write lock is what a read-only file or a lock held elsewhere refuses.
        database.inTransaction([] {});
    } catch (const AuditLogStoreError& error) {
        throw AuditLogStoreError::notWritable(databasePath_, error.detail());
    } catch (const std::exception& error) {
        throw AuditLogStoreError::notWritable(databasePath_, error.what());
    }
}

void AuditLogStore::append(const AuditRun& run) {
    prepareAuditDatabase(databasePath_);
    importLegacyAuditLog(databasePath_, legacyPath_);
    auto database = AuditDatabase::open(databasePath_);
    database.inTransaction([&] { AuditRunWriter(database).insert(run); });
}

void AuditLogStore::save(const AuditLogDocument& document) {
    prepareAuditDatabase(databasePath_);
    auto database = AuditDatabase::open(databasePath_);
    database.inTransaction([&] {
        database.execute("DELETE FROM audit_step_timings;");
        database.execute("DELETE FROM audit_step_records;");
        database.execute("DELETE FROM audit_runs;");
        AuditRunWriter writer(database);
        for (const auto& run : document.runs) {
            writer.insert(run);
        }
    });
}

} // namespace quorlin

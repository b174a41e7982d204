#include "AuditLogStore.h"

#include "core/definitions/AppSupportPaths.h"
#include "core/stores/AuditLogSchema.h"
#include "core/stores/AuditRunFilter.h"
#include "core/stores/AuditRunReader.h"
#include "core/stores/AuditRunWriter.h"

#include <algorithm>
#include <limits>
#include <string>

// The database keeps SQLite's default rollback journal (with its default synchronous
// FULL) rather than WAL. Every call opens and closes its own short connection, so WAL's
// readers-beside-a-writer buys little, and the rollback journal keeps the history in one
// file that holds every committed run on its own: a copy, a backup or a reset never has
// to know about -wal/-shm companions, which after a crash would still hold the latest
// commits. A commit is on disk when append() returns.

namespace quorlin {

namespace {

constexpr std::string_view sums =
    "COUNT(*), COALESCE(SUM(minutes_saved), 0), COALESCE(SUM(llm_cost_usd), 0.0)";

// Limits and offsets beyond what SQLite counts in mean "all" and "past the end".
std::int64_t sqlCount(std::size_t count) {
    return static_cast<std::int64_t>(
        std::min<std::size_t>(count, std::numeric_limits<std::int64_t>::max()));
}

AuditTotals readTotals(const AuditStatement& row, int first) {
    return {row.integer(first), row.integer(first + 1), row.real(first + 2)};
}

// The totals of the runs the filter matches, one group per value of key.
std::vector<AuditGroupTotals> groupTotals(AuditDatabase& database, const AuditRunFilter& filter,
                                          std::string_view key, std::string_view order) {
    auto groups = database.prepare("SELECT " + std::string(key) + ", " + std::string(sums) +
                                   " FROM audit_runs " + filter.sql() + "GROUP BY 1 ORDER BY 1 " +
                                   std::string(order) + ";");
    filter.bind(groups);
    std::vector<AuditGroupTotals> result;
    while (groups.step()) {
        result.push_back({groups.text(0), readTotals(groups, 1)});
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
    return {readAuditHistory(database)};
}

std::vector<AuditRun> AuditLogStore::runs(const AuditRunQuery& query) const {
    const AuditRunFilter filter(query);
    auto database = openForReading();
    // The page's rowids are picked first: where an index serves the filters, SQLite finds
    // and orders them in the index alone, and only the runs returned are read whole.
    auto runs = database.prepare(std::string(selectAuditRuns) +
                                 "WHERE rowid IN (SELECT rowid FROM audit_runs " + filter.sql() +
                                 "ORDER BY rowid DESC LIMIT ? OFFSET ?) ORDER BY rowid DESC;");
    const int next = filter.bind(runs);
    // A negative limit is no limit in SQLite.
    runs.bindInteger(next, query.limit ? sqlCount(*query.limit) : -1);
    runs.bindInteger(next + 1, sqlCount(query.offset));
    return readAuditRuns(database, runs);
}

std::vector<AuditRun> AuditLogStore::runsWithIDPrefix(std::string_view prefix) const {
    auto database = openForReading();
    auto runs = database.prepare(std::string(selectAuditRuns) +
                                 "WHERE substr(upper(id), 1, length(?1)) = upper(?1) "
                                 "ORDER BY rowid ASC;");
    runs.bindText(1, prefix);
    return readAuditRuns(database, runs);
}

AuditTotals AuditLogStore::totals() const {
    auto database = openForReading();
    auto kept = database.prepare(
        "SELECT runs, minutes_saved, llm_cost_usd FROM audit_totals WHERE id = 1;");
    if (kept.step()) {
        return readTotals(kept, 0);
    }
    // Only a row deleted by hand gets here; the sum is right all the same.
    auto summed = database.prepare("SELECT " + std::string(sums) + " FROM audit_runs;");
    summed.step();
    return readTotals(summed, 0);
}

AuditTotals AuditLogStore::totals(const AuditRunQuery& query) const {
    const AuditRunFilter filter(query);
    if (filter.empty()) {
        return totals();
    }
    auto database = openForReading();
    auto summed =
        database.prepare("SELECT " + std::string(sums) + " FROM audit_runs " + filter.sql() + ";");
    filter.bind(summed);
    summed.step();
    return readTotals(summed, 0);
}

std::vector<AuditGroupTotals> AuditLogStore::totalsByFlow(const AuditRunQuery& query) const {
    const AuditRunFilter filter(query);
    auto database = openForReading();
    return groupTotals(database, filter, "flow_id", "ASC");
}

std::vector<AuditGroupTotals> AuditLogStore::totalsByMonth(const AuditRunQuery& query) const {
    const AuditRunFilter filter(query);
    auto database = openForReading();
    // The stored timestamp is already local time: its month is its first seven characters.
    return groupTotals(database, filter, "substr(timestamp, 1, 7)", "DESC");
}

double AuditLogStore::llmSpendUSD(const AuditRunQuery& query) const {
    const AuditRunFilter filter(query);
    auto database = openForReading();
    // The LIKE spares json_valid and json_extract on the records of steps that cost nothing.
    auto summed = database.prepare(
        "SELECT COALESCE(SUM(CAST(json_extract(output_json, '$.llm_cost_usd') AS REAL)), 0.0) "
        "FROM audit_step_records WHERE output_json LIKE '%\"llm_cost_usd\"%' "
        "AND json_valid(output_json) AND run_id IN (SELECT id FROM audit_runs " +
        filter.sql() + ");");
    filter.bind(summed);
    summed.step();
    return summed.real(0);
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

#pragma once

#include "core/stores/AuditDatabase.h"
#include "core/stores/AuditLogStoreError.h"
#include "core/stores/AuditRun.h"
#include "core/stores/AuditRunQuery.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

class AppSupportPaths;

// What the run coordinator needs of the audit log: a place to record a finished run, and
// the LLM spend of past runs that a monthly budget is held against.
class RunAuditLog {
public:
    virtual ~RunAuditLog() = default;
    virtual void append(const AuditRun& run) = 0;
    virtual double llmSpendUSD(const AuditRunQuery& query) const = 0;
};

// The audit history in the SQLite database quorlin.sqlite. The only code that touches
// that database.
//
// Write-through, nothing cached: every call opens its own connections, makes sure the
// schema is there, does its work in one transaction where it writes, and closes. So any
// number of stores (and processes) may point at the same file. Constructing a store
// touches nothing on disk; the folder, the file and the tables appear on the first call.
//
// The old audit-log.json beside the database is imported once, by any call that reads or
// appends, into a database that holds no run yet; the file itself is never changed or
// removed. A legacy file that can't be read or decoded fails those calls with its own error
// (FileError, JsonError, DecodingError) until it is mended or moved away, so no history
// is dropped silently.
//
// Beside the history's own tables the database keeps indexes for the queries below and
// the all-time totals, kept by triggers as runs are written or deleted, by this program
// or an older build of it. A database from before them gains them on the first call.
//
// Other failures throw AuditLogStoreError, except a folder that can't be created
// (FileError). A failed call leaves the previous content.
class AuditLogStore final : public RunAuditLog {
public:
    // quorlin.sqlite and audit-log.json in the data root.
    explicit AuditLogStore(const AppSupportPaths& paths);
    AuditLogStore(std::filesystem::path databasePath, std::filesystem::path legacyPath);

    // Every run with its steps, in history order: the order runs were last written. One
    // snapshot, whatever other processes write meanwhile.
    AuditLogDocument load() const;

    // The runs the query matches, newest first (the reverse of history order), each with
    // its steps: the newest query.offset matches skipped, then at most query.limit. Only
    // the runs returned are read whole, so a short page of the newest runs costs about the
    // same in a long history as in a short one. The flow and time filters are found
    // through an index; status and text are checked run by run from the newest, so a page
    // of rare matches may read far back.
    std::vector<AuditRun> runs(const AuditRunQuery& query) const;

    // The runs whose id begins with prefix, letter case aside, in history order.
    std::vector<AuditRun> runsWithIDPrefix(std::string_view prefix) const;

    // Counts and sums over every run. Kept in the database as runs are written, so this
    // reads one row whatever the length of the history.
    AuditTotals totals() const;

    // Counts and sums over the runs the query matches; its limit and offset don't apply.
    // Worked out by the database; a query without filters reads the kept totals.
    AuditTotals totals(const AuditRunQuery& query) const;

    // The totals of the matching runs per flow id, in byte order of the id (limit and
    // offset don't apply). Only flows with a matching run appear.
    std::vector<AuditGroupTotals> totalsByFlow(const AuditRunQuery& query) const;

    // The totals of the matching runs per month of their timestamp, "yyyy-MM" in local
    // time as the timestamp is, newest month first (limit and offset don't apply). Only
    // months with a matching run appear.
    std::vector<AuditGroupTotals> totalsByMonth(const AuditRunQuery& query) const;

    // The sum of "llm_cost_usd" in the step records' outputs of the matching runs (limit
    // and offset don't apply): what the LLM steps cost, also for the runs whose own row
    // records no cost. A record whose output isn't JSON adds nothing.
    double llmSpendUSD(const AuditRunQuery& query) const override;

    // Throws AuditLogStoreError (notWritable) when the database can't be written now (a
    // folder or file that can't be made or opened, a read-only file, a lock held past the
    // wait), so that a run that couldn't be recorded is not started. Writes no row.
    void checkWritable() const;

    // Adds the run at the end of the history, or replaces the run with the same id (its
    // step rows included) and moves it to the end.
    void append(const AuditRun& run) override;

    // Replaces the whole content by the document's runs, in its order. Never imports
    // the legacy file.
    void save(const AuditLogDocument& document);

    const std::filesystem::path& databasePath() const { return databasePath_; }
    const std::filesystem::path& legacyPath() const { return legacyPath_; }

private:
    // The database made ready and the legacy history imported, for a call that reads.
    AuditDatabase openForReading() const;

    std::filesystem::path databasePath_;
    std::filesystem::path legacyPath_;
};

} // namespace quorlin

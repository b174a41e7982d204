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

// How the run coordinator records a finished run, so a test can hand it something else.
class AuditLogWriting {
public:
    virtual ~AuditLogWriting() = default;
    virtual void append(const AuditRun& run) = 0;
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
// appends,
// into a database that holds no run yet; the file itself is never changed or removed.
// A legacy file that can't be read or decoded fails those calls with its own error
// (FileError, JsonError, DecodingError) until it is mended or moved away, so no history
// is dropped silently.
//
// Other failures throw AuditLogStoreError, except a folder that can't be created
// (FileError). A failed call leaves the previous content.
class AuditLogStore final : public AuditLogWriting {
public:
    // quorlin.sqlite and audit-log.json in the data root.
    explicit AuditLogStore(const AppSupportPaths& paths);
    AuditLogStore(std::filesystem::path databasePath, std::filesystem::path legacyPath);

    // Every run with its steps, in history order: the order runs were last written.
    AuditLogDocument load() const;

    // The runs the query matches, newest first (the reverse of history order), each with
    // its steps. Only the rows returned are read, so a short list costs the same in a long
    // history as in a short one.
    std::vector<AuditRun> runs(const AuditRunQuery& query) const;

    // The runs whose id begins with prefix, letter case aside, in history order.
    std::vector<AuditRun> runsWithIDPrefix(std::string_view prefix) const;

    // Counts and sums over every run, worked out by the database.
    AuditTotals totals() const;

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

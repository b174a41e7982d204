#pragma once

#include "core/stores/AuditDatabase.h"
#include "core/stores/AuditRun.h"

namespace quorlin {

// Writes runs with their step rows; the caller holds the transaction. Statements are
// prepared once per writer and reset between rows.
class AuditRunWriter {
public:
    explicit AuditRunWriter(AuditDatabase& database);

    // Adds the run, or replaces the run with its id together with its step rows.
    void insert(const AuditRun& run);

private:
    static void execute(AuditStatement& statement);

    AuditStatement upsertRun_;
    AuditStatement deleteTimings_;
    AuditStatement insertTiming_;
    AuditStatement deleteRecords_;
    AuditStatement insertRecord_;
};

} // namespace quorlin

#include "core/stores/AuditRunReader.h"

#include "core/stores/AuditLogStoreError.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <unordered_map>

namespace quorlin {

namespace {

constexpr std::string_view selectTimings =
    "SELECT step_id, title, duration_seconds FROM audit_step_timings "
    "WHERE run_id = ? ORDER BY position ASC;";

constexpr std::string_view selectRecords =
    "SELECT step_id, title, input_json, output_json, error_json FROM audit_step_records "
    "WHERE run_id = ? ORDER BY position ASC;";

// Every step row in the order it was written, with its run and position first.
constexpr std::string_view scanTimings =
    "SELECT run_id, position, step_id, title, duration_seconds FROM audit_step_timings "
    "ORDER BY id ASC;";

constexpr std::string_view scanRecords =
    "SELECT run_id, position, step_id, title, input_json, output_json, error_json "
    "FROM audit_step_records ORDER BY id ASC;";

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

// A step row's own columns, from column first on.
AuditStepTiming readTiming(const AuditStatement& row, int first) {
    return {row.text(first), row.text(first + 1), row.real(first + 2)};
}

AuditStepRecord readRecord(const AuditStatement& row, int first) {
    return {row.text(first), row.text(first + 1), row.optionalText(first + 2),
            row.optionalText(first + 3), row.optionalText(first + 4)};
}

// The step rows of one run, looked up through the (run_id, position) indexes.
class StepLookup {
public:
    explicit StepLookup(AuditDatabase& database)
        : timings_(database.prepare(selectTimings)), records_(database.prepare(selectRecords)) {}

    // Step rows are found by the id as stored, whatever its letter case.
    void read(const std::string& idText, AuditRun& run) {
        timings_.bindText(1, idText);
        while (timings_.step()) {
            run.stepTimings.push_back(readTiming(timings_, 0));
        }
        timings_.reset();
        records_.bindText(1, idText);
        while (records_.step()) {
            run.stepRecords.push_back(readRecord(records_, 0));
        }
        records_.reset();
    }

private:
    AuditStatement timings_;
    AuditStatement records_;
};

// The whole history, read table by table. A run's step rows are written together, in
// position order, right after the run itself; so scanned in the order they were written
// they arrive grouped by run, sorted, and nearly always in the history's order.
class HistoryScan {
public:
    explicit HistoryScan(AuditDatabase& database) : database_(database) {
        auto runs = database.prepare(std::string(selectAuditRuns) + "ORDER BY rowid ASC;");
        while (runs.step()) {
            ids_.push_back(runs.text(0));
            runs_.push_back(readRun(runs, ids_.back()));
        }
        for (std::size_t run = 0; run < ids_.size(); ++run) {
            byID_.emplace(ids_[run], run);
        }
        outOfOrder_.assign(runs_.size(), false);
    }

    std::vector<AuditRun> read() {
        scan(scanTimings, &AuditRun::stepTimings, readTiming);
        scan(scanRecords, &AuditRun::stepRecords, readRecord);
        rereadOutOfOrder();
        return std::move(runs_);
    }

private:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    // The run whose id as stored is id, byte for byte as SQL compares it; the run of the
    // row before and the one after it are tried first.
    std::size_t runWithID(std::string_view id, std::size_t previous) const {
        if (previous != none && ids_[previous] == id) {
            return previous;
        }
        const std::size_t next = previous == none ? 0 : previous + 1;
        if (next < ids_.size() && ids_[next] == id) {
            return next;
        }
        const auto found = byID_.find(id);
        return found == byID_.end() ? none : found->second;
    }

    // Adds each row of a step table, with its run id and position first, to that run's
    // list of steps, as readStep makes it from the columns after those two. A run whose rows
    // are not in position order (written by hand, say) is marked.
    template <typename Step>
    void scan(std::string_view sql, std::vector<Step> AuditRun::*steps,
              Step (*readStep)(const AuditStatement&, int)) {
        auto rows = database_.prepare(sql);
        std::vector<std::int64_t> lastPosition(runs_.size(),
                                               std::numeric_limits<std::int64_t>::min());
        std::size_t run = none;
        std::size_t previousCount = 0;
        while (rows.step()) {
            const std::size_t previous = run;
            run = runWithID(rows.textView(0).value_or(""), run);
            if (run == none) {
                continue; // its run is gone; a lookup by id would not find it either
            }
            const std::int64_t position = rows.integer(1);
            if (position < lastPosition[run]) {
                outOfOrder_[run] = true;
            }
            lastPosition[run] = position;
            auto& list = runs_[run].*steps;
            if (run != previous && list.empty()) {
                // Runs of one flow have the same steps, and the growth of hundreds of
                // thousands of small lists shows in the time of a long load.
                list.reserve(previousCount);
            }
            list.push_back(readStep(rows, 2));
            previousCount = list.size();
        }
    }

    // Reads the steps of the marked runs again, sorted by the index.
    void rereadOutOfOrder() {
        if (std::find(outOfOrder_.begin(), outOfOrder_.end(), true) == outOfOrder_.end()) {
            return;
        }
        StepLookup steps(database_);
        for (std::size_t run = 0; run < runs_.size(); ++run) {
            if (outOfOrder_[run]) {
                runs_[run].stepTimings.clear();
                runs_[run].stepRecords.clear();
                steps.read(ids_[run], runs_[run]);
            }
        }
    }

    AuditDatabase& database_;
    std::vector<AuditRun> runs_;
    std::vector<std::string> ids_;                           // as stored, by position in runs_
    std::unordered_map<std::string_view, std::size_t> byID_; // views into ids_
    std::vector<bool> outOfOrder_;
};

} // namespace

std::vector<AuditRun> readAuditRuns(AuditDatabase& database, AuditStatement& runs) {
    StepLookup steps(database);
    std::vector<AuditRun> result;
    while (runs.step()) {
        const std::string idText = runs.text(0);
        AuditRun run = readRun(runs, idText);
        steps.read(idText, run);
        result.push_back(std::move(run));
    }
    return result;
}

std::vector<AuditRun> readAuditHistory(AuditDatabase& database) {
    // The tables are read one after another; one transaction keeps them one snapshot.
    return database.inReadTransaction([&] { return HistoryScan(database).read(); });
}

} // namespace quorlin

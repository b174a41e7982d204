#include "core/stores/AuditRunWriter.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace quorlin {

AuditRunWriter::AuditRunWriter(AuditDatabase& database)
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

void AuditRunWriter::insert(const AuditRun& run) {
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

void AuditRunWriter::execute(AuditStatement& statement) {
    statement.run();
    statement.reset();
}

} // namespace quorlin

// The audit log as the history grows: a full load() and one append(). Each is shown
// next to a baseline from the same run, so the ratio reads the same on any machine:
// load() against decoding the same history from the old audit-log.json text, append()
// against one durable small-file write (write, fsync, rename), the floor of any commit.

#include "core/foundation/AtomicFile.h"
#include "core/stores/AuditLogStore.h"
#include "core/stores/AuditRunJson.h"
#include "tests/support/TemporaryDirectory.h"

#include <chrono>

#include <benchmark/benchmark.h>

namespace quorlin {
namespace {

using Clock = std::chrono::steady_clock;

AuditRun benchRun(std::size_t index) {
    AuditRun run;
    run.id = Uuid::random();
    run.flowID = "receipts-to-folder-v1";
    run.flowName = "Receipts to folder";
    run.timestamp = "2024-05-01 09:00";
    run.trigger = "schedule";
    run.status = index % 10 == 0 ? "failed" : "success";
    run.outputSummary = "Filed 4 receipts into 2024-05";
    run.minutesSaved = 15;
    run.llmCostUSD = 0.0123;
    run.durationSeconds = 42.5;
    run.outputFolder = "/home/user/Receipts/2024-05";
    for (int step = 0; step < 8; ++step) {
        const std::string id = "step-" + std::to_string(step);
        run.stepTimings.push_back({id, "Step " + std::to_string(step), 1.5});
        run.stepRecords.push_back({id, "Step " + std::to_string(step),
                                   R"({"query": "newer_than:30d", "limit": 50})",
                                   R"({"files": ["a.pdf", "b.pdf"], "count": 2})", std::nullopt});
    }
    return run;
}

AuditLogDocument history(std::size_t runs) {
    AuditLogDocument document;
    for (std::size_t index = 0; index < runs; ++index) {
        document.runs.push_back(benchRun(index));
    }
    return document;
}

void BM_AuditLogLoad(benchmark::State& state) {
    const testing::TemporaryDirectory directory;
    AuditLogStore store(directory.path() / "quorlin.sqlite", directory.path() / "audit-log.json");
    const auto document = history(static_cast<std::size_t>(state.range(0)));
    store.save(document);
    const std::string legacyText = toJson(document).dump();

    double loadSeconds = 0;
    double jsonSeconds = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        benchmark::DoNotOptimize(store.load());
        const auto middle = Clock::now();
        benchmark::DoNotOptimize(decodeAuditLogDocumentJson(legacyText));
        const auto end = Clock::now();
        loadSeconds += std::chrono::duration<double>(middle - start).count();
        jsonSeconds += std::chrono::duration<double>(end - middle).count();
        state.SetIterationTime(std::chrono::duration<double>(middle - start).count());
    }
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["runs"] = static_cast<double>(state.range(0));
    state.counters["load_ms"] = 1000 * loadSeconds / iterations;
    state.counters["json_ms"] = 1000 * jsonSeconds / iterations;
    state.counters["load_over_json"] = loadSeconds / jsonSeconds;
}
BENCHMARK(BM_AuditLogLoad)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_AuditLogAppend(benchmark::State& state) {
    const testing::TemporaryDirectory directory;
    AuditLogStore store(directory.path() / "quorlin.sqlite", directory.path() / "audit-log.json");
    store.save(history(static_cast<std::size_t>(state.range(0))));
    const std::string smallFile(2048, 'x');

    double appendSeconds = 0;
    double writeSeconds = 0;
    std::size_t index = 0;
    for (auto _ : state) {
        const AuditRun run = benchRun(index++);
        const auto start = Clock::now();
        store.append(run);
        const auto middle = Clock::now();
        writeFileAtomically(directory.path() / "baseline.json", smallFile);
        const auto end = Clock::now();
        appendSeconds += std::chrono::duration<double>(middle - start).count();
        writeSeconds += std::chrono::duration<double>(end - middle).count();
        state.SetIterationTime(std::chrono::duration<double>(middle - start).count());
    }
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["runs"] = static_cast<double>(state.range(0));
    state.counters["append_ms"] = 1000 * appendSeconds / iterations;
    state.counters["durable_write_ms"] = 1000 * writeSeconds / iterations;
    state.counters["append_over_write"] = appendSeconds / writeSeconds;
}
BENCHMARK(BM_AuditLogAppend)
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

} // namespace
} // namespace quorlin

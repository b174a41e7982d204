// The audit log as the history grows. Each figure is shown next to a baseline from the
// same run, so the ratio reads the same on any machine: load() against decoding the same
// history from the old audit-log.json text; append() against one durable small-file write
// (write, fsync, rename), the floor of any commit; a page of runs() and totals() against
// opening the same database and asking it "SELECT 1", the floor of any call, and against
// the same call on a history of ten runs, to show the cost doesn't grow with the log.

#include "core/foundation/AtomicFile.h"
#include "core/foundation/LocalTime.h"
#include "core/stores/AuditLogSchema.h"
#include "core/stores/AuditLogStore.h"
#include "core/stores/AuditRunJson.h"
#include "core/stores/AuditRunWriter.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace quorlin {
namespace {

using Clock = std::chrono::steady_clock;

AuditRun benchRun(std::size_t index) {
    AuditRun run;
    run.id = Uuid::random();
    run.flowID = "receipts-to-folder-v1";
    run.flowName = "Receipts to folder";
    // A run every quarter of an hour, back from the newest.
    run.timestamp = formatLocalMinute(std::chrono::system_clock::time_point(
        std::chrono::sys_days(std::chrono::year(2024) / 5 / 1) -
        std::chrono::minutes(15) * static_cast<int>(index)));
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

// A history of the given length written once per process, for the benchmarks that only
// read it: 100,000 runs take a while to write. Written by the store's own writer in
// batches, so the whole history never sits in memory at once.
const AuditLogStore& seededStore(std::size_t runs) {
    struct Seeded {
        testing::TemporaryDirectory directory;
        AuditLogStore store{directory.path() / "quorlin.sqlite",
                            directory.path() / "audit-log.json"};
    };
    static std::map<std::size_t, std::unique_ptr<Seeded>> seeded;
    auto& entry = seeded[runs];
    if (!entry) {
        entry = std::make_unique<Seeded>();
        prepareAuditDatabase(entry->store.databasePath());
        auto database = AuditDatabase::open(entry->store.databasePath());
        constexpr std::size_t batch = 10'000;
        for (std::size_t first = 0; first < runs; first += batch) {
            database.inTransaction([&] {
                AuditRunWriter writer(database);
                for (std::size_t index = first; index < std::min(runs, first + batch); ++index) {
                    // Oldest first, so the newest run is the last written.
                    writer.insert(benchRun(runs - 1 - index));
                }
            });
        }
    }
    return entry->store;
}

// The floor of any call on the database: open it, ask it one trivial thing, close it.
void selectOne(const AuditLogStore& store) {
    auto database = AuditDatabase::open(store.databasePath());
    auto one = database.prepare("SELECT 1;");
    benchmark::DoNotOptimize(one.step());
}

struct TimedCall {
    std::string name;
    std::function<void()> call;
};

// Times the first call and its baselines by turns in each iteration, and reports each in
// milliseconds and the first's ratio to each baseline; the iteration time is the first's.
void timeAgainstBaselines(benchmark::State& state, const std::vector<TimedCall>& calls) {
    std::vector<double> seconds(calls.size(), 0);
    for (auto _ : state) {
        for (std::size_t index = 0; index < calls.size(); ++index) {
            const auto start = Clock::now();
            calls[index].call();
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            seconds[index] += elapsed;
            if (index == 0) {
                state.SetIterationTime(elapsed);
            }
        }
    }
    const auto iterations = static_cast<double>(state.iterations());
    for (std::size_t index = 0; index < calls.size(); ++index) {
        state.counters[calls[index].name + "_ms"] = 1000 * seconds[index] / iterations;
        if (index > 0) {
            state.counters[calls[0].name + "_over_" + calls[index].name] =
                seconds[0] / seconds[index];
        }
    }
}

AuditRunQuery newestTen() {
    AuditRunQuery query;
    query.limit = 10;
    return query;
}

// The newest ten of 100,000 runs, against "SELECT 1" on the same database.
void BM_AuditLogNewestRuns(benchmark::State& state) {
    const auto& store = seededStore(100'000);
    timeAgainstBaselines(state,
                         {{"runs", [&] { benchmark::DoNotOptimize(store.runs(newestTen())); }},
                          {"select1", [&] { selectOne(store); }}});
}
BENCHMARK(BM_AuditLogNewestRuns)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The newest ten of 100,000 runs, against the newest ten of ten.
void BM_AuditLogNewestRunsByHistoryLength(benchmark::State& state) {
    const auto& large = seededStore(100'000);
    const auto& small = seededStore(10);
    timeAgainstBaselines(
        state, {{"runs_of_100k", [&] { benchmark::DoNotOptimize(large.runs(newestTen())); }},
                {"runs_of_10", [&] { benchmark::DoNotOptimize(small.runs(newestTen())); }}});
}
BENCHMARK(BM_AuditLogNewestRunsByHistoryLength)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

// All-time totals of 100,000 runs, against "SELECT 1" on the same database and against
// the totals of ten runs.
void BM_AuditLogTotals(benchmark::State& state) {
    const auto& large = seededStore(100'000);
    const auto& small = seededStore(10);
    timeAgainstBaselines(state,
                         {{"totals_of_100k", [&] { benchmark::DoNotOptimize(large.totals()); }},
                          {"select1", [&] { selectOne(large); }},
                          {"totals_of_10", [&] { benchmark::DoNotOptimize(small.totals()); }}});
}
BENCHMARK(BM_AuditLogTotals)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

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

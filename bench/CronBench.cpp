// How long finding a cron schedule's next run takes, above all for an expression that
// never comes round ("0 0 30 2 *"), where the search must cover its whole year; the goal
// is under 1 ms. Reported against two baselines timed in the same run: the plain
// minute-by-minute walk over the same span, and a single matches() call. The zone is fixed
// to one with summer time, so that every machine searches across the same two changes.

#include "core/foundation/LocalTime.h"
#include "core/state/CronSchedule.h"
#include "tests/support/ScopedEnvironment.h"

#include <chrono>
#include <ctime>

#include <benchmark/benchmark.h>

namespace quorlin {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* expressions[] = {"0 0 30 2 *",   "0 0 29 2 *",   "0 8 * * *",
                                       "*/15 * * * *", "0 18 * * 1-5", "0 8 13 * 5"};
constexpr double goalSeconds = 0.001;

// The mean of as many calls as fit in a twentieth of a second, and at least one.
template <typename Call> double secondsPerCall(Call call) {
    std::size_t calls = 0;
    double elapsed = 0;
    const auto start = Clock::now();
    do {
        call();
        ++calls;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    } while (elapsed < 0.05);
    return elapsed / static_cast<double>(calls);
}

// The local time zone for the object's lifetime.
class CentralEuropeanTime {
public:
    CentralEuropeanTime() { tzset(); }
    ~CentralEuropeanTime() {
        zone_.reset();
        tzset();
    }
    CentralEuropeanTime(const CentralEuropeanTime&) = delete;
    CentralEuropeanTime& operator=(const CentralEuropeanTime&) = delete;

private:
    std::optional<testing::ScopedEnvironment> zone_{std::in_place, "TZ",
                                                    "CET-1CEST,M3.5.0,M10.5.0/3"};
};

void BM_CronNextRun(benchmark::State& state) {
    const CentralEuropeanTime zone;
    const char* expression = expressions[state.range(0)];
    const auto schedule = CronSchedule::parse(expression).value();
    const auto after = parseIso8601("2025-03-14T10:17:00Z").value();
    const double walk =
        secondsPerCall([&] { benchmark::DoNotOptimize(schedule.nextRunMinuteByMinute(after)); });
    const double oneMatch = secondsPerCall([&] {
                                for (int index = 0; index < 1000; ++index) {
                                    benchmark::DoNotOptimize(schedule.matches(after));
                                }
                            }) /
                            1000;

    const auto start = Clock::now();
    for (auto _ : state) {
        benchmark::DoNotOptimize(schedule.nextRun(after));
    }
    const double fast = std::chrono::duration<double>(Clock::now() - start).count() /
                        static_cast<double>(state.iterations());

    state.SetLabel(expression);
    state.counters["next_run_us"] = fast * 1e6;
    state.counters["walk_over_next_run"] = walk / fast;
    state.counters["next_run_in_matches"] = fast / oneMatch;
    state.counters["under_1ms"] = fast < goalSeconds ? 1 : 0;
}
BENCHMARK(BM_CronNextRun)->DenseRange(0, std::size(expressions) - 1)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace quorlin

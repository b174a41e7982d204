// Listing what is in force over a data root with many installed workflows, as the desktop
// app does on every refresh. Reported per workflow, so the figure reads the same for any
// count.

#include "core/definitions/WorkflowRegistry.h"
#include "tests/support/WorkflowFixture.h"

#include <benchmark/benchmark.h>

namespace quorlin {
namespace {

// Installs flowCount flows with versionsPerFlow versions each, the last one active.
void installMany(const testing::WorkflowFixture& fixture, int flowCount, int versionsPerFlow) {
    const auto bundles = fixture.paths().bundlesDirectory();
    for (int flow = 0; flow < flowCount; ++flow) {
        const std::string id = "flow-" + std::to_string(flow);
        for (int version = 1; version <= versionsPerFlow; ++version) {
            const std::string text = std::to_string(version) + ".0.0";
            const auto directory = bundles / id / text;
            testing::writeTextFile(
                directory / "flow.yaml",
                "flow:\n  id: " + id + "\n  name: Flow " + id + "\n  version: " + text +
                    "\n  triggers: []\n  steps:\n    - id: out\n      name: Out\n"
                    "      block: filesystem.output-folder@0.1.0\n"
                    "      type: filesystem-output-folder\n"
                    "    - id: run\n      name: Run\n      type: script-run\n"
                    "      config: {runtime: python, entrypoint: step.py}\n");
            testing::writeTextFile(directory / "manifest.yaml",
                                   "plugin:\n  id: " + id + "\n  version: " + text +
                                       "\n  display_name: " + id +
                                       "\n  entrypoint: flow.yaml\n  runtime_requirements: []\n"
                                       "  permissions: []\n  artifacts: []\n");
        }
        testing::writeTextFile(bundles / id / "active.json",
                               R"({"flow_id": ")" + id + R"(", "active_version": ")" +
                                   std::to_string(versionsPerFlow) +
                                   R"(.0.0", "installed_at": "2026-11-23T00:00:00Z"})");
    }
}

void BM_AvailableEntries(benchmark::State& state) {
    const int flows = static_cast<int>(state.range(0));
    testing::WorkflowFixture fixture;
    installMany(fixture, flows, 3);
    const WorkflowRegistry registry{WorkflowLoader(fixture.locator())};
    for (auto _ : state) {
        const auto entries = registry.availableEntries();
        if (entries.size() != static_cast<std::size_t>(flows)) {
            state.SkipWithError("wrong number of entries");
        }
        benchmark::DoNotOptimize(entries);
    }
    state.counters["flows"] = flows;
    state.counters["per_flow"] = benchmark::Counter(static_cast<double>(flows),
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}
BENCHMARK(BM_AvailableEntries)->Arg(50)->Arg(200)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace quorlin

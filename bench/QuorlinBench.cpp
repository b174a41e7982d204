// Engine benchmarks. Figures that depend on the machine are reported next to a baseline
// measured in the same run, as a ratio, so they read the same anywhere.

#include "core/definitions/WorkflowDocument.h"
#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/GenericScriptWorkflowService.h"
#include "core/foundation/ChildProcess.h"
#include "core/foundation/EventLoop.h"
#include "tests/support/WorkflowFixture.h"

#include <chrono>

#include <benchmark/benchmark.h>

namespace quorlin {
namespace {

std::string largeFlowYaml(int stepCount) {
    std::string text = "flow:\n  id: large\n  name: Large\n  version: 1.0.0\n  triggers:\n"
                       "    - type: cron\n      cron: '0 9 * * 1'\n  steps:\n";
    for (int index = 0; index < stepCount; ++index) {
        const std::string id = std::to_string(index);
        text += "    - id: step-" + id + "\n      name: Step " + id +
                "\n      type: script-run\n      config:\n        runtime: python\n"
                "        entrypoint: scripts/step.py\n        timeout_seconds: 30\n"
                "      inputs:\n        count: 0x1F\n        when: 08:30\n        flag: yes\n"
                "        label: 'quoted text'\n        list: [1, 2.5, three, ~]\n"
                "      outputs:\n        - name: result\n          type: object\n"
                "      capabilities: [filesystem.read, network]\n";
    }
    return text;
}

void BM_DecodeFlowYaml(benchmark::State& state) {
    const std::string text = largeFlowYaml(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(decodeWorkflowDocumentYaml(text));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["steps"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_DecodeFlowYaml)->Arg(1000)->Unit(benchmark::kMillisecond);

// One script step through the whole driver (load, staging folder, envelope, child
// process, result) against starting the same interpreter on the same script directly.
void BM_ScriptStepOverhead(benchmark::State& state) {
    testing::WorkflowFixture fixture;
    fixture.writeBundleFile("bench", "flow.yaml",
                            "flow:\n  id: bench\n  name: Bench\n  version: '1'\n  triggers: []\n"
                            "  steps:\n    - id: only\n      name: Only\n      type: script-run\n"
                            "      config: {runtime: python, entrypoint: step.py}\n");
    const auto script = fixture.writeBundleFile("bench", "step.py", "print('{}')\n");
    const auto python = testing::systemInterpreter("python");
    EventLoop unusedMainThread; // no progress callback is given, so nothing is posted
    const WorkflowLoader loader(fixture.locator());
    GenericScriptWorkflowService service(
        loader,
        std::make_shared<DefaultScriptRunner>(fixture.locator(),
                                              [&](ScriptRuntime) { return python; }),
        fixture.paths(), unusedMainThread);

    using Clock = std::chrono::steady_clock;
    double bareSeconds = 0;
    double stepSeconds = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        runChildProcess({python, {script.string()}, {}, std::nullopt, "{}", std::nullopt});
        const auto middle = Clock::now();
        benchmark::DoNotOptimize(service.run(loader.loadRunnableWorkflow("bench"), {}));
        const auto end = Clock::now();
        bareSeconds += std::chrono::duration<double>(middle - start).count();
        stepSeconds += std::chrono::duration<double>(end - middle).count();
        state.SetIterationTime(std::chrono::duration<double>(end - middle).count());
    }
    state.counters["bare_ms"] = 1000 * bareSeconds / static_cast<double>(state.iterations());
    state.counters["step_ms"] = 1000 * stepSeconds / static_cast<double>(state.iterations());
    state.counters["step_over_bare"] = stepSeconds / bareSeconds;
}
BENCHMARK(BM_ScriptStepOverhead)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

} // namespace
} // namespace quorlin

BENCHMARK_MAIN();

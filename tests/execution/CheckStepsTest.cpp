#include "core/definitions/WorkflowLoader.h"
#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/GenericScriptWorkflowService.h"
#include "core/execution/StandardStepHandlers.h"
#include "core/foundation/Json.h"
#include "core/foundation/ManualExecutor.h"
#include "core/runtimes/ManagedRuntimeCatalog.h"
#include "tests/support/WorkflowFixture.h"

#include <chrono>
#include <future>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

using namespace std::chrono_literals;

// A flow that checks its Python runtime and its packages before anything else, run end
// to end with the standard handlers.
class CheckStepsTest : public ::testing::Test {
protected:
    CheckStepsTest() {
        fixture.writeBundleFile(
            "demo", "flow.yaml",
            "flow:\n  id: demo\n  name: Demo\n  version: '1'\n  triggers: []\n"
            "  steps:\n"
            "    - id: runtime\n      name: Runtime\n      type: runtime-check\n"
            "      config: {runtime: python}\n"
            "    - id: packages\n      name: Packages\n"
            "      type: dependency-check\n      config: {runtime: python}\n");
    }

    // A managed "build" whose interpreter is the system's, so pip works without a download.
    std::filesystem::path installManagedPython() const {
        const auto descriptor = managedRuntimeDescriptor(ScriptRuntime::python);
        const auto bin = fixture.paths().managedRuntimeVersionDirectory(ScriptRuntime::python,
                                                                        descriptor.version) /
                         "python" / "bin";
        std::filesystem::create_directories(bin);
        std::filesystem::create_symlink("/usr/bin/python3", bin / "python3");
        return bin / "python3";
    }

    GenericScriptWorkflowRunResult run() {
        GenericScriptWorkflowService service(
            WorkflowLoader(fixture.locator()),
            standardStepHandlers(
                {std::make_shared<DefaultScriptRunner>(fixture.locator()), fixture.paths()}),
            fixture.paths(), mainExecutor);
        auto future = std::async(std::launch::async, [&] {
            return service.run(WorkflowLoader(fixture.locator()).loadRunnableWorkflow("demo"),
                               WorkflowRunRequest{});
        });
        while (future.wait_for(0ms) != std::future_status::ready) {
            if (mainExecutor.waitForTask(5ms)) {
                mainExecutor.drain();
            }
        }
        mainExecutor.drain();
        return future.get();
    }

    nlohmann::json output(const GenericScriptWorkflowRunResult& result, std::size_t step) {
        return parseJson(*result.stepRecords.at(step).outputJSON);
    }

    testing::WorkflowFixture fixture;
    ManualExecutor mainExecutor;
};

TEST_F(CheckStepsTest, WithoutAnInterpreterTheRuntimeCheckStopsTheRun) {
    try {
        run();
        ADD_FAILURE() << "the run went on without an interpreter";
    } catch (const GenericScriptWorkflowFailure& failure) {
        EXPECT_STREQ(failure.what(), "Download the Quorlin-managed Python runtime first.");
    }
}

TEST_F(CheckStepsTest, ChecksPassOnTheManagedBuildAndSayWhetherPackagesAreListed) {
    const auto interpreter = installManagedPython();
    auto result = run();
    EXPECT_EQ(output(result, 0),
              parseJson(R"({"runtime": "python", "installed": true, "workflow_id": "demo",
                            "interpreter": ")" +
                        interpreter.string() + R"(", "interpreter_source": "managed"})"));
    EXPECT_EQ(output(result, 1),
              parseJson(R"({"runtime": "python", "ready": true, "installed": false})"));

    fixture.writeBundleFile("demo", "scripts/requirements.txt", "# nothing pinned yet\n");
    result = run();
    EXPECT_EQ(output(result, 1),
              parseJson(R"({"runtime": "python", "ready": true, "installed": true})"));
    EXPECT_TRUE(std::filesystem::exists(fixture.paths().pythonDependenciesDirectory("demo") /
                                        ".quorlin-dependencies-installed"));
}

} // namespace
} // namespace quorlin

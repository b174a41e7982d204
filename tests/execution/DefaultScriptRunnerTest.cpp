#include "core/execution/DefaultScriptRunner.h"

#include "tests/support/WorkflowFixture.h"

#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace quorlin {
namespace {

class DefaultScriptRunnerTest : public ::testing::Test {
protected:
    DefaultScriptRunner runner() const {
        return DefaultScriptRunner(fixture.locator(), [](ScriptRuntime runtime) {
            return testing::systemInterpreter(rawValue(runtime));
        });
    }

    ScriptInvocation invocation(std::string relativePath, double timeout = 10) const {
        ScriptInvocation call;
        call.workflowID = "flow";
        call.spec = {ScriptRuntime::python, std::move(relativePath), timeout};
        call.inputJSON = R"({"hello": "world"})";
        return call;
    }

    // The message of the ScriptRunnerError a call throws.
    std::string errorText(const ScriptInvocation& call) {
        try {
            runner().run(call, {});
        } catch (const ScriptRunnerError& error) {
            return error.what();
        }
        return "no error";
    }

    testing::WorkflowFixture fixture;
};

TEST_F(DefaultScriptRunnerTest, FeedsStdinAndCapturesBothStreams) {
    fixture.writeBundleFile("flow", "echo.py",
                            "import sys, json\n"
                            "data = json.load(sys.stdin)\n"
                            "print(json.dumps({'got': data['hello']}))\n"
                            "print('note', file=sys.stderr)\n");
    const auto result = runner().run(invocation("echo.py"), {});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutData, "{\"got\": \"world\"}\n");
    EXPECT_EQ(result.stderrData, "note\n");
    EXPECT_GT(result.duration, 0);
}

TEST_F(DefaultScriptRunnerTest, EnvironmentIsInheritedWithPythonUnbufferedAndOverrides) {
    fixture.writeBundleFile("flow", "env.py",
                            "import os, json\n"
                            "print(json.dumps({k: os.environ.get(k) for k in "
                            "['PYTHONUNBUFFERED', 'QUORLIN_TEST_VAR', 'HOME', 'PATH']}))\n");
    auto call = invocation("env.py");
    const auto plain = nlohmann::json::parse(runner().run(call, {}).stdoutData);
    EXPECT_EQ(plain["PYTHONUNBUFFERED"], "1");
    EXPECT_EQ(plain["HOME"], std::getenv("HOME"));

    call.environment = {
        {"PYTHONUNBUFFERED", "0"}, {"QUORLIN_TEST_VAR", "set"}, {"PATH", "/nowhere"}};
    const auto overridden = nlohmann::json::parse(runner().run(call, {}).stdoutData);
    EXPECT_EQ(overridden["PYTHONUNBUFFERED"], "0");
    EXPECT_EQ(overridden["QUORLIN_TEST_VAR"], "set");
    EXPECT_EQ(overridden["PATH"], "/nowhere"); // the interpreter is started by its path
}

TEST_F(DefaultScriptRunnerTest, RunsInTheGivenWorkingDirectory) {
    fixture.writeBundleFile("flow", "cwd.py", "import os\nprint(os.getcwd())\n");
    auto call = invocation("cwd.py");
    call.workingDirectory = fixture.root();
    EXPECT_EQ(runner().run(call, {}).stdoutData, fixture.root().string() + "\n");
}

TEST_F(DefaultScriptRunnerTest, FailuresUseTheirOwnWords) {
    fixture.writeBundleFile(
        "flow", "fail.py",
        "import sys\nprint('out')\nsys.stderr.write('  bad thing\\n')\nsys.exit(3)\n");
    fixture.writeBundleFile("flow", "quiet-fail.py",
                            "import sys\nsys.stderr.write(' \\n\\t')\nsys.exit(2)\n");
    fixture.writeBundleFile("flow", "sleep.py", "import time\ntime.sleep(30)\n");
    fixture.writeBundleFile("flow", "a..b.py", "print('never')\n");
    const std::pair<ScriptInvocation, std::string> cases[] = {
        {invocation("fail.py"), "Script failed with exit code 3: bad thing"},
        {invocation("quiet-fail.py"), "Script failed with exit code 2."},
        {invocation("sleep.py", 0), "Script timed out after 0s."},
        {invocation("sleep.py", 0.2), "Script timed out after 0s."},
        {invocation("../escape.py"), "Invalid script path: ../escape.py"},
        {invocation("a..b.py"), "Invalid script path: a..b.py"},
        {invocation("missing.py"), "Workflow script not found: missing.py"},
    };
    for (const auto& [call, expected] : cases) {
        EXPECT_EQ(errorText(call), expected) << call.spec.relativePath;
    }
}

TEST_F(DefaultScriptRunnerTest, TimeLimitShowsWholeSeconds) {
    EXPECT_STREQ(ScriptRunnerError::timedOut(60.9).what(), "Script timed out after 60s.");
}

TEST_F(DefaultScriptRunnerTest, AbsoluteRelativePathStaysInsideTheBundle) {
    fixture.writeBundleFile("flow", "abs.py", "print('inside')\n");
    EXPECT_EQ(runner().run(invocation("/abs.py"), {}).stdoutData, "inside\n");
}

TEST_F(DefaultScriptRunnerTest, MissingInterpreterIsReportedByRuntime) {
    fixture.writeBundleFile("flow", "x.py", "print(1)\n");
    DefaultScriptRunner bare(fixture.locator());
    try {
        bare.run(invocation("x.py"), {});
        FAIL() << "expected runtimeNotFound";
    } catch (const ScriptRunnerError& error) {
        EXPECT_STREQ(error.what(), "python runtime not found. Install it from Settings first.");
    }
}

TEST_F(DefaultScriptRunnerTest, ManagedRuntimeIsPreferredOverTheLauncher) {
    const auto paths = fixture.paths();
    const auto version = paths.managedRuntimeVersionDirectory(ScriptRuntime::node, "24.14.1");
    testing::TemporaryDirectory launchers;
    launchers.write("quorlin-node", "");
    const QuorlinResources resources{fixture.root() / "resources", launchers.path()};
    const auto found = [&] {
        return DefaultScriptRunner::defaultRuntimePath(ScriptRuntime::node, resources, paths);
    };
    EXPECT_EQ(found(), launchers.path() / "quorlin-node");
    testing::writeTextFile(version / "node-v24" / ".hidden" / "bin" / "node", "");
    EXPECT_EQ(found(), launchers.path() / "quorlin-node"); // hidden folders are not searched
    testing::writeTextFile(version / "node-v24" / "bin" / "node", "");
    EXPECT_EQ(found(), version / "node-v24" / "bin" / "node");
}

TEST_F(DefaultScriptRunnerTest, StopRequestTerminatesTheScript) {
    fixture.writeBundleFile("flow", "sleep.py", "import time\ntime.sleep(30)\n");
    std::stop_source stop;
    std::jthread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        stop.request_stop();
    });
    try {
        runner().run(invocation("sleep.py", 20), stop.get_token());
        FAIL() << "a terminated script is a failed script";
    } catch (const ScriptRunnerError& error) {
        EXPECT_EQ(error.kind(), ScriptRunnerError::Kind::nonZeroExitCode);
    }
}

} // namespace
} // namespace quorlin

#include "core/foundation/ChildProcess.h"

#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <stop_token>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::map<std::string, std::string> basicEnvironment{{"PATH", "/usr/bin:/bin"}};

// Every request carries a time limit, so a broken runner fails a test instead of hanging it.
ChildProcessRequest shell(const std::string& script, std::string input = {}) {
    return {"/bin/sh", {"-c", script}, basicEnvironment, std::nullopt, std::move(input), 30s};
}

ChildProcessRequest python(const std::string& program) {
    return {"/usr/bin/python3", {"-c", program}, basicEnvironment, std::nullopt, {}, 30s};
}

std::size_t openDescriptorCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

std::size_t zombieChildCount() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) {
            continue;
        }
        std::istringstream fields(line.substr(line.rfind(')') + 2));
        char state = 0;
        pid_t parent = 0;
        fields >> state >> parent;
        count += state == 'Z' && parent == ::getpid() ? 1 : 0;
    }
    return count;
}

TEST(ChildProcessTest, ReportsExitCodeAndKeepsStreamsApart) {
    struct Case {
        std::string script;
        std::string input;
        int exitCode;
        std::string standardOutput;
        std::string standardError;
    };
    const std::vector<Case> cases{
        {"exit 0", "", 0, "", ""},
        {"exit 3", "", 3, "", ""},
        {"kill -KILL $$", "", 128 + SIGKILL, "", ""},
        {"kill -TERM $$", "", 128 + SIGTERM, "", ""},
        {"kill -PIPE $$", "", 128 + SIGPIPE, "", ""}, // not blocked or ignored in the child
        {"printf out; printf err >&2; exit 7", "", 7, "out", "err"},
        {"cat; printf done >&2", "line one\nline two", 0, "line one\nline two", "done"},
        {"head -c 3", "abcdef", 0, "abc", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        const auto result = runChildProcess(shell(c.script, c.input));
        EXPECT_EQ(result.exitCode, c.exitCode);
        EXPECT_EQ(result.standardOutput, c.standardOutput);
        EXPECT_EQ(result.standardError, c.standardError);
    }
}

TEST(ChildProcessTest, HandsOnStderrWhileTheChildStillRuns) {
    // The second line is only written once the first has been passed on: a runner that
    // handed stderr over at the end would leave the child waiting until its timeout.
    auto request = python("import sys, os\n"
                          "sys.stderr.write('first\\n'); sys.stderr.flush()\n"
                          "while not os.path.exists(sys.argv[1] if len(sys.argv) > 1 else '/x'):\n"
                          "    pass\n");
    testing::TemporaryDirectory directory;
    const auto flag = directory.path() / "seen";
    request.arguments.push_back(flag.string());
    request.timeout = 10s;
    std::string passedOn;
    request.onStandardError = [&](std::string_view text) {
        passedOn += text;
        std::ofstream(flag) << "";
    };
    const auto result = runChildProcess(request);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(passedOn, "first\n");
    EXPECT_EQ(result.standardError, "first\n");
}

TEST(ChildProcessTest, MovesMegabytesBothWaysWithoutDeadlock) {
    std::string input(8 * 1024 * 1024, '\0');
    for (std::size_t i = 0; i < input.size(); ++i) {
        input[i] = static_cast<char>('a' + i % 26);
    }
    const auto echoed = runChildProcess(shell("exec cat", input));
    EXPECT_EQ(echoed.exitCode, 0);
    EXPECT_TRUE(echoed.standardOutput == input) << "stdout has " << echoed.standardOutput.size();

    // Both pipes fill up at once: only concurrent draining lets this child finish.
    const auto chatty = runChildProcess(python("import sys\n"
                                               "for _ in range(64):\n"
                                               "    sys.stdout.buffer.write(b'o' * 65536)\n"
                                               "    sys.stdout.flush()\n"
                                               "    sys.stderr.buffer.write(b'e' * 65536)\n"
                                               "    sys.stderr.flush()\n"));
    EXPECT_EQ(chatty.exitCode, 0);
    EXPECT_TRUE(chatty.standardOutput == std::string(64 * 65536, 'o'));
    EXPECT_TRUE(chatty.standardError == std::string(64 * 65536, 'e'));
}

TEST(ChildProcessTest, EndsWhenTheChildExitsEvenIfItsChildrenHoldThePipes) {
    const auto start = Clock::now();
    const auto result = runChildProcess(shell("sleep 20 & printf done; printf warn >&2"));
    EXPECT_LT(Clock::now() - start, 10s);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.standardOutput, "done");
    EXPECT_EQ(result.standardError, "warn");
}

TEST(ChildProcessTest, ChildThatLeavesStdinUnreadIsNotAnError) {
    sigset_t maskBefore;
    ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore), 0);
    const std::string input(4 * 1024 * 1024, 'x');
    for (const std::string script : {"exit 0", "head -c 10", "exec 0<&-; sleep 0.2; printf ok"}) {
        SCOPED_TRACE(script);
        const auto result = runChildProcess(shell(script, input));
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.standardOutput, script == "head -c 10" ? input.substr(0, 10)
                                         : script == "exit 0"   ? ""
                                                                : "ok");
        // The caller's thread is left as it was: no SIGPIPE waiting, none newly blocked.
        sigset_t pending;
        sigset_t mask;
        ASSERT_EQ(::sigpending(&pending), 0);
        ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
        EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
        EXPECT_EQ(::sigismember(&mask, SIGPIPE), ::sigismember(&maskBefore, SIGPIPE));
    }
}

TEST(ChildProcessTest, ChildGetsExactlyTheGivenEnvironmentAndDirectory) {
    ::setenv("QUORLIN_ONLY_IN_PARENT", "1", 1);
    const std::vector<std::pair<std::map<std::string, std::string>, std::string>> cases{
        {{}, ""},
        {{{"A", "1"}, {"B", "two words"}, {"EMPTY", ""}}, "A=1\nB=two words\nEMPTY=\n"},
    };
    for (const auto& [environment, expected] : cases) {
        const auto result =
            runChildProcess({"/usr/bin/env", {}, environment, std::nullopt, {}, 30s});
        EXPECT_EQ(result.standardOutput, expected);
    }
    ::unsetenv("QUORLIN_ONLY_IN_PARENT");

    const testing::TemporaryDirectory directory;
    auto request = shell("pwd -P");
    request.workingDirectory = directory.path();
    EXPECT_EQ(runChildProcess(request).standardOutput, directory.path().string() + "\n");
}

TEST(ChildProcessTest, LaunchFailureNamesTheProgramAndTheReason) {
    const testing::TemporaryDirectory directory;
    const auto notExecutable = directory.write("data.txt", "just text");
    const auto missing = directory.path() / "missing";
    struct Case {
        std::filesystem::path executable;
        std::optional<std::filesystem::path> workingDirectory;
        std::string message;
    };
    const std::vector<Case> cases{
        {missing, std::nullopt,
         "Could not start " + missing.string() + ": No such file or directory"},
        {notExecutable, std::nullopt,
         "Could not start " + notExecutable.string() + ": Permission denied"},
        {directory.path(), std::nullopt,
         "Could not start " + directory.path().string() + ": Permission denied"},
        {"/bin/sh", missing,
         "Could not start /bin/sh: working directory " + missing.string() +
             ": No such file or directory"},
        {"/bin/sh", notExecutable,
         "Could not start /bin/sh: working directory " + notExecutable.string() +
             ": Not a directory"},
    };
    const auto descriptorsBefore = openDescriptorCount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        try {
            runChildProcess({c.executable, {}, {}, c.workingDirectory, "input", 30s});
            ADD_FAILURE() << "launched";
        } catch (const ChildProcessError& error) {
            EXPECT_EQ(error.kind(), ChildProcessError::Kind::launchFailed);
            EXPECT_EQ(std::string(error.what()), c.message);
        }
    }
    EXPECT_EQ(openDescriptorCount(), descriptorsBefore);
}

TEST(ChildProcessTest, TimeOutReturnsAtOnceAndTheChildIsReapedLater) {
    struct Case {
        std::string script;
        double limit;
        std::string message;
    };
    const std::vector<Case> cases{
        {"exec sleep 30", 0, "/bin/sh timed out after 0s"},
        {"printf partial; exec sleep 30", 0.3, "/bin/sh timed out after 0.3s"},
        // Ignores SIGTERM: the call still must not wait for it.
        {"trap '' TERM; sleep 20", 0.3, "/bin/sh timed out after 0.3s"},
    };
    const auto descriptorsBefore = openDescriptorCount();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        auto request = shell(c.script);
        request.timeout = std::chrono::duration<double>(c.limit);
        const auto start = Clock::now();
        try {
            runChildProcess(request);
            ADD_FAILURE() << "no time-out";
        } catch (const ChildProcessError& error) {
            EXPECT_EQ(error.kind(), ChildProcessError::Kind::timedOut);
            EXPECT_EQ(error.timeout().count(), c.limit);
            EXPECT_EQ(std::string(error.what()), c.message);
        }
        EXPECT_LT(Clock::now() - start, 10s);
    }
    EXPECT_EQ(openDescriptorCount(), descriptorsBefore);

    // The children that obeyed SIGTERM must not linger as zombies.
    const auto giveUp = Clock::now() + 10s;
    while (zombieChildCount() > 0 && Clock::now() < giveUp) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(zombieChildCount(), 0u);
}

TEST(ChildProcessTest, StopTerminatesTheChildAndWaitsForItsExit) {
    const testing::TemporaryDirectory directory;
    const auto readyFile = directory.path() / "ready";
    // The Python children signal readiness with a file once their SIGTERM handling is set.
    const auto pythonWithHandler = [](const std::string& handler) {
        return python("import signal, sys, time\n" + handler +
                      "open(sys.argv[1], 'w').close()\n"
                      "time.sleep(20)\n");
    };
    enum class StopWhen { beforeTheCall, afterAMoment, whenChildIsReady };
    struct Case {
        std::string name;
        ChildProcessRequest request;
        StopWhen when;
        std::optional<int> exitCode; // absent: the time limit ends the call
        std::string standardOutput;
    };
    std::vector<Case> cases{
        {"already stopped", shell("exec sleep 30"), StopWhen::beforeTheCall, 143, ""},
        {"stopped while sleeping", shell("exec sleep 30"), StopWhen::afterAMoment, 143, ""},
        {"exits cleanly on SIGTERM",
         pythonWithHandler("def bye(*_):\n"
                           "    print('cleaned up')\n"
                           "    sys.exit(0)\n"
                           "signal.signal(signal.SIGTERM, bye)\n"),
         StopWhen::whenChildIsReady, 0, "cleaned up\n"},
        // Stopping does not lift the time limit.
        {"ignores SIGTERM", pythonWithHandler("signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"),
         StopWhen::whenChildIsReady, std::nullopt, ""},
    };
    cases.back().request.timeout = 2s;
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(readyFile);
        c.request.arguments.push_back(readyFile.string());
        std::stop_source source;
        if (c.when == StopWhen::beforeTheCall) {
            source.request_stop();
        }
        const std::jthread stopper([&] {
            if (c.when == StopWhen::afterAMoment) {
                std::this_thread::sleep_for(200ms);
            }
            const auto giveUp = Clock::now() + 20s;
            while (c.when == StopWhen::whenChildIsReady && !std::filesystem::exists(readyFile) &&
                   Clock::now() < giveUp) {
                std::this_thread::sleep_for(10ms);
            }
            source.request_stop();
        });
        try {
            const auto result = runChildProcess(c.request, source.get_token());
            EXPECT_EQ(result.exitCode, c.exitCode);
            EXPECT_EQ(result.standardOutput, c.standardOutput);
        } catch (const ChildProcessError& error) {
            EXPECT_FALSE(c.exitCode) << error.what();
            EXPECT_EQ(error.kind(), ChildProcessError::Kind::timedOut);
        }
    }
}

// Whether a process still runs: a zombie has ended, whoever is left to reap it.
bool isRunning(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) {
        return false;
    }
    return line[line.rfind(')') + 2] != 'Z';
}

// Waits a while for the processes to end; true when none runs any more.
bool allEnd(const std::vector<pid_t>& pids, std::chrono::seconds patience) {
    const auto giveUp = Clock::now() + patience;
    while (Clock::now() < giveUp) {
        if (std::none_of(pids.begin(), pids.end(), isRunning)) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

std::vector<pid_t> pidsIn(const std::string& text) {
    std::istringstream words(text);
    std::vector<pid_t> pids;
    for (pid_t pid = 0; words >> pid;) {
        pids.push_back(pid);
    }
    return pids;
}

TEST(ChildProcessTest, NothingAStepStartedOutlivesIt) {
    const testing::TemporaryDirectory directory;
    const auto pidFile = directory.path() / "pids";
    // Prints its own pid and a background child's into the file, then behaves as told.
    const auto withChild = [&](const std::string& then, const std::string& childTrap) {
        return shell(childTrap + "sleep 30 & echo $$ $! > '" + pidFile.string() + "'; " + then);
    };
    const auto pidsWritten = [&] {
        std::ifstream in(pidFile);
        std::stringstream text;
        text << in.rdbuf();
        return pidsIn(text.str());
    };
    struct Case {
        std::string name;
        ChildProcessRequest request;
        bool stopWhenStarted;
        std::optional<int> exitCode; // absent: the time limit ends the call
    };
    std::vector<Case> cases{
        {"succeeds, leaving a child behind", withChild("exit 0", ""), false, 0},
        {"ignores SIGTERM when stopped", withChild("trap '' TERM; wait", "trap '' TERM; "), true,
         137},
        {"ignores SIGTERM past its time-out", withChild("trap '' TERM; wait", "trap '' TERM; "),
         false, std::nullopt},
    };
    cases.back().request.timeout = 1s;
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(pidFile);
        std::stop_source source;
        const std::jthread stopper([&] {
            const auto giveUp = Clock::now() + 20s;
            while (c.stopWhenStarted && pidsWritten().size() < 2 && Clock::now() < giveUp) {
                std::this_thread::sleep_for(10ms);
            }
            if (c.stopWhenStarted) {
                source.request_stop();
            }
        });
        const auto start = Clock::now();
        try {
            const auto result = runChildProcess(c.request, source.get_token());
            EXPECT_EQ(result.exitCode, c.exitCode);
        } catch (const ChildProcessError& error) {
            EXPECT_FALSE(c.exitCode) << error.what();
            EXPECT_EQ(error.kind(), ChildProcessError::Kind::timedOut);
        }
        EXPECT_LT(Clock::now() - start, 15s);
        const auto pids = pidsWritten();
        ASSERT_EQ(pids.size(), 2u);
        // SIGKILL follows SIGTERM after a grace of three seconds.
        EXPECT_TRUE(allEnd(pids, 10s));
    }
}

TEST(ChildProcessTest, OutputPastTheLimitStopsTheChildWithItsStreamNamed) {
    struct Case {
        std::string script;
        std::size_t limit;
        std::optional<std::string> failure; // absent: the run succeeds
    };
    const std::vector<Case> cases{
        {"head -c 4096 /dev/zero", 4096, std::nullopt},
        {"head -c 4097 /dev/zero", 4096, "/bin/sh wrote more than 4096 bytes to stdout"},
        {"head -c 70000 /dev/zero >&2", 65536, "/bin/sh wrote more than 65536 bytes to stderr"},
        // Prints for ever: memory stays bounded and the call ends.
        {"exec yes", std::size_t{1} << 20U, "/bin/sh wrote more than 1 MiB to stdout"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script);
        auto request = shell(c.script);
        request.outputLimit = c.limit;
        const auto start = Clock::now();
        try {
            const auto result = runChildProcess(request);
            EXPECT_FALSE(c.failure);
            EXPECT_EQ(result.standardOutput.size(), c.limit);
        } catch (const ChildProcessError& error) {
            ASSERT_TRUE(c.failure) << error.what();
            EXPECT_EQ(error.kind(), ChildProcessError::Kind::outputTooLarge);
            EXPECT_EQ(error.what(), *c.failure);
        }
        EXPECT_LT(Clock::now() - start, 10s);
    }
}

TEST(ChildProcessTest, ParallelRunsStayApartAndLeakNoDescriptors) {
    // A descriptor the application left inheritable still must not reach a child.
    const int inheritable = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(inheritable, 0);
    const auto descriptorsBefore = openDescriptorCount();
    const std::string echoWithIdAndListDescriptors =
        "import os, sys\n"
        "def is_open(fd):\n"
        "    try:\n"
        "        os.fstat(fd)\n"
        "        return True\n"
        "    except OSError:\n"
        "        return False\n"
        "data = sys.stdin.buffer.read()\n"
        "sys.stdout.buffer.write(os.environ['ID'].encode() + data)\n"
        "sys.stderr.write(repr([fd for fd in range(256) if is_open(fd)]))\n";
    std::vector<std::string> failures(8);
    {
        std::vector<std::jthread> workers;
        for (std::size_t worker = 0; worker < failures.size(); ++worker) {
            workers.emplace_back([worker, &failures, &echoWithIdAndListDescriptors] {
                for (int round = 0; round < 4; ++round) {
                    const std::string input(100'000 + worker, static_cast<char>('a' + worker));
                    auto request = python(echoWithIdAndListDescriptors);
                    request.standardInput = input;
                    request.environment["ID"] = std::to_string(worker);
                    const auto result = runChildProcess(request);
                    if (result.standardOutput != std::to_string(worker) + input ||
                        result.standardError != "[0, 1, 2]") {
                        failures[worker] = "worker " + std::to_string(worker) + " got " +
                                           std::to_string(result.standardOutput.size()) +
                                           " bytes, descriptors " + result.standardError;
                    }
                }
            });
        }
    }
    ::close(inheritable);
    for (const auto& failure : failures) {
        EXPECT_EQ(failure, "");
    }
    EXPECT_EQ(openDescriptorCount(), descriptorsBefore - 1);
}

} // namespace
} // namespace quorlin

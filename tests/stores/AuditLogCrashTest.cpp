// The audit log under real processes: a writer killed mid-write, and two writers at once.

#include "core/stores/AuditLogStore.h"
#include "tests/support/TemporaryDirectory.h"

#include <chrono>
#include <csignal>
#include <map>
#include <poll.h>
#include <random>
#include <set>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace quorlin {
namespace {

// One quorlin_audit_log_writer child with its stdout on a pipe.
class WriterProcess {
public:
    WriterProcess(const std::filesystem::path& database, const std::string& count,
                  const std::string& flowID) {
        int fds[2];
        if (::pipe(fds) != 0) {
            throw std::runtime_error("pipe failed");
        }
        readEnd_ = fds[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        posix_spawn_file_actions_addclose(&actions, fds[1]);
        std::vector<std::string> words{QUORLIN_AUDIT_LOG_WRITER, database.string(),
                                       (database.parent_path() / "audit-log.json").string(), count,
                                       flowID};
        std::vector<char*> argv;
        for (auto& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        const int status =
            posix_spawn(&pid_, words[0].c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        if (status != 0) {
            ::close(readEnd_);
            throw std::runtime_error("could not start the writer");
        }
    }
    ~WriterProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            wait();
        }
        ::close(readEnd_);
    }
    WriterProcess(const WriterProcess&) = delete;
    WriterProcess& operator=(const WriterProcess&) = delete;

    // The next line the child wrote; nothing at end of output. A minute without output
    // means the child is stuck, which fails the test rather than hang it.
    std::optional<std::string> readLine() {
        while (true) {
            if (const auto end = buffer_.find('\n'); end != std::string::npos) {
                std::string line = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return line;
            }
            pollfd ready{readEnd_, POLLIN, 0};
            if (::poll(&ready, 1, 60'000) <= 0) {
                throw std::runtime_error("the writer went quiet");
            }
            char chunk[4096];
            const ssize_t size = ::read(readEnd_, chunk, sizeof chunk);
            if (size <= 0) {
                return std::nullopt;
            }
            buffer_.append(chunk, static_cast<std::size_t>(size));
        }
    }

    void kill() const {
        if (pid_ > 0) { // never -1: that would signal every process we may signal
            ::kill(pid_, SIGKILL);
        }
    }

    // The wait status.
    int wait() {
        int status = 0;
        ::waitpid(std::exchange(pid_, -1), &status, 0);
        return status;
    }

private:
    pid_t pid_ = -1;
    int readEnd_ = -1;
    std::string buffer_;
};

// The kept totals must count every committed run once, whoever wrote it and however the
// writer ended.
void expectTotalsOf(const AuditLogDocument& document, const AuditTotals& totals) {
    std::int64_t minutes = 0;
    for (const auto& run : document.runs) {
        minutes += run.minutesSaved;
    }
    EXPECT_EQ(totals.runs, static_cast<std::int64_t>(document.runs.size()));
    EXPECT_EQ(totals.minutesSaved, minutes);
}

// Every run the child wrote must be whole: as many timing and record rows as its
// summary ("steps=<n>") says, in order.
void expectCompleteRuns(const AuditLogDocument& document) {
    for (const auto& run : document.runs) {
        const std::size_t steps = std::stoul(run.outputSummary.substr(6));
        ASSERT_EQ(run.stepTimings.size(), steps) << run.id.uppercaseString();
        ASSERT_EQ(run.stepRecords.size(), steps) << run.id.uppercaseString();
        for (std::size_t step = 0; step < steps; ++step) {
            EXPECT_EQ(run.stepRecords[step].inputJSON, "{\"n\": " + std::to_string(step) + "}");
        }
    }
}

TEST(AuditLogCrashTest, AWriterKilledMidAppendLosesNothingCommittedAndLeavesNoHalfRun) {
    testing::TemporaryDirectory directory;
    const auto database = directory.path() / "quorlin.sqlite";
    std::set<std::string> committed;
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        WriterProcess writer(database, "0", "crash");
        using Clock = std::chrono::steady_clock;
        Clock::time_point firstLine;
        for (int reported = 0; reported < 5; ++reported) {
            const auto line = writer.readLine();
            ASSERT_TRUE(line) << "the writer stopped on its own";
            committed.insert(*line);
            if (reported == 0) {
                firstLine = Clock::now();
            }
        }
        // Anywhere inside the next append (how long one takes depends on the disk):
        // opening, the schema, or the transaction and its commit.
        const auto appendTime = (Clock::now() - firstLine) / 4;
        std::uniform_int_distribution<Clock::rep> within(0, appendTime.count());
        std::this_thread::sleep_for(Clock::duration(within(random)));
        writer.kill();
        while (const auto line = writer.readLine()) {
            committed.insert(*line);
        }
        const int status = writer.wait();
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;

        const AuditLogStore store(database, directory.path() / "audit-log.json");
        const auto document = store.load();
        expectCompleteRuns(document);
        expectTotalsOf(document, store.totals());
        std::set<std::string> present;
        for (const auto& run : document.runs) {
            present.insert(run.id.uppercaseString());
        }
        for (const auto& id : committed) {
            EXPECT_TRUE(present.contains(id)) << "lost committed run " << id;
        }
        // At most the run in flight may have committed without being reported.
        EXPECT_LE(present.size(), committed.size() + 1);
        committed = present;
    }
}

TEST(AuditLogCrashTest, TwoProcessesAppendingAtOnceBothSucceed) {
    testing::TemporaryDirectory directory;
    const auto database = directory.path() / "quorlin.sqlite";
    std::map<std::string, std::set<std::string>> reported;
    {
        WriterProcess first(database, "40", "first");
        WriterProcess second(database, "40", "second");
        for (auto* writer : {&first, &second}) {
            const std::string flow = writer == &first ? "first" : "second";
            while (const auto line = writer->readLine()) {
                reported[flow].insert(*line);
            }
            const int status = writer->wait();
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << flow << ": " << status;
        }
    }
    const AuditLogStore store(database, directory.path() / "audit-log.json");
    const auto document = store.load();
    expectTotalsOf(document, store.totals());
    std::map<std::string, std::set<std::string>> stored;
    for (const auto& run : document.runs) {
        stored[run.flowID].insert(run.id.uppercaseString());
    }
    EXPECT_EQ(stored, reported);
    EXPECT_EQ(stored["first"].size(), 40u);
    EXPECT_EQ(stored["second"].size(), 40u);
    expectCompleteRuns(document);
}

} // namespace
} // namespace quorlin

#include "core/foundation/AtomicFile.h"
#include "core/foundation/Base64.h"
#include "core/foundation/EventLoop.h"
#include "core/foundation/Json.h"
#include "core/foundation/LocalTime.h"
#include "core/foundation/ManualExecutor.h"
#include "core/foundation/Uuid.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <ctime>
#include <optional>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

TEST(Uuid, RandomIsVersion4AndRoundTripsThroughText) {
    const Uuid first = Uuid::random();
    const std::string text = first.uppercaseString();
    EXPECT_TRUE(std::regex_match(
        text, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << text;
    EXPECT_EQ(Uuid::parse(text), first);
    EXPECT_NE(Uuid::random(), first);
    EXPECT_EQ(Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f")->uppercaseString(),
              "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    for (const char* bad :
         {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5G"}) {
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
    }
}

TEST(LocalTime, Iso8601RoundTripsAndHonoursOffsets) {
    const auto moment = parseIso8601("2024-01-15T10:30:00Z");
    ASSERT_TRUE(moment);
    EXPECT_EQ(formatIso8601(*moment), "2024-01-15T10:30:00Z");
    EXPECT_EQ(parseIso8601("2024-01-15T12:30:00+02:00"), moment);
    EXPECT_EQ(parseIso8601("2024-01-15T05:30:00-05:00"), moment);
    EXPECT_NEAR(secondsBetween(*moment, *parseIso8601("2024-01-15T10:30:01.5Z")), 1.5, 1e-6);
    for (const char* bad : {"2024-01-15", "2024-13-01T00:00:00Z", "2024-02-30T00:00:00Z",
                            "2024-01-15T10:30:00", "2024-01-15T10:30:00Zjunk"}) {
        EXPECT_FALSE(parseIso8601(bad)) << bad;
    }
}

TEST(LocalTime, LocalMinuteHasTheDisplayShape) {
    EXPECT_TRUE(std::regex_match(formatLocalMinute(std::chrono::system_clock::now()),
                                 std::regex(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2})")));
}

// A zone with summer time, given as a POSIX rule so no time zone database is needed.
class CentralEuropeanTime {
public:
    CentralEuropeanTime() {
        if (const char* zone = std::getenv("TZ")) {
            saved_ = zone;
        }
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    ~CentralEuropeanTime() {
        saved_ ? setenv("TZ", saved_->c_str(), 1) : unsetenv("TZ");
        tzset();
    }

private:
    std::optional<std::string> saved_;
};

TEST(LocalTime, LocalMinutesReadBackWithTheirOffset) {
    const CentralEuropeanTime zone;
    const std::pair<const char*, const char*> cases[] = {
        {"2024-01-15 09:30", "2024-01-15T09:30:00+01:00"},
        {"2024-07-01 09:30", "2024-07-01T09:30:00+02:00"},
        {"2024-07-01", "2024-07-01T00:00:00+02:00"},
        {"2024-03-31 02:30", "2024-03-31T03:30:00+02:00"}, // skipped by the jump forward
    };
    for (const auto& [local, iso] : cases) {
        const auto moment = parseLocalMinute(local);
        ASSERT_TRUE(moment) << local;
        EXPECT_EQ(formatLocalIso8601(*moment), iso) << local;
    }
    EXPECT_EQ(formatLocalMinute(*parseLocalMinute("2024-11-03 17:05")), "2024-11-03 17:05");
    for (const char* bad : {"", "2024-02-30", "2024-01-15 24:00", "2024-01-15T09:30",
                            "2024-01-15 09:30:00", "15.01.2024"}) {
        EXPECT_FALSE(parseLocalMinute(bad)) << bad;
    }
}

TEST(LocalTime, MonthBoundsFollowTheLocalCalendar) {
    const CentralEuropeanTime zone;
    const struct {
        const char* moment;
        const char* start;
        const char* end;
    } cases[] = {
        {"2024-03-31T23:59:00+02:00", "2024-03-01T00:00:00+01:00", "2024-04-01T00:00:00+02:00"},
        {"2024-12-31T23:30:00Z", "2025-01-01T00:00:00+01:00", "2025-02-01T00:00:00+01:00"},
        {"2024-12-15T12:00:00Z", "2024-12-01T00:00:00+01:00", "2025-01-01T00:00:00+01:00"},
        {"2024-02-29T00:00:00+01:00", "2024-02-01T00:00:00+01:00", "2024-03-01T00:00:00+01:00"},
    };
    for (const auto& [moment, start, end] : cases) {
        const auto [first, next] = localMonthBounds(*parseIso8601(moment));
        EXPECT_EQ(formatLocalIso8601(first), start) << moment;
        EXPECT_EQ(formatLocalIso8601(next), end) << moment;
    }
}

TEST(Base64, EncodesBothAlphabetsAndDecodesWithOrWithoutPadding) {
    struct Case {
        std::string bytes;
        Base64Alphabet alphabet;
        Base64Padding padding;
        std::string text;
    };
    const std::vector<Case> cases = {
        {"", Base64Alphabet::standard, Base64Padding::with, ""},
        {"f", Base64Alphabet::standard, Base64Padding::with, "Zg=="},
        {"fo", Base64Alphabet::standard, Base64Padding::with, "Zm8="},
        {"foo", Base64Alphabet::standard, Base64Padding::with, "Zm9v"},
        {"foob", Base64Alphabet::url, Base64Padding::without, "Zm9vYg"},
        {"\xfb\xff\xbf", Base64Alphabet::standard, Base64Padding::with, "+/+/"},
        {"\xfb\xff\xbf", Base64Alphabet::url, Base64Padding::without, "-_-_"},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(base64Encoded(testCase.bytes, testCase.alphabet, testCase.padding), testCase.text)
            << testCase.text;
        EXPECT_EQ(base64Decoded(testCase.text, testCase.alphabet), testCase.bytes) << testCase.text;
    }
    EXPECT_EQ(base64Decoded("Zm9vYg==", Base64Alphabet::url), "foob");
    EXPECT_EQ(base64Decoded("Zm9vYg", Base64Alphabet::standard), "foob");
}

TEST(Base64, RejectsDigitsOfTheOtherAlphabetAndBrokenLengths) {
    for (const std::string text : {"-_-_", "Zm9v\nYg", "Zm9vY", "Zm 9v"}) {
        EXPECT_EQ(base64Decoded(text, Base64Alphabet::standard), std::nullopt) << text;
    }
    EXPECT_EQ(base64Decoded("+/+/", Base64Alphabet::url), std::nullopt);
}

TEST(AtomicFile, ReplacesContentAndLeavesNoTemporaryFile) {
    testing::TemporaryDirectory directory;
    const auto file = directory.path() / "settings.json";
    writeFileAtomically(file, "first");
    writeFileAtomically(file, "second, longer content");
    EXPECT_EQ(readFile(file), "second, longer content");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()),
                            std::filesystem::directory_iterator()),
              1);
}

TEST(AtomicFile, FailuresNameTheFile) {
    testing::TemporaryDirectory directory;
    const auto missing = directory.path() / "no-such-folder" / "file.json";
    try {
        writeFileAtomically(missing, "x");
        FAIL() << "expected a write failure";
    } catch (const FileError& error) {
        EXPECT_EQ(error.kind(), FileError::Kind::writeFailed);
        EXPECT_NE(std::string(error.what()).find(missing.string()), std::string::npos);
    }
    EXPECT_THROW(readFile(missing), FileError);
    directory.write("blocker", "a file where a folder should go");
    EXPECT_THROW(createDirectories(directory.path() / "blocker" / "sub"), FileError);
}

TEST(AtomicFile, ReadsOnlyRegularFilesUpToTheLimit) {
    testing::TemporaryDirectory directory;
    directory.write("ten.txt", "0123456789");
    const auto fifo = directory.path() / "pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(readFile(directory.path() / "ten.txt", 10), "0123456789");

    struct Refusal {
        std::filesystem::path path;
        std::size_t limit;
        std::string reason;
    };
    const std::vector<Refusal> refusals{
        {"/dev/zero", defaultReadLimit, "it is not a regular file"},
        {fifo, defaultReadLimit, "it is not a regular file"}, // and does not wait for a writer
        {directory.path(), defaultReadLimit, "it is not a regular file"},
        {directory.path() / "ten.txt", 9, "it is larger than 9 bytes"},
        {directory.path() / "ten.txt", 0, "it is larger than 0 bytes"},
    };
    for (const auto& refusal : refusals) {
        try {
            readFile(refusal.path, refusal.limit);
            ADD_FAILURE() << refusal.path << " was read";
        } catch (const FileError& error) {
            EXPECT_EQ(error.what(),
                      "Could not read " + refusal.path.string() + ": " + refusal.reason);
        }
    }
}

TEST(Json, ParseErrorsAreJsonErrorsAndDumpsNeverThrow) {
    try {
        parseJson("{\"a\": }");
        ADD_FAILURE() << "parsed";
    } catch (const JsonError& error) {
        // The parser's words, without its exception id.
        EXPECT_TRUE(std::string(error.what()).starts_with("Invalid JSON: line 1, column 7: "))
            << error.what();
    }
    EXPECT_TRUE(parseJsonOrDiscarded("not json").is_discarded());
    EXPECT_EQ(prettySortedJson(nlohmann::json{{"b", 1}, {"a", 2}}),
              "{\n  \"a\": 2,\n  \"b\": 1\n}");
    EXPECT_NO_THROW(compactJson(nlohmann::json("\xff invalid utf-8")));
}

TEST(ManualExecutor, RunsTasksInOrderAndDelayedOnesWhenDue) {
    ManualExecutor executor;
    std::vector<std::string> ran;
    executor.postAfter(std::chrono::milliseconds(20), [&] { ran.push_back("late"); });
    executor.postAfter(std::chrono::milliseconds(10), [&] { ran.push_back("soon"); });
    executor.post([&] {
        ran.push_back("first");
        executor.post([&] { ran.push_back("posted by a task"); });
    });
    EXPECT_EQ(executor.drain(), 2u);
    EXPECT_EQ(executor.advanceBy(std::chrono::milliseconds(15)), 1u);
    EXPECT_EQ(executor.advanceBy(std::chrono::milliseconds(5)), 1u);
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "posted by a task", "soon", "late"}));
    EXPECT_EQ(executor.pendingCount(), 0u);
}

TEST(EventLoop, CallOnMainRunsOnTheLoopThreadAndCarriesResultsAndErrors) {
    EventLoop loop;
    std::thread::id loopThread;
    int answer = 0;
    bool errorSeen = false;
    std::thread worker([&] {
        loopThread = callOnMain(loop, [] { return std::this_thread::get_id(); });
        answer = callOnMain(loop, [] { return 42; });
        try {
            callOnMain(loop, []() -> int { throw Error("from the main thread"); });
        } catch (const Error& error) {
            errorSeen = std::string(error.what()) == "from the main thread";
        }
        loop.postAfter(std::chrono::milliseconds(1), [&] { loop.quit(); });
    });
    loop.run();
    worker.join();
    EXPECT_EQ(loopThread, std::this_thread::get_id());
    EXPECT_EQ(answer, 42);
    EXPECT_TRUE(errorSeen);
}

TEST(ManualExecutor, StoppedWorkerStopsWaitingForTheMainThread) {
    ManualExecutor executor; // never drained: the main thread is busy elsewhere
    std::stop_source stop;
    bool cancelled = false;
    std::thread worker([&] {
        try {
            callOnMain(
                executor, [] {}, stop.get_token());
        } catch (const CancellationError&) {
            cancelled = true;
        }
    });
    while (!executor.waitForTask(std::chrono::milliseconds(10))) {
    }
    stop.request_stop();
    worker.join();
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(executor.drain(), 1u); // the task still runs later, safely
}

} // namespace
} // namespace quorlin

#include "core/state/Scheduler.h"

#include "tests/support/ScopedEnvironment.h"

#include <ctime>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

using Ids = std::vector<std::string>;

class SchedulerTest : public ::testing::Test {
protected:
    SchedulerTest() { tzset(); }
    ~SchedulerTest() override { tzset(); }

    static SystemTime at(const char* local, int seconds = 0) {
        return *parseLocalMinute(local) + std::chrono::seconds(seconds);
    }

    // Central European time: the clock goes back from 03:00 to 02:00 on 2024-10-27.
    testing::ScopedEnvironment zone{"TZ", "CET-1CEST,M3.5.0,M10.5.0/3"};
    Scheduler scheduler;
};

TEST_F(SchedulerTest, FiresEachDueFlowOncePerMinuteAndSkipsWhatCantRun) {
    const std::vector<ScheduledFlow> flows{
        {"every-minute", true, true, "", "* * * * *"},
        {"own-wins", true, true, "  30 9 * * *  ", "* * * * *"},
        {"switched-off", false, true, "* * * * *", std::nullopt},
        {"not-runnable", true, false, "* * * * *", std::nullopt},
        {"bad-cron", true, true, "* * *", "* * * * *"},
        {"busy", true, true, "* * * * *", std::nullopt},
        {"no-expression", true, true, " ", std::nullopt},
    };
    bool busy = true;
    const auto isActive = [&busy](const std::string& id) { return busy && id == "busy"; };

    EXPECT_EQ(scheduler.dueFlows(flows, isActive, at("2024-05-01 09:30")),
              (Ids{"every-minute", "own-wins"}));
    EXPECT_EQ(scheduler.dueFlows(flows, isActive, at("2024-05-01 09:30", 30)), Ids{})
        << "a second round in the same minute fires nothing";
    busy = false;
    EXPECT_EQ(scheduler.dueFlows(flows, isActive, at("2024-05-01 09:30", 45)), Ids{"busy"})
        << "a flow whose run ended within the minute still gets its turn";
    EXPECT_EQ(scheduler.dueFlows(flows, isActive, at("2024-05-01 09:31")),
              (Ids{"every-minute", "busy"}));
}

TEST_F(SchedulerTest, TheRepeatedHourOfAutumnFiresADailyFlowOnce) {
    const std::vector<ScheduledFlow> daily{{"daily", true, true, "30 2 * * *", std::nullopt}};
    const auto first = *parseIso8601("2024-10-27T02:30:00+02:00"); // the first 02:30
    EXPECT_EQ(scheduler.dueFlows(daily, {}, first), Ids{"daily"});
    EXPECT_EQ(scheduler.dueFlows(daily, {}, first + std::chrono::hours(1)), Ids{})
        << "the second 02:30 has the same minute key";
}

TEST_F(SchedulerTest, TheWakeIsTheEarliestNextRunOfAFlowThatCanFire) {
    const std::vector<ScheduledFlow> flows{
        {"morning", true, true, "0 8 * * *", std::nullopt},
        {"evening", true, true, "0 18 * * *", std::nullopt},
        {"sooner-but-off", false, true, "0 7 * * *", std::nullopt},
        {"sooner-but-not-runnable", true, false, "0 7 * * *", std::nullopt},
    };
    EXPECT_EQ(Scheduler::nextWake(flows, at("2024-05-01 09:00")), at("2024-05-01 18:00"));
    EXPECT_EQ(Scheduler::nextWake(flows, at("2024-05-01 06:00")), at("2024-05-01 08:00"));
    EXPECT_EQ(Scheduler::nextWake({flows[2], flows[3]}, at("2024-05-01 06:00")), std::nullopt);
}

} // namespace
} // namespace quorlin

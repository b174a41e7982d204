#include "core/state/CronSchedule.h"

#include "core/foundation/LocalTime.h"
#include "core/state/CronScheduleError.h"
#include "tests/support/ScopedEnvironment.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

// POSIX rules, so that no time zone database is needed.
constexpr const char* centralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
// Summer time that starts and ends at midnight, as Brazil kept it: 00:00 is skipped on the
// third Sunday of October, and 23:00 to 00:00 repeats before the third Sunday of February.
constexpr const char* midnightChanges = "<-03>3<-02>,M10.3.0/0,M2.3.0/0";
// Half an hour of summer time on a half-hour offset (Lord Howe Island).
constexpr const char* halfHourChanges = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0";

// The process's local time zone for the object's lifetime.
class LocalZone {
public:
    explicit LocalZone(const char* zone) : variable_("TZ", zone) { tzset(); }
    ~LocalZone() { tzset(); }
    LocalZone(const LocalZone&) = delete;
    LocalZone& operator=(const LocalZone&) = delete;

private:
    testing::ScopedEnvironment variable_;
};

SystemTime at(const char* iso) {
    const auto moment = parseIso8601(iso);
    EXPECT_TRUE(moment) << iso;
    return moment.value_or(SystemTime());
}

std::string shown(const std::optional<SystemTime>& moment) {
    return moment ? formatLocalIso8601(*moment) : "none";
}

CronSchedule schedule(const char* expression) {
    const auto parsed = CronSchedule::parse(expression);
    EXPECT_TRUE(parsed) << expression;
    return parsed.value_or(CronSchedule{});
}

TEST(CronSchedule, ParsingAcceptsOnlyFiveWellFormedFields) {
    const std::pair<const char*, bool> cases[] = {
        {"", false},
        {"   ", false},
        {"0 8 * *", false},
        {"0 8 * * * *", false},
        {"\t0\t8  *\n* *\n", true},
        {"0\u00a08 * * *", true}, // a no-break space separates too
        {"60 * * * *", false},
        {"* 24 * * *", false},
        {"* * 0 * *", false},
        {"* * 32 * *", false},
        {"* * * 0 *", false},
        {"* * * 13 *", false},
        {"* * * * 8", false},
        {"* * * * 7", true},
        {"*/0 * * * *", false},
        {"/5 * * * *", false},
        {"5/ * * * *", false},
        {"*/5/2 * * * *", false},
        {"1- * * * *", false},
        {"-5 * * * *", false},
        {"1-2-3 * * * *", false},
        {"*-5 * * * *", false},
        {"22-2 * * * *", false},
        {"*/-1 * * * *", false},
        {"+-5 * * * *", false},
        {"9223372036854775808 * * * *", false},
        {"*/9223372036854775808 * * * *", false},
        {", * * * *", false},
        {"0 8 * JAN MON", false},
        {"0 8 ? * *", false},
        {"0 8 L * *", false},
        {"@daily", false},
        {"0 0 31 2 *", true},
    };
    for (const auto& [text, accepted] : cases) {
        EXPECT_EQ(CronSchedule::parse(text).has_value(), accepted) << '"' << text << '"';
    }
}

TEST(CronSchedule, FieldsHoldTheValuesTheirItemsName) {
    const struct {
        const char* expression;
        CronField CronSchedule::*field;
        std::vector<int> values;
    } cases[] = {
        {"*/15 * * * *", &CronSchedule::minutes, {0, 15, 30, 45}},
        {"10-20/5 * * * *", &CronSchedule::minutes, {10, 15, 20}},
        {"1-10/4 * * * *", &CronSchedule::minutes, {1, 5, 9}},
        {"5/15 * * * *", &CronSchedule::minutes, {5}},
        {"5-5 * * * *", &CronSchedule::minutes, {5}},
        {"+5 * * * *", &CronSchedule::minutes, {5}},
        {"1,,5 * * * *", &CronSchedule::minutes, {1, 5}},
        {",1 * * * *", &CronSchedule::minutes, {1}},
        {"*/9223372036854775807 * * * *", &CronSchedule::minutes, {0}},
        {"0 9-17/4,20 * * *", &CronSchedule::hours, {9, 13, 17, 20}},
        {"0 0 */10 * *", &CronSchedule::daysOfMonth, {1, 11, 21, 31}},
        {"0 0 1 */5 *", &CronSchedule::months, {1, 6, 11}},
        {"0 0 * * */2", &CronSchedule::weekdays, {0, 2, 4, 6}},
        {"0 0 * * 0-7", &CronSchedule::weekdays, {0, 1, 2, 3, 4, 5, 6, 7}},
    };
    for (const auto& [expression, field, values] : cases) {
        EXPECT_EQ((schedule(expression).*field).allowedValues(), values) << expression;
    }
}

TEST(CronSchedule, KeepsTheInnerSpacingAndComparesByTextAndFields) {
    const auto spaced = schedule("\t0\t8  *\n* *\n");
    EXPECT_EQ(spaced.expression, "0\t8  *\n* *");
    const auto plain = schedule("0 8 * * *");
    EXPECT_NE(spaced, plain);
    EXPECT_EQ(spaced.minutes, plain.minutes);
    EXPECT_EQ(spaced.weekdays, plain.weekdays);
    EXPECT_EQ(schedule(" 0 8 * * * "), plain);
    EXPECT_NE(schedule("0 9 * * *"), plain);
}

TEST(CronSchedule, ValidationNamesTheMistakeInTheUsersWords) {
    const struct {
        const char* text;
        CronScheduleError::Kind kind;
        const char* message;
    } cases[] = {
        {"", CronScheduleError::Kind::empty, "Enter a cron expression, e.g. 0 8 * * *"},
        {" \n\t", CronScheduleError::Kind::empty, "Enter a cron expression, e.g. 0 8 * * *"},
        {"0 8 * *", CronScheduleError::Kind::malformed,
         "Cron must be 5 fields: minute hour day month weekday"},
        {"61 8 * * *", CronScheduleError::Kind::malformed,
         "Cron must be 5 fields: minute hour day month weekday"},
    };
    for (const auto& [text, kind, message] : cases) {
        try {
            CronSchedule::validated(text);
            ADD_FAILURE() << "accepted \"" << text << '"';
        } catch (const CronScheduleError& error) {
            EXPECT_EQ(error.kind(), kind) << text;
            EXPECT_STREQ(error.what(), message) << text;
        }
    }
    EXPECT_EQ(CronSchedule::validated("0 8 * * *"), schedule("0 8 * * *"));
}

TEST(CronSchedule, MatchesLocalMinutesWhenEveryFieldAgrees) {
    const LocalZone zone(centralEurope);
    const struct {
        const char* expression;
        const char* moment;
        bool matches;
    } cases[] = {
        {"0 8 * * *", "2024-05-01T08:00:00+02:00", true},
        {"0 8 * * *", "2024-05-01T08:00:59.900+02:00", true}, // seconds don't count
        {"0 8 * * *", "2024-05-01T08:01:00+02:00", false},
        {"0 8 * * *", "2024-05-01T08:00:00Z", false},     // 10:00 here
        {"0 8 * * 0", "2024-05-05T08:00:00+02:00", true}, // a Sunday
        {"0 8 * * 7", "2024-05-05T08:00:00+02:00", true},
        {"0 8 * * 7", "2024-05-06T08:00:00+02:00", false},
        {"0 8 * * 1-5", "2024-05-04T08:00:00+02:00", false}, // a Saturday
        {"0 8 * * 0-7", "2024-05-04T08:00:00+02:00", true},
        {"0 8 13 * 5", "2024-09-13T08:00:00+02:00", true},  // Friday the 13th
        {"0 8 13 * 5", "2024-10-13T08:00:00+02:00", false}, // the 13th, a Sunday
        {"0 8 13 * 5", "2024-09-20T08:00:00+02:00", false}, // a Friday, the 20th
        {"0 0 29 2 *", "2024-02-29T00:00:00+01:00", true},
        {"0 0 1 3 *", "2024-02-29T23:00:00Z", true},
        {"30 2 * * *", "2024-10-27T02:30:00+02:00", true}, // before the clock goes back
        {"30 2 * * *", "2024-10-27T02:30:00+01:00", true}, // and after
        {"30 2 * * *", "2024-03-31T01:30:00Z", false},     // 03:30 after the jump
    };
    for (const auto& [expression, moment, matches] : cases) {
        EXPECT_EQ(schedule(expression).matches(at(moment)), matches)
            << expression << " at " << moment;
    }
}

TEST(CronSchedule, NextRunIsTheFirstMatchingMinuteAfterTheGivenTime) {
    const LocalZone zone(centralEurope);
    const struct {
        const char* expression;
        const char* after;
        const char* next; // "none" when there is no run
    } cases[] = {
        {"* * * * *", "2024-05-01T08:00:00+02:00", "2024-05-01T08:01:00+02:00"},
        {"* * * * *", "2024-05-01T08:00:59+02:00", "2024-05-01T08:01:00+02:00"},
        {"0 8 * * *", "2024-05-01T08:00:00+02:00", "2024-05-02T08:00:00+02:00"},
        {"0 18 * * 1-5", "2024-05-03T18:00:00+02:00", "2024-05-06T18:00:00+02:00"},
        {"0 8 13 * 5", "2024-01-01T00:00:00+01:00", "2024-09-13T08:00:00+02:00"},
        {"*/15 9-10 * * *", "2024-05-01T10:50:00+02:00", "2024-05-02T09:00:00+02:00"},
        {"0 0 31 2 *", "2024-01-01T00:00:00+01:00", "none"},
        {"0 0 30 2 *", "2024-01-01T00:00:00+01:00", "none"},
        {"0 0 29 2 *", "2023-03-01T00:00:00+01:00", "2024-02-29T00:00:00+01:00"},
        {"0 0 29 2 *", "2024-03-01T00:00:00+01:00", "none"}, // 2028 is too far
        // A 00:02 on 1 March that is a Friday comes 366 days after the first candidate
        // (Wednesday 1 March 2023, 00:02): the last minute searched is still tried...
        {"2 0 1 3 5", "2023-03-01T00:01:00+01:00", "2024-03-01T00:02:00+01:00"},
        // ...and one minute later it lies past the end of the search.
        {"2 0 1 3 5", "2023-03-01T00:00:00+01:00", "none"},
        // The skipped 02:30 is not moved to 03:30; a repeated 02:30 runs twice.
        {"30 2 * * *", "2024-03-30T12:00:00+01:00", "2024-04-01T02:30:00+02:00"},
        {"30 2 * * *", "2024-10-26T12:00:00+02:00", "2024-10-27T02:30:00+02:00"},
        {"30 2 * * *", "2024-10-27T02:30:00+02:00", "2024-10-27T02:30:00+01:00"},
        {"30 2 * * *", "2024-10-27T02:30:00+01:00", "2024-10-28T02:30:00+01:00"},
    };
    for (const auto& [expression, after, next] : cases) {
        EXPECT_EQ(shown(schedule(expression).nextRun(at(after))), next)
            << expression << " after " << after;
    }
}

TEST(CronSchedule, DescribesOnlyTheExactTextsItHasWordsFor) {
    const std::pair<const char*, const char*> cases[] = {
        {"0 8 * * *", "Daily at 08:00"},       {" 0 9 * * *\n", "Daily at 09:00"},
        {"0 18 * * 1-5", "Weekdays at 18:00"}, {"0  8 * * *", "Cron: 0  8 * * *"},
        {"0 8 * * 0-7", "Cron: 0 8 * * 0-7"},  {"*/5 * * * *", "Cron: */5 * * * *"},
    };
    for (const auto& [expression, description] : cases) {
        EXPECT_EQ(schedule(expression).localizedDescription(), description) << expression;
    }
    const LocalZone zone(centralEurope);
    EXPECT_EQ(formattedNextRun(at("2024-05-01T06:05:00Z")), "2024-05-01 08:05");
    EXPECT_EQ(formattedNextRun(std::nullopt), "Unable to compute");
}

// Expressions drawn from a fixed seed: every field a star, a value, a range, a step or a
// list, weighted so that most match often enough for the slow walk to stay short.
std::vector<std::string> drawnExpressions(std::size_t count) {
    std::mt19937 random(20240331);
    const auto item = [&](int lower, int upper) {
        std::uniform_int_distribution<int> value(lower, upper);
        const int a = value(random), b = value(random);
        switch (std::uniform_int_distribution<int>(0, 5)(random)) {
        case 0:
        case 1:
            return std::string("*");
        case 2:
            return std::to_string(a);
        case 3:
            return std::to_string(std::min(a, b)) + "-" + std::to_string(std::max(a, b));
        case 4:
            return "*/" + std::to_string(std::uniform_int_distribution<int>(2, 7)(random));
        default:
            return std::to_string(a) + "," + std::to_string(b);
        }
    };
    std::vector<std::string> expressions;
    for (std::size_t index = 0; index < count; ++index) {
        expressions.push_back(item(0, 59) + " " + item(0, 23) + " " + item(1, 31) + " " +
                              item(1, 12) + " " + item(0, 7));
    }
    return expressions;
}

// The fast search must give exactly what trying every minute gives: around the days the
// clock changes, in three kinds of zone, with the day and the weekday together, on 29
// February, and where nothing matches for the whole year. A walk over a whole year takes a
// while, so the drawn and the rare expressions start from one day in each zone only.
TEST(CronSchedule, FastSearchAgreesWithTheMinuteByMinuteWalk) {
    const std::vector<std::string> frequent = {
        "* * * * *",       "0 8 * * *",    "30 2 * * *",  "*/7 1-3 * * *",        "0 0 * * *",
        "59 23 * * *",     "0,30 * * * 0", "45 0 * * 6",  "*/20 22-23,0-1 * * *", "0 12 1,15 * 1-5",
        "15 2 * 3,4,10 7", "30 3 * * *",   "5 1,4 * * *", "50 23 * * 6"};
    auto rare = drawnExpressions(16);
    rare.insert(rare.end(), {"0 0 29 2 *", "0 8 13 * 5", "0 0 30 2 *"});
    // In each zone: the day before the clock goes forward, half an hour before it does, the
    // same two for going back, and an ordinary day.
    const struct {
        const char* zone;
        std::vector<const char*> starts;
    } zones[] = {
        {centralEurope,
         {"2024-03-30T02:17:00+01:00", "2024-03-31T01:30:00+01:00", "2024-10-26T02:59:30+02:00",
          "2024-10-27T02:30:00+02:00", "2024-02-27T10:00:00Z"}},
        {midnightChanges,
         {"2023-10-14T00:00:00-03:00", "2023-10-14T23:30:00-03:00", "2024-02-17T00:10:00-02:00",
          "2024-02-17T23:30:00-02:00", "2023-06-10T05:05:00Z"}},
        {halfHourChanges,
         {"2024-04-06T02:00:00+11:00", "2024-04-07T01:30:00+11:00", "2024-10-05T01:40:00+10:30",
          "2024-10-06T01:30:00+10:30"}},
    };
    std::size_t compared = 0;
    const auto compare = [&](const std::string& expression, const char* start, const char* rule) {
        const auto cron = schedule(expression.c_str());
        // A few runs in a row, each after the one before, as the scheduler asks.
        std::optional<SystemTime> after = at(start);
        for (int run = 0; run < 3 && after; ++run, ++compared) {
            const auto fast = cron.nextRun(*after);
            ASSERT_EQ(shown(fast), shown(cron.nextRunMinuteByMinute(*after)))
                << expression << " after " << shown(after) << " in " << rule;
            after = fast;
        }
    };
    for (const auto& [rule, starts] : zones) {
        const LocalZone zone(rule);
        for (const char* start : starts) {
            for (const auto& expression : frequent) {
                compare(expression, start, rule);
            }
        }
        for (const auto& expression : rare) {
            compare(expression, starts.front(), rule);
        }
    }
    EXPECT_GT(compared, 200u);
}

} // namespace
} // namespace quorlin

#include "CronSchedule.h"

#include "core/foundation/Text.h"
#include "core/state/CronScheduleError.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <vector>

namespace quorlin {

namespace {

using Seconds = std::int64_t; // since the epoch, as time_t counts them

constexpr Seconds minuteLength = 60;
constexpr Seconds dayLength = 86'400;
constexpr Seconds searchSpan = 366 * dayLength;
// The fast search reads the UTC offset only where a skip starts and where it lands, so
// it relies on the zone not changing its offset twice within one skip. Zones' rules keep
// their changes months apart; six hours leaves a wide margin at little cost.
constexpr Seconds longestSkip = 6 * 3600;

// The calendar fields of one moment in the local time zone.
struct LocalMoment {
    int second;
    int minute;
    int hour;
    int day;
    int month;   // 1...12
    int weekday; // 0 is Sunday
    long utcOffset;

    Seconds secondOfDay() const { return hour * 3600 + minute * 60 + second; }
};

std::optional<LocalMoment> localMoment(Seconds seconds) {
    const auto value = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (!localtime_r(&value, &parts)) {
        return std::nullopt;
    }
    return LocalMoment{parts.tm_sec,     parts.tm_min,  parts.tm_hour,  parts.tm_mday,
                       parts.tm_mon + 1, parts.tm_wday, parts.tm_gmtoff};
}

bool dayMatches(const CronSchedule& schedule, const LocalMoment& moment) {
    return schedule.daysOfMonth.contains(moment.day) && schedule.months.contains(moment.month) &&
           (schedule.weekdays.contains(moment.weekday) ||
            (moment.weekday == 0 && schedule.weekdays.contains(7)));
}

bool momentMatches(const CronSchedule& schedule, const LocalMoment& moment) {
    return schedule.minutes.contains(moment.minute) && schedule.hours.contains(moment.hour) &&
           dayMatches(schedule, moment);
}

Seconds wholeSeconds(SystemTime time) {
    return std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
}

// Nothing for a moment the clock type can't hold, as for a date the calendar can't give.
std::optional<SystemTime> systemTime(Seconds seconds) {
    constexpr Seconds latest =
        std::chrono::duration_cast<std::chrono::seconds>(SystemTime::duration::max()).count();
    if (seconds > latest || seconds < -latest) {
        return std::nullopt;
    }
    return SystemTime(std::chrono::seconds(seconds));
}

// The start of the local minute after the one that holds time.
std::optional<Seconds> minuteAfter(SystemTime time) {
    const Seconds seconds = wholeSeconds(time);
    const auto moment = localMoment(seconds);
    if (!moment) {
        return std::nullopt;
    }
    return seconds - moment->second + minuteLength;
}

// How far the local clock must run from a moment that doesn't match before it reaches a
// time that might: the next day when the day is wrong, the next allowed hour when the
// hour is, else the next allowed minute (or the next hour when this one has none left).
Seconds localSecondsToNextChance(const CronSchedule& schedule, const LocalMoment& moment) {
    const Seconds now = moment.secondOfDay();
    if (!dayMatches(schedule, moment)) {
        return dayLength - now;
    }
    if (!schedule.hours.contains(moment.hour)) {
        const auto hour = schedule.hours.firstAllowedFrom(moment.hour + 1);
        return (hour && *hour < 24 ? *hour * 3600 : dayLength) - now;
    }
    const auto minute = schedule.minutes.firstAllowedFrom(moment.minute + 1);
    return (minute && *minute < 60 ? moment.hour * 3600 + *minute * 60 : (moment.hour + 1) * 3600) -
           now;
}

// The first candidate within (from, from + span] whose UTC offset is no longer offset,
// knowing the one at from + span differs: a binary search over whole minutes.
Seconds firstMinuteOfNewOffset(Seconds from, Seconds span, long offset) {
    Seconds same = 0;
    Seconds changed = span / minuteLength;
    while (changed - same > 1) {
        const Seconds middle = same + (changed - same) / 2;
        const auto moment = localMoment(from + middle * minuteLength);
        if (moment && moment->utcOffset == offset) {
            same = middle;
        } else {
            changed = middle;
        }
    }
    return from + changed * minuteLength;
}

// Any run of Unicode white space or line ends separates two pieces.
std::vector<std::string_view> whitespaceSeparated(std::string_view text) {
    std::vector<std::string_view> pieces;
    std::size_t start = 0;
    for (std::size_t offset = 0; offset < text.size();) {
        const std::size_t here = offset;
        if (isWhitespaceOrNewline(decodeCodePoint(text, offset))) {
            if (here > start) {
                pieces.push_back(text.substr(start, here - start));
            }
            start = offset;
        }
    }
    if (start < text.size()) {
        pieces.push_back(text.substr(start));
    }
    return pieces;
}

} // namespace

std::optional<CronSchedule> CronSchedule::parse(std::string_view text) {
    CronSchedule schedule;
    schedule.expression = trimmed(text);
    const auto pieces = whitespaceSeparated(schedule.expression);
    if (pieces.size() != 5) {
        return std::nullopt;
    }
    const struct {
        CronField CronSchedule::*field;
        int lower;
        int upper;
    } layout[] = {{&CronSchedule::minutes, 0, 59},
                  {&CronSchedule::hours, 0, 23},
                  {&CronSchedule::daysOfMonth, 1, 31},
                  {&CronSchedule::months, 1, 12},
                  {&CronSchedule::weekdays, 0, 7}};
    for (std::size_t index = 0; index < 5; ++index) {
        auto field = CronField::parse(pieces[index], layout[index].lower, layout[index].upper);
        if (!field) {
            return std::nullopt;
        }
        schedule.*layout[index].field = *field;
    }
    return schedule;
}

CronSchedule CronSchedule::validated(std::string_view text) {
    if (trimmed(text).empty()) {
        throw CronScheduleError(CronScheduleError::Kind::empty);
    }
    auto schedule = parse(text);
    if (!schedule) {
        throw CronScheduleError(CronScheduleError::Kind::malformed);
    }
    return std::move(*schedule);
}

bool CronSchedule::matches(SystemTime time) const {
    tzset(); // localtime_r alone may keep reading a zone TZ no longer names
    const auto moment = localMoment(wholeSeconds(time));
    return moment && momentMatches(*this, *moment);
}

// Walks real time, so a skipped local minute is never tried and a repeated one is tried
// twice, as the minute-by-minute walk does. Where nothing can match it skips ahead by the
// local clock, which is only safe while the UTC offset holds: when it changed on the way,
// it goes just to the first minute after the change and looks again from there.
std::optional<SystemTime> CronSchedule::nextRun(SystemTime after) const {
    tzset();
    const auto first = minuteAfter(after);
    if (!first) {
        return std::nullopt;
    }
    const Seconds limit = *first + searchSpan;
    Seconds candidate = *first;
    auto moment = localMoment(candidate);
    while (moment && candidate <= limit) {
        if (momentMatches(*this, *moment)) {
            return systemTime(candidate);
        }
        const Seconds wanted = std::min(localSecondsToNextChance(*this, *moment), longestSkip);
        Seconds skip = (wanted + minuteLength - 1) / minuteLength * minuteLength;
        auto landing = localMoment(candidate + skip);
        if (skip > minuteLength && (!landing || landing->utcOffset != moment->utcOffset)) {
            skip = firstMinuteOfNewOffset(candidate, skip, moment->utcOffset) - candidate;
            landing = localMoment(candidate + skip);
        }
        candidate += skip;
        moment = landing;
    }
    return std::nullopt;
}

std::optional<SystemTime> CronSchedule::nextRunMinuteByMinute(SystemTime after) const {
    tzset();
    const auto first = minuteAfter(after);
    if (!first) {
        return std::nullopt;
    }
    for (Seconds candidate = *first; candidate <= *first + searchSpan; candidate += minuteLength) {
        const auto moment = localMoment(candidate);
        if (!moment) {
            return std::nullopt;
        }
        if (momentMatches(*this, *moment)) {
            return systemTime(candidate);
        }
    }
    return std::nullopt;
}

std::string CronSchedule::localizedDescription() const {
    // Only these exact texts have words; any other spelling, even of the same times, is
    // shown as typed.
    static const std::pair<std::string_view, std::string_view> described[] = {
        {"0 8 * * *", "Daily at 08:00"},
        {"0 9 * * *", "Daily at 09:00"},
        {"0 18 * * 1-5", "Weekdays at 18:00"},
    };
    for (const auto& [text, description] : described) {
        if (expression == text) {
            return std::string(description);
        }
    }
    return "Cron: " + expression;
}

std::string formattedNextRun(const std::optional<SystemTime>& run) {
    return run ? formatLocalMinute(*run) : "Unable to compute";
}

} // namespace quorlin

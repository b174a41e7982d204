#pragma once

#include "core/foundation/LocalTime.h"
#include "core/state/CronField.h"

#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// A five-field cron expression: minute, hour, day of the month, month, weekday. The
// dialect is strict: numbers only (no names, "?", "L" or "@daily"), no wrap-around ranges,
// and the day of the month and the weekday must both match (classic cron takes either).
// Times are read in the machine's local time zone, as TZ sets it.
struct CronSchedule {
    std::string expression; // as typed, with the ends trimmed
    CronField minutes;      // 0...59
    CronField hours;        // 0...23
    CronField daysOfMonth;  // 1...31
    CronField months;       // 1...12
    CronField weekdays;     // 0...7; both 0 and 7 are Sunday

    // Nothing for any malformed expression; the reason is never told apart.
    static std::optional<CronSchedule> parse(std::string_view text);

    // Like parse, but throws CronScheduleError with the message a user reads.
    static CronSchedule validated(std::string_view text);

    // Whether the local minute holding time is one the schedule runs at; the seconds do
    // not count. A local time the clock skipped never matches; one it went through twice
    // matches both times.
    bool matches(SystemTime time) const;

    // The first matching minute strictly after `after`, searched up to 366 days past the
    // start of the next minute (that last minute included); nothing beyond.
    std::optional<SystemTime> nextRun(SystemTime after) const;

    // The same answer as nextRun, found by testing every minute in turn. The fast search is
    // measured and checked against it.
    std::optional<SystemTime> nextRunMinuteByMinute(SystemTime after) const;

    // "Daily at 08:00" for the few expressions that have words, else "Cron: <expression>".
    std::string localizedDescription() const;

    friend bool operator==(const CronSchedule&, const CronSchedule&) = default;
};

// How a next run is shown: its local "yyyy-MM-dd HH:mm", or "Unable to compute".
std::string formattedNextRun(const std::optional<SystemTime>& run);

} // namespace quorlin

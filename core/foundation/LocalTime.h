#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quorlin {

using SystemTime = std::chrono::system_clock::time_point;

// "yyyy-MM-dd HH:mm" in the machine's local time zone: how sessions and audit rows show
// a moment.
std::string formatLocalMinute(SystemTime time);

// ISO 8601 in UTC with whole seconds ("2024-01-15T10:30:00Z").
std::string formatIso8601(SystemTime time);

// Reads "YYYY-MM-DDTHH:MM:SS" with an optional fraction and a "Z" or "+HH:MM" offset.
std::optional<SystemTime> parseIso8601(std::string_view text);

// Reads "yyyy-MM-dd HH:mm" or "yyyy-MM-dd" (its midnight) as a local time. A time the
// clock skipped when it jumped forward is taken as the moment after the jump.
std::optional<SystemTime> parseLocalMinute(std::string_view text);

// ISO 8601 in local time with its offset from UTC ("2024-05-01T09:00:00+02:00").
std::string formatLocalIso8601(SystemTime time);

// The first moment of the local calendar month that holds time, and of the month after.
std::pair<SystemTime, SystemTime> localMonthBounds(SystemTime time);

// Seconds between two moments, as the engine reports durations.
double secondsBetween(SystemTime start, SystemTime end);

} // namespace quorlin

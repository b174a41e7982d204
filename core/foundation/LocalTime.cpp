#include "LocalTime.h"

#include <cstdio>
#include <ctime>

namespace quorlin {

namespace {

std::tm calendarParts(SystemTime time, bool local) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts{};
    if (local) {
        localtime_r(&seconds, &parts);
    } else {
        gmtime_r(&seconds, &parts);
    }
    return parts;
}

bool readDigits(std::string_view text, std::size_t& offset, std::size_t count, int& value) {
    if (offset + count > text.size()) {
        return false;
    }
    value = 0;
    for (std::size_t index = 0; index < count; ++index) {
        const char character = text[offset + index];
        if (character < '0' || character > '9') {
            return false;
        }
        value = value * 10 + (character - '0');
    }
    offset += count;
    return true;
}

bool expect(std::string_view text, std::size_t& offset, char character) {
    if (offset < text.size() && text[offset] == character) {
        ++offset;
        return true;
    }
    return false;
}

} // namespace

// Each format is written out at its strftime call, so the compiler checks it.
std::string formatLocalMinute(SystemTime time) {
    const std::tm parts = calendarParts(time, true);
    char buffer[64];
    return {buffer, std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &parts)};
}

std::string formatIso8601(SystemTime time) {
    const std::tm parts = calendarParts(time, false);
    char buffer[64];
    return {buffer, std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

std::optional<SystemTime> parseIso8601(std::string_view text) {
    std::size_t offset = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!readDigits(text, offset, 4, year) || !expect(text, offset, '-') ||
        !readDigits(text, offset, 2, month) || !expect(text, offset, '-') ||
        !readDigits(text, offset, 2, day) || !expect(text, offset, 'T') ||
        !readDigits(text, offset, 2, hour) || !expect(text, offset, ':') ||
        !readDigits(text, offset, 2, minute) || !expect(text, offset, ':') ||
        !readDigits(text, offset, 2, second)) {
        return std::nullopt;
    }
    double fraction = 0;
    if (expect(text, offset, '.')) {
        double scale = 0.1;
        const std::size_t start = offset;
        while (offset < text.size() && text[offset] >= '0' && text[offset] <= '9') {
            fraction += (text[offset] - '0') * scale;
            scale /= 10;
            ++offset;
        }
        if (offset == start) {
            return std::nullopt;
        }
    }
    int offsetMinutes = 0;
    if (!expect(text, offset, 'Z')) {
        const bool negative = offset < text.size() && text[offset] == '-';
        int offsetHours = 0, offsetRest = 0;
        if (!(expect(text, offset, '+') || expect(text, offset, '-')) ||
            !readDigits(text, offset, 2, offsetHours) || !expect(text, offset, ':') ||
            !readDigits(text, offset, 2, offsetRest)) {
            return std::nullopt;
        }
        offsetMinutes = (offsetHours * 60 + offsetRest) * (negative ? -1 : 1);
    }
    if (offset != text.size()) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok() || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    const auto wholeSeconds = std::chrono::sys_days(date).time_since_epoch() +
                              std::chrono::hours(hour) + std::chrono::minutes(minute) +
                              std::chrono::seconds(second) - std::chrono::minutes(offsetMinutes);
    return SystemTime(std::chrono::duration_cast<SystemTime::duration>(wholeSeconds)) +
           std::chrono::duration_cast<SystemTime::duration>(
               std::chrono::duration<double>(fraction));
}

std::optional<SystemTime> parseLocalMinute(std::string_view text) {
    std::size_t offset = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0;
    if (!readDigits(text, offset, 4, year) || !expect(text, offset, '-') ||
        !readDigits(text, offset, 2, month) || !expect(text, offset, '-') ||
        !readDigits(text, offset, 2, day)) {
        return std::nullopt;
    }
    if (offset != text.size() &&
        (!expect(text, offset, ' ') || !readDigits(text, offset, 2, hour) ||
         !expect(text, offset, ':') || !readDigits(text, offset, 2, minute) ||
         offset != text.size())) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned>(month)),
                                           std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok() || hour > 23 || minute > 59) {
        return std::nullopt;
    }
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_isdst = -1; // the zone's rules decide
    const std::time_t seconds = std::mktime(&parts);
    if (seconds == static_cast<std::time_t>(-1)) {
        return std::nullopt;
    }
    return std::chrono::system_clock::from_time_t(seconds);
}

std::string formatLocalIso8601(SystemTime time) {
    const std::tm parts = calendarParts(time, true);
    char buffer[64];
    std::size_t length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S%z", &parts);
    // strftime writes the offset as +hhmm; ISO 8601's extended form wants +hh:mm.
    std::string text(buffer, length);
    if (text.size() >= 5) {
        text.insert(text.size() - 2, ":");
    }
    return text;
}

std::pair<SystemTime, SystemTime> localMonthBounds(SystemTime time) {
    const std::tm now = calendarParts(time, true);
    const auto monthStart = [&](int monthsAhead) {
        std::tm parts{};
        parts.tm_year = now.tm_year;
        parts.tm_mon = now.tm_mon + monthsAhead; // mktime carries December into January
        parts.tm_mday = 1;
        parts.tm_isdst = -1;
        return std::chrono::system_clock::from_time_t(std::mktime(&parts));
    };
    return {monthStart(0), monthStart(1)};
}

double secondsBetween(SystemTime start, SystemTime end) {
    return std::chrono::duration<double>(end - start).count();
}

} // namespace quorlin

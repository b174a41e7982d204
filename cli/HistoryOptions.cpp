#include "cli/HistoryOptions.h"

#include "core/foundation/LocalTime.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <string>

namespace quorlin::cli {

namespace {

std::size_t positiveCount(const std::string& option, const std::string& text, bool zeroAllowed) {
    std::size_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() || (count == 0 && !zeroAllowed)) {
        throw UsageError(option + " needs a " + (zeroAllowed ? "" : "positive ") +
                             "whole number, not '" + text + "'",
                         "history");
    }
    return count;
}

// "7d", "12h" or "2w": that long before now.
std::optional<SystemTime> spanBeforeNow(const std::string& text) {
    if (text.size() < 2 || text.find_first_not_of("0123456789") != text.size() - 1) {
        return std::nullopt;
    }
    std::size_t amount = 0;
    std::from_chars(text.data(), text.data() + text.size() - 1, amount);
    const std::map<char, std::chrono::hours> units{{'h', std::chrono::hours(1)},
                                                   {'d', std::chrono::hours(24)},
                                                   {'w', std::chrono::hours(168)}};
    const auto unit = units.find(text.back());
    if (unit == units.end()) {
        return std::nullopt;
    }
    return std::chrono::system_clock::now() - unit->second * static_cast<long>(amount);
}

// A local date (its midnight, or with endOfDay the next one, so that the day is
// included), a local date and time, or a span before now.
SystemTime boundary(const std::string& option, const std::string& text, bool endOfDay) {
    if (const auto moment = spanBeforeNow(text)) {
        return *moment;
    }
    const auto moment = parseLocalMinute(text);
    if (!moment) {
        throw UsageError(option + " takes a date (2024-05-01), a date and time (\"2024-05-01 " +
                             "09:00\") or a span before now (12h, 7d, 2w), not '" + text + "'",
                         "history");
    }
    if (!endOfDay || text.size() != 10) {
        return *moment;
    }
    // The next day's midnight, by the calendar: a day with a clock change is not 24 h.
    int year = 0;
    unsigned month = 0, day = 0;
    std::sscanf(text.c_str(), "%4d-%2u-%2u", &year, &month, &day);
    const std::chrono::year_month_day following{
        std::chrono::sys_days(std::chrono::year_month_day{
            std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)}) +
        std::chrono::days(1)};
    char next[16];
    std::snprintf(next, sizeof next, "%04d-%02u-%02u", static_cast<int>(following.year()),
                  static_cast<unsigned>(following.month()), static_cast<unsigned>(following.day()));
    return parseLocalMinute(next).value_or(*moment + std::chrono::hours(24));
}

} // namespace

ListOptions listOptions(const ParsedArguments& arguments) {
    ListOptions options;
    if (arguments.has("--json") && arguments.has("--csv")) {
        throw UsageError("--json and --csv can't be combined", "history");
    }
    options.format = arguments.has("--json")  ? Format::json
                     : arguments.has("--csv") ? Format::csv
                                              : Format::table;
    options.totals = arguments.has("--totals");
    auto& query = options.query;
    query.flowID = arguments.value("--flow");
    query.status = arguments.value("--status");
    if (arguments.has("--failed")) {
        if (query.status && *query.status != "failed") {
            throw UsageError("--failed and --status " + *query.status + " can't be combined",
                             "history");
        }
        query.status = "failed";
    }
    if (const auto since = arguments.value("--since")) {
        query.since = boundary("--since", *since, false);
    }
    if (const auto until = arguments.value("--until")) {
        query.until = boundary("--until", *until, true);
    }
    query.text = arguments.value("--search");
    if (const auto limit = arguments.value("--limit")) {
        query.limit = positiveCount("--limit", *limit, false);
        options.limited = true;
    } else if (options.format == Format::table) {
        query.limit = defaultTableLimit;
    }
    if (const auto offset = arguments.value("--offset")) {
        query.offset = positiveCount("--offset", *offset, true);
    }
    return options;
}

bool filtered(const AuditRunQuery& query) {
    return query.flowID || query.status || query.since || query.until || query.text;
}

} // namespace quorlin::cli

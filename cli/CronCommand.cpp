#include "cli/CronCommand.h"

#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/state/CronSchedule.h"
#include "core/state/CronScheduleError.h"

#include <algorithm>
#include <charconv>
#include <iostream>
#include <vector>

namespace quorlin::cli {

namespace {

constexpr std::size_t defaultRunCount = 5;
constexpr std::size_t mostRuns = 1000;
// Moments far outside these years don't fit the clock type the engine computes with.
constexpr int earliestYear = 1900;
constexpr int latestYear = 2200;

std::size_t runCount(const ParsedArguments& arguments) {
    const auto text = arguments.value("--count");
    if (!text) {
        return defaultRunCount;
    }
    std::size_t count = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), count);
    if (error != std::errc() || end != text->data() + text->size() || count == 0 ||
        count > mostRuns) {
        throw UsageError("--count needs a whole number from 1 to " + std::to_string(mostRuns) +
                             ", not '" + *text + "'",
                         "cron");
    }
    return count;
}

bool yearInRange(const std::string& text) {
    int year = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + std::min<std::size_t>(4, text.size()), year);
    return error == std::errc() && end == text.data() + 4 && year >= earliestYear &&
           year <= latestYear;
}

SystemTime searchStart(const ParsedArguments& arguments) {
    const auto text = arguments.value("--after");
    if (!text) {
        return std::chrono::system_clock::now();
    }
    // The year is checked first: parseLocalMinute can't represent every four-digit year.
    const auto moment = yearInRange(*text) ? parseLocalMinute(*text) : std::nullopt;
    if (!moment) {
        throw UsageError("--after takes a local date and time (\"2024-05-01 09:00\") or a date, "
                         "in the years " +
                             std::to_string(earliestYear) + " to " + std::to_string(latestYear) +
                             ", not '" + *text + "'",
                         "cron");
    }
    return *moment;
}

// Each run is the next one after the run before; the list ends early where there is none.
std::vector<SystemTime> nextRuns(const CronSchedule& schedule, SystemTime after,
                                 std::size_t count) {
    std::vector<SystemTime> runs;
    while (runs.size() < count) {
        const auto run = schedule.nextRun(runs.empty() ? after : runs.back());
        if (!run) {
            break;
        }
        runs.push_back(*run);
    }
    return runs;
}

} // namespace

// A wrong expression is a mistake on the command line (exit 2), told in the words the
// desktop app uses for it; a valid one that never comes round is not an error.
int cronCommand(const ParsedArguments& arguments) {
    const auto count = runCount(arguments);
    const auto after = searchStart(arguments);
    std::optional<CronSchedule> schedule;
    try {
        schedule = CronSchedule::validated(arguments.operands[0]);
    } catch (const CronScheduleError& error) {
        fail(error.what());
        return exitStatus::usage;
    }
    const auto runs = nextRuns(*schedule, after, count);
    if (arguments.has("--json")) {
        auto times = nlohmann::json::array();
        for (const auto run : runs) {
            times.push_back(formatLocalIso8601(run));
        }
        std::cout << prettySortedJson({{"expression", schedule->expression},
                                       {"description", schedule->localizedDescription()},
                                       {"nextRuns", times}})
                  << '\n';
        return exitStatus::success;
    }
    std::cout << escapedControlBytes(schedule->localizedDescription()) << '\n';
    for (const auto run : runs) {
        std::cout << formattedNextRun(run) << '\n';
    }
    if (runs.size() < count) {
        std::cout << formattedNextRun(std::nullopt) << '\n';
    }
    return exitStatus::success;
}

} // namespace quorlin::cli

#include "cli/ScheduleCommands.h"

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/foundation/Json.h"
#include "core/state/CronSchedule.h"
#include "core/state/CronScheduleError.h"
#include "core/state/SchedulePresentation.h"
#include "core/stores/FlowLibraryPreferencesStore.h"

#include <chrono>
#include <iostream>

namespace quorlin::cli {

namespace {

struct Library {
    WorkflowLoader loader;
    AppSupportPaths paths;
    FlowLibraryPreferencesDocument preferences;
    std::vector<WorkflowBundleReference> flows;
};

Library openLibrary() {
    const auto paths = AppSupportPaths::fromEnvironment();
    Library library{
        WorkflowLoader(WorkflowBundleLocator(QuorlinResources::installed(), paths)), paths, {}, {}};
    library.flows = library.loader.locator().availableWorkflowReferences();
    std::vector<std::string> ids;
    for (const auto& flow : library.flows) {
        ids.push_back(flow.flowID);
    }
    library.preferences = FlowLibraryPreferencesStore(paths)
                              .loadIfPresent()
                              .value_or(FlowLibraryPreferencesDocument{})
                              .normalized(ids);
    return library;
}

std::optional<WorkflowSchedulePreference> preferenceOf(const Library& library,
                                                       const std::string& flowID) {
    const auto found = library.preferences.schedulePreferences.find(flowID);
    return found == library.preferences.schedulePreferences.end() ? std::nullopt
                                                                  : std::optional(found->second);
}

FlowSchedulePresentation presentationOf(const Library& library, const std::string& flowID,
                                        const FlowDefinition& flow) {
    return schedulePresentation(flow, preferenceOf(library, flowID), std::nullopt,
                                std::chrono::system_clock::now());
}

// The expression in force: the user's own, else the flow's.
std::string effectiveExpression(const FlowSchedulePresentation& schedule) {
    return schedule.cronExpression.empty() ? schedule.inheritedCronExpression.value_or("")
                                           : schedule.cronExpression;
}

nlohmann::json scheduleJson(const std::string& flowID, const FlowSchedulePresentation& schedule) {
    return {{"flowID", flowID},
            {"enabled", schedule.isEnabled},
            {"expression", effectiveExpression(schedule)},
            {"ownExpression", schedule.cronExpression},
            {"flowExpression", schedule.inheritedCronExpression
                                   ? nlohmann::json(*schedule.inheritedCronExpression)
                                   : nlohmann::json(nullptr)},
            {"description", schedule.description},
            {"nextRun", schedule.nextRun},
            {"problem", schedule.validationMessage ? nlohmann::json(*schedule.validationMessage)
                                                   : nlohmann::json(nullptr)}};
}

void printSchedule(const std::string& flowID, const FlowSchedulePresentation& schedule) {
    std::cout << flowID << ": " << schedule.description;
    const auto expression = effectiveExpression(schedule);
    if (!expression.empty() && schedule.description.find(expression) == std::string::npos) {
        std::cout << " (" << expression
                  << (schedule.cronExpression.empty() ? ", the flow's own" : "") << ")";
    }
    std::cout << "\n  next run: " << schedule.nextRun << '\n';
    if (schedule.validationMessage) {
        std::cout << "  problem: " << *schedule.validationMessage << '\n';
    }
}

const WorkflowBundleReference& flowNamed(const Library& library, const std::string& flowID) {
    std::vector<std::string> ids;
    for (const auto& flow : library.flows) {
        if (flow.flowID == flowID) {
            return flow;
        }
        ids.push_back(flow.flowID);
    }
    throw UsageError(unknownWordMessage("flow", flowID, ids) + " ('quorlin flows' lists them)",
                     "schedule");
}

// The one change the options ask for, or none to only show the schedule.
void applyChange(const ParsedArguments& arguments, Library& library, const std::string& flowID) {
    const char* changes[] = {"--cron", "--enable", "--disable", "--clear"};
    const auto asked = std::count_if(std::begin(changes), std::end(changes),
                                     [&](const char* option) { return arguments.has(option); });
    if (asked > 1) {
        throw UsageError("give one of --cron, --enable, --disable and --clear", "schedule");
    }
    auto& schedules = library.preferences.schedulePreferences;
    if (const auto expression = arguments.value("--cron")) {
        try {
            const auto schedule = CronSchedule::validated(*expression);
            schedules[flowID] = {true, schedule.expression};
        } catch (const CronScheduleError& error) {
            throw UsageError(error.what(), "schedule");
        }
    } else if (arguments.has("--enable") || arguments.has("--disable")) {
        auto preference = preferenceOf(library, flowID).value_or(WorkflowSchedulePreference{});
        preference.isEnabled = arguments.has("--enable");
        schedules[flowID] = preference;
    } else if (arguments.has("--clear")) {
        schedules.erase(flowID);
    } else {
        return;
    }
    FlowLibraryPreferencesStore(library.paths).save(library.preferences);
}

} // namespace

int scheduleListCommand(const ParsedArguments& arguments) {
    const auto library = openLibrary();
    nlohmann::json all = nlohmann::json::array();
    for (const auto& reference : library.flows) {
        FlowSchedulePresentation schedule;
        try {
            schedule = presentationOf(library, reference.flowID,
                                      library.loader.loadWorkflowBundle(reference).flow);
        } catch (const std::exception& error) {
            // One flow that doesn't load doesn't hide the others' schedules.
            schedule.description = std::string("can't be read: ") + error.what();
            schedule.nextRun = "-";
        }
        if (arguments.has("--json")) {
            all.push_back(scheduleJson(reference.flowID, schedule));
        } else {
            printSchedule(reference.flowID, schedule);
        }
    }
    if (arguments.has("--json")) {
        std::cout << prettySortedJson(all) << '\n';
    }
    return exitStatus::success;
}

int scheduleCommand(const ParsedArguments& arguments) {
    auto library = openLibrary();
    const std::string& flowID = arguments.operands.at(0);
    const auto flow = library.loader.loadWorkflowBundle(flowNamed(library, flowID)).flow;
    applyChange(arguments, library, flowID);
    const auto schedule = presentationOf(library, flowID, flow);
    if (arguments.has("--json")) {
        std::cout << prettySortedJson(scheduleJson(flowID, schedule)) << '\n';
    } else {
        printSchedule(flowID, schedule);
    }
    // Switched on with nothing to run by: saved as asked, but it will never fire.
    return schedule.validationMessage ? exitStatus::failure : exitStatus::success;
}

} // namespace quorlin::cli

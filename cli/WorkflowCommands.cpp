#include "cli/Commands.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/state/ScheduleWarnings.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace quorlin::cli {

namespace {

WorkflowLoader installedLoader() {
    return WorkflowLoader(
        WorkflowBundleLocator(QuorlinResources::installed(), AppSupportPaths::fromEnvironment()));
}

struct FlowRow {
    std::string id, name, version, source, status;
};

// Columns padded to their widest cell; the last one runs free.
void printTable(const std::vector<FlowRow>& rows) {
    std::size_t widths[4] = {2, 4, 7, 6};
    for (const auto& row : rows) {
        widths[0] = std::max(widths[0], row.id.size());
        widths[1] = std::max(widths[1], row.name.size());
        widths[2] = std::max(widths[2], row.version.size());
        widths[3] = std::max(widths[3], row.source.size());
    }
    const auto line = [&](const FlowRow& row) {
        const std::string cells[] = {row.id, row.name, row.version, row.source};
        for (std::size_t index = 0; index < 4; ++index) {
            std::cout << cells[index] << std::string(widths[index] - cells[index].size() + 2, ' ');
        }
        std::cout << row.status << '\n';
    };
    line({"ID", "NAME", "VERSION", "SOURCE", "STATUS"});
    for (const auto& row : rows) {
        line(row);
    }
}

std::string countOf(std::size_t count, const char* word) {
    return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

// --strict: warnings fail the command as errors would.
int strictOutcome(bool strict, std::size_t warnings) {
    if (strict && warnings > 0) {
        return fail(countOf(warnings, "warning") + ", and --strict counts them as errors.");
    }
    return exitStatus::success;
}

// The loader's warnings and those of the schedule triggers, which only the scheduler reads.
LintedWorkflow withScheduleWarnings(LintedWorkflow linted) {
    auto schedules = scheduleWarnings(linted.document.flow);
    linted.warnings.insert(linted.warnings.begin(), schedules.begin(), schedules.end());
    return linted;
}

} // namespace

// Lists what is in force, in registry order. A broken workflow shows its error in its
// row instead of breaking the list; what would fail at run time follows the table.
int flowsCommand(const ParsedArguments& arguments) {
    const auto loader = installedLoader();
    const auto references = loader.locator().availableWorkflowReferences();
    if (arguments.has("--ids")) {
        for (const auto& reference : references) {
            std::cout << reference.flowID << '\n';
        }
        return exitStatus::success;
    }
    std::vector<FlowRow> rows;
    std::vector<std::pair<std::string, WorkflowWarning>> warnings;
    std::size_t broken = 0;
    for (const auto& reference : references) {
        FlowRow row{reference.flowID, "", reference.version,
                    std::string(rawValue(reference.source)), "ok"};
        try {
            auto linted = withScheduleWarnings(loader.lintWorkflowBundle(reference));
            row.name = linted.document.flow.name;
            if (!linted.warnings.empty()) {
                row.status = "ok, " + countOf(linted.warnings.size(), "warning");
            }
            for (const auto& warning : linted.warnings) {
                warnings.emplace_back(reference.flowID, warning);
            }
        } catch (const std::exception& error) {
            row.status = std::string("error: ") + error.what();
            ++broken;
        }
        rows.push_back(std::move(row));
    }
    printTable(rows);
    if (!warnings.empty()) {
        std::cout << "\nWarnings:\n";
        for (const auto& [flowID, warning] : warnings) {
            std::cout << "  " << flowID << ": " << warning.message << '\n';
        }
    }
    if (arguments.has("--strict") && broken > 0) {
        return fail(countOf(broken, "workflow") + " can't be loaded.");
    }
    return strictOutcome(arguments.has("--strict"), warnings.size());
}

// Loads and checks one bundle the way a run would, printing "ok" with each step's block,
// then what would still fail at run time. A document that can't load is an error.
int validateCommand(const ParsedArguments& arguments) {
    std::filesystem::path folder = arguments.operands[0];
    std::error_code error;
    if (folder.filename() == "flow.yaml") {
        folder = folder.parent_path().empty() ? "." : folder.parent_path();
    } else if (std::filesystem::is_regular_file(folder, error)) {
        throw UsageError("validate takes a bundle folder or its flow.yaml, not '" +
                             folder.string() + "'",
                         "validate");
    }
    const auto linted = withScheduleWarnings(installedLoader().lintWorkflow(folder));
    std::cout << "ok\n";
    for (const auto& resolution : linted.blockResolutions) {
        std::cout << resolution.stepID << ' ' << resolution.reference.text() << ' '
                  << rawValue(resolution.source) << '\n';
    }
    for (const auto& warning : linted.warnings) {
        std::cout << "warning: " << warning.message << '\n';
    }
    return strictOutcome(arguments.has("--strict"), linted.warnings.size());
}

} // namespace quorlin::cli

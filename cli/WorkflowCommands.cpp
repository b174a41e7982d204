#include "cli/Commands.h"
#include "core/definitions/WorkflowLoader.h"

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

} // namespace

// Lists what is in force, in registry order. A broken workflow shows its error in its
// row instead of breaking the list.
int flowsCommand(const Arguments& arguments) {
    if (!arguments.empty()) {
        return fail("usage: quorlin flows");
    }
    const auto loader = installedLoader();
    std::vector<FlowRow> rows;
    for (const auto& reference : loader.locator().availableWorkflowReferences()) {
        FlowRow row{reference.flowID, "", reference.version,
                    std::string(rawValue(reference.source)), "ok"};
        try {
            row.name = loader.loadWorkflowBundle(reference).flow.name;
        } catch (const std::exception& error) {
            row.status = std::string("error: ") + error.what();
        }
        rows.push_back(std::move(row));
    }
    printTable(rows);
    return 0;
}

// Loads and checks one bundle directory the way a run would, printing "ok" with each
// step's block or the exact error. The exit status tells which.
int validateCommand(const Arguments& arguments) {
    if (arguments.size() != 1) {
        return fail("usage: quorlin validate <bundle dir>");
    }
    const std::filesystem::path directory = arguments[0];
    const auto loader = installedLoader();
    try {
        const auto document = loader.loadWorkflow(directory / "flow.yaml");
        const auto resolutions = loader.validateWorkflowBlocks(document, directory);
        std::cout << "ok\n";
        for (const auto& resolution : resolutions) {
            std::cout << resolution.stepID << ' ' << resolution.reference.text() << ' '
                      << rawValue(resolution.source) << '\n';
        }
        return 0;
    } catch (const std::exception& error) {
        std::cout << "error: " << error.what() << '\n';
        return 1;
    }
}

} // namespace quorlin::cli

#include "cli/Commands.h"
#include "cli/InterruptWatcher.h"
#include "cli/ProgressPrinter.h"
#include "cli/RunReport.h"
#include "cli/ScriptLog.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/ClientProfileStore.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/GenericScriptWorkflowService.h"
#include "core/execution/RunContext.h"
#include "core/execution/RunCoordinator.h"
#include "core/foundation/EventLoop.h"
#include "core/foundation/Text.h"
#include "core/stores/AppSettingsStore.h"
#include "core/stores/AuditLogStore.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <unistd.h>

namespace quorlin::cli {

namespace {

enum class ApprovalAnswer { ask, all, none };

struct RunOptions {
    std::string target; // a flow id or a bundle folder
    ApprovalAnswer approve = ApprovalAnswer::ask;
    RunChoices choices;
    bool json = false;
    bool quiet = false;
    bool verbose = false;
};

// A leading "~" the shell left alone (it was quoted, or after "=") means the home folder.
std::filesystem::path expandedHome(const std::string& path) {
    const char* home = std::getenv("HOME");
    if (home != nullptr && (path == "~" || startsWith(path, "~/"))) {
        return std::string(home) + path.substr(1);
    }
    return path;
}

RunOptions runOptions(const ParsedArguments& arguments) {
    RunOptions options;
    options.target = arguments.operands[0];
    if (const auto file = arguments.value("--input-file")) {
        options.choices.inputFile = expandedHome(*file);
    }
    for (const auto& pair : arguments.all("--folder")) {
        const auto equals = pair.find('=');
        if (equals == std::string::npos || equals == 0 || equals + 1 == pair.size()) {
            throw UsageError("--folder takes <key>=<path>, not '" + pair + "'", "run");
        }
        options.choices.folders.emplace_back(pair.substr(0, equals),
                                             expandedHome(pair.substr(equals + 1)));
    }
    if (const auto answer = arguments.value("--approve")) {
        options.approve = *answer == "all" ? ApprovalAnswer::all : ApprovalAnswer::none;
    }
    options.json = arguments.has("--json");
    options.quiet = arguments.has("--quiet");
    options.verbose = arguments.has("--verbose");
    if (options.quiet && options.verbose) {
        throw UsageError("--quiet and --verbose can't be combined", "run");
    }
    return options;
}

// A word that names a folder, rather than a flow id.
bool looksLikePath(const std::string& target) {
    return target.find('/') != std::string::npos || target == "." || target == ".." ||
           endsWith(target, ".yaml");
}

std::vector<std::string> availableIDs(const WorkflowLoader& loader) {
    std::vector<std::string> ids;
    for (const auto& reference : loader.locator().availableWorkflowReferences()) {
        ids.push_back(reference.flowID);
    }
    return ids;
}

// The workflow a run's target names, loaded; an id that names no workflow is a usage
// error. None when it can't be loaded.
std::optional<LoadedWorkflow> resolveTarget(const WorkflowLoader& loader, RunOptions& options) {
    std::filesystem::path folder = expandedHome(options.target);
    if (folder.filename() == "flow.yaml") {
        folder = folder.parent_path().empty() ? "." : folder.parent_path();
    }
    std::error_code ignored;
    if (looksLikePath(options.target) || std::filesystem::is_directory(folder, ignored)) {
        const auto bundle = WorkflowBundleLocator::bundleInFolder(folder);
        if (!bundle) {
            throw UsageError("no flow.yaml in " + folder.string(), "run");
        }
        auto workflow = loader.loadRunnableWorkflow(*bundle);
        options.target = workflow.flow().id;
        return workflow;
    }
    // Loaded here once and handed to the run, so that a typo is a usage error rather
    // than a failed run in the history.
    try {
        return loader.loadRunnableWorkflow(options.target);
    } catch (const WorkflowLoaderError& notLoaded) {
        if (notLoaded.kind() == WorkflowLoaderError::Kind::workflowNotFound) {
            throw UsageError(unknownWordMessage("flow", options.target, availableIDs(loader)) +
                                 " ('quorlin flows' lists them)",
                             "run");
        }
    } catch (const std::exception&) {
        // A flow that is there but doesn't load fails as a run, recorded with its reason.
    }
    return std::nullopt;
}

// The proposals at the gate, one line each, on stderr: they are a question, not a result.
void printProposals(const std::vector<ApprovalProposal>& proposals) {
    std::fprintf(stderr, "\n%zu proposal(s) to review:\n", proposals.size());
    for (const auto& item : proposals) {
        std::fprintf(stderr, "  %3lld  %s | %s\n       %s  ->  %s\n",
                     static_cast<long long>(item.index), item.sender.c_str(), item.subject.c_str(),
                     item.originalName.c_str(), item.proposedName.c_str());
    }
}

// Asks on the terminal whether to file the proposals; end of input counts as no.
bool askToFile(std::size_t count) {
    while (true) {
        std::fprintf(stderr, "File these %zu file(s)? [y]es / [n]o, reject all: ", count);
        std::fflush(stderr);
        std::string answer;
        if (!std::getline(std::cin, answer)) {
            std::fputs("\n", stderr);
            return false;
        }
        answer = lowercased(trimmed(answer));
        if (answer == "y" || answer == "yes") {
            return true;
        }
        if (answer == "n" || answer == "no") {
            return false;
        }
    }
}

// Drives one run through the coordinator on this thread's event loop, the way the desktop
// app does: shows the steps, answers the gate, and ends with the report.
class TerminalRun {
public:
    TerminalRun(RunCoordinator& coordinator, EventLoop& loop, RunContext context,
                const RunOptions& options)
        : coordinator_(coordinator), loop_(loop), context_(std::move(context)), options_(options),
          printer_(stderr, !options.verbose) {
        report_.flowID = options.target;
    }

    // workflow: the flow when the caller has loaded it already.
    RunReport run(std::optional<LoadedWorkflow> workflow) {
        auto handler = [this](const RunEvent& event) { handle(event); };
        if (workflow) {
            coordinator_.start(std::move(*workflow), context_, handler);
        } else {
            coordinator_.start(options_.target, context_, handler);
        }
        loop_.run();
        printer_.finishLine();
        return report_;
    }

    void cancel() { coordinator_.cancel(options_.target); }

private:
    void handle(const RunEvent& event) {
        switch (event.kind) {
        case RunEvent::Kind::cancelled:
            if (report_.outcome != RunReport::Outcome::awaitingApproval) {
                report_.outcome = RunReport::Outcome::cancelled;
            }
            loop_.quit();
            return;
        case RunEvent::Kind::auditRunRecorded:
            report_.record = event.auditRun;
            return;
        case RunEvent::Kind::waitingAtGate:
            coordinator_.advance(options_.target, context_); // opens the proposals
            return;
        case RunEvent::Kind::sessionUpdated:
        case RunEvent::Kind::failed:
            break;
        }
        const auto& session = *event.session;
        report_.session = session;
        if (!options_.quiet) {
            printer_.show(session);
        }
        switch (session.stage) {
        case RunStage::complete:
            report_.outcome = report_.record && report_.record->status == "Rejected"
                                  ? RunReport::Outcome::rejected
                                  : RunReport::Outcome::succeeded;
            loop_.quit();
            break;
        case RunStage::failed:
            report_.outcome = RunReport::Outcome::failed;
            report_.error = session.failureMessage.value_or("The run failed.");
            loop_.quit();
            break;
        case RunStage::approval:
            answerGate(session.approvalItems.size());
            break;
        case RunStage::running:
        case RunStage::filing:
            break;
        }
    }

    void answerGate(std::size_t count) {
        printer_.finishLine();
        printProposals(report_.session->approvalItems);
        bool file = options_.approve == ApprovalAnswer::all;
        if (options_.approve == ApprovalAnswer::ask) {
            if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
                report_.outcome = RunReport::Outcome::awaitingApproval;
                report_.proposalsWaiting = count;
                cancel();
                return;
            }
            file = askToFile(count);
        }
        if (file) {
            coordinator_.advance(options_.target, context_);
        } else {
            coordinator_.rejectAllApprovalItems(options_.target, context_);
        }
    }

    RunCoordinator& coordinator_;
    EventLoop& loop_;
    RunContext context_;
    const RunOptions& options_;
    ProgressPrinter printer_;
    RunReport report_;
};

int exitStatusOf(const RunReport& report) {
    switch (report.outcome) {
    case RunReport::Outcome::succeeded:
    case RunReport::Outcome::rejected:
        return exitStatus::success;
    case RunReport::Outcome::failed:
        return exitStatus::failure;
    case RunReport::Outcome::awaitingApproval:
        return exitStatus::awaitingAnswer;
    case RunReport::Outcome::cancelled:
        return exitStatus::interrupted;
    }
    return exitStatus::failure;
}

// Problems go to stderr in every mode; the result to stdout, as text or as one JSON
// object.
int present(const RunReport& report, const RunOptions& options) {
    if (report.outcome == RunReport::Outcome::failed) {
        const auto step = report.failedStepTitle
                              ? "Step '" + *report.failedStepTitle + "' (" +
                                    report.failedStepID.value_or("") + ") failed: "
                              : std::string();
        fail(step + report.error.value_or("The run failed."));
    } else if (report.outcome == RunReport::Outcome::awaitingApproval) {
        fail("the run stopped at its approval gate with " +
             std::to_string(report.proposalsWaiting) +
             " proposal(s) and there is no terminal to ask on; run it again with --approve all "
             "to file them or --approve none to reject them.");
    } else if (report.outcome == RunReport::Outcome::cancelled) {
        std::cerr << "Run cancelled.\n";
    }
    if (options.json) {
        std::cout << prettySortedJson(reportJson(report)) << '\n';
    } else if (report.outcome == RunReport::Outcome::succeeded ||
               report.outcome == RunReport::Outcome::rejected) {
        std::cout << reportText(report, isatty(STDOUT_FILENO) != 0);
    }
    return exitStatusOf(report);
}

} // namespace

int runCommand(const ParsedArguments& arguments) {
    auto options = runOptions(arguments);
    const auto paths = AppSupportPaths::fromEnvironment();
    const auto& resources = QuorlinResources::installed();
    const WorkflowBundleLocator locator(resources, paths);
    const WorkflowLoader loader(locator);
    auto workflow = resolveTarget(loader, options);

    RunContext context;
    if (!workflow && (options.choices.inputFile || !options.choices.folders.empty())) {
        workflow = loader.loadRunnableWorkflow(options.target); // says why it can't load
    }
    if (workflow) {
        try {
            context.environmentOverrides = choiceOverrides(workflow->flow(), options.choices);
        } catch (const RunChoiceError& error) {
            throw UsageError(error.what(), "run");
        }
    }
    auto auditStore = std::make_shared<AuditLogStore>(paths);
    auditStore->checkWritable();
    context.appSettings = AppSettingsStore(paths).load();
    context.clientProfile = ClientProfileStore(paths).loadOrCreateDefault(resources);
    context.totalMinutesSaved = auditStore->totals().minutesSaved;
    ScriptLog scriptLog(options.verbose);
    context.scriptErrorOutput = [&scriptLog](const std::string& stepID, std::string_view text) {
        scriptLog.write(stepID, text);
    };

    EventLoop loop;
    auto service = std::make_shared<GenericScriptWorkflowService>(
        loader, std::make_shared<DefaultScriptRunner>(locator), paths, loop);
    RunCoordinator coordinator(service, auditStore, loader, loop);
    TerminalRun terminalRun(coordinator, loop, std::move(context), options);
    RunReport report;
    {
        InterruptWatcher interrupts([&] { loop.post([&] { terminalRun.cancel(); }); });
        report = terminalRun.run(std::move(workflow));
    }
    if (report.outcome == RunReport::Outcome::failed) {
        findFailedStep(report);
    }
    scriptLog.finish(!options.quiet && report.outcome == RunReport::Outcome::succeeded);
    return present(report, options);
}

} // namespace quorlin::cli

#include "cli/Commands.h"
#include "cli/ProgressPrinter.h"
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
#include "core/stores/AuditLogStore.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

namespace quorlin::cli {

namespace {

// Turns Ctrl-C (and SIGTERM) into a cancel of the run. The signals are blocked in every
// thread and read from a signalfd, so no handler runs in signal context; an eventfd wakes
// the watcher at once when the run is over, so leaving waits for nothing.
class InterruptWatcher {
public:
    explicit InterruptWatcher(std::function<void()> onInterrupt) {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        signalFd_ = ::signalfd(-1, &signals_, SFD_CLOEXEC);
        wakeFd_ = ::eventfd(0, EFD_CLOEXEC);
        if (signalFd_ < 0 || wakeFd_ < 0) {
            // Without them the signals keep their default action: they end the process.
            closeAll();
            return;
        }
        thread_ = std::jthread([this, onInterrupt = std::move(onInterrupt)] {
            std::array<pollfd, 2> watched{{{signalFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}}};
            while (::poll(watched.data(), watched.size(), -1) >= 0 || errno == EINTR) {
                if (watched[1].revents != 0) {
                    return;
                }
                signalfd_siginfo taken{};
                if (watched[0].revents != 0 &&
                    ::read(signalFd_, &taken, sizeof taken) == sizeof taken) {
                    onInterrupt();
                }
            }
        });
    }
    ~InterruptWatcher() {
        if (thread_.joinable()) {
            const std::uint64_t one = 1;
            [[maybe_unused]] const auto ignored = ::write(wakeFd_, &one, sizeof one);
            thread_.join();
        }
        closeAll();
    }
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

private:
    void closeAll() {
        for (int* descriptor : {&signalFd_, &wakeFd_}) {
            if (*descriptor >= 0) {
                ::close(*descriptor);
                *descriptor = -1;
            }
        }
        pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
    }

    sigset_t signals_{};
    int signalFd_ = -1;
    int wakeFd_ = -1;
    std::jthread thread_;
};

enum class ApprovalAnswer { ask, all, none };

struct RunOptions {
    std::string flowID;
    ApprovalAnswer approve = ApprovalAnswer::ask;
    RunChoices choices;
};

constexpr const char* runUsage = "usage: quorlin run <flow-id> [--input-file <path>] "
                                 "[--folder <setting-key>=<path>]... [--approve all|none]";

std::optional<RunOptions> parseRunOptions(const Arguments& arguments) {
    RunOptions options;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const auto& word = arguments[index];
        const bool hasValue = index + 1 < arguments.size();
        if (word == "--input-file" && hasValue) {
            options.choices.inputFile = arguments[++index];
        } else if (word == "--folder" && hasValue) {
            const auto& pair = arguments[++index];
            const auto equals = pair.find('=');
            if (equals == std::string::npos || equals == 0) {
                return std::nullopt;
            }
            options.choices.folders.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
        } else if (word == "--approve" && hasValue &&
                   (arguments[index + 1] == "all" || arguments[index + 1] == "none")) {
            options.approve =
                arguments[++index] == "all" ? ApprovalAnswer::all : ApprovalAnswer::none;
        } else if (!startsWith(word, "-") && options.flowID.empty()) {
            options.flowID = word;
        } else {
            return std::nullopt;
        }
    }
    return options.flowID.empty() ? std::nullopt : std::optional(options);
}

// The proposals at the gate, one line each.
void printProposals(const std::vector<ApprovalProposal>& proposals) {
    std::printf("\n%zu proposal(s) to review:\n", proposals.size());
    for (const auto& item : proposals) {
        std::printf("  %3lld  %s | %s\n       %s  ->  %s\n", static_cast<long long>(item.index),
                    item.sender.c_str(), item.subject.c_str(), item.originalName.c_str(),
                    item.proposedName.c_str());
    }
}

// Asks on the terminal whether to file the proposals; end of input counts as no.
bool askToFile(std::size_t count) {
    while (true) {
        std::printf("File these %zu file(s)? [y]es / [n]o, reject all: ", count);
        std::fflush(stdout);
        std::string answer;
        if (!std::getline(std::cin, answer)) {
            std::printf("\n");
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
// app does: shows the steps, answers the gate, and ends with the finished session.
class TerminalRun {
public:
    TerminalRun(RunCoordinator& coordinator, EventLoop& loop, RunContext context,
                const RunOptions& options)
        : coordinator_(coordinator), loop_(loop), context_(std::move(context)), options_(options),
          printer_(stdout) {}

    // workflow: the flow when the caller has loaded it already.
    int run(std::optional<LoadedWorkflow> workflow) {
        auto handler = [this](const RunEvent& event) { handle(event); };
        if (workflow) {
            coordinator_.start(std::move(*workflow), context_, handler);
        } else {
            coordinator_.start(options_.flowID, context_, handler);
        }
        loop_.run();
        printer_.finishLine();
        return outcome();
    }

    void cancel() { coordinator_.cancel(options_.flowID); }

private:
    void handle(const RunEvent& event) {
        if (event.kind == RunEvent::Kind::cancelled) {
            cancelled_ = true;
            loop_.quit();
            return;
        }
        if (event.kind == RunEvent::Kind::auditRunRecorded) {
            recordedRunID_ = event.auditRun->id.uppercaseString();
            return;
        }
        if (event.kind == RunEvent::Kind::waitingAtGate) {
            coordinator_.advance(options_.flowID, context_); // opens the proposals
            return;
        }
        session_ = *event.session;
        printer_.show(*session_);
        switch (session_->stage) {
        case RunStage::complete:
        case RunStage::failed:
            loop_.quit();
            break;
        case RunStage::approval:
            answerGate();
            break;
        case RunStage::running:
        case RunStage::filing:
            break;
        }
    }

    void answerGate() {
        printer_.finishLine();
        printProposals(session_->approvalItems);
        bool file = options_.approve == ApprovalAnswer::all;
        if (options_.approve == ApprovalAnswer::ask) {
            if (!printer_.isTerminal() || isatty(STDIN_FILENO) == 0) {
                std::cerr
                    << "quorlin: the run is waiting for approval; answer with --approve all or "
                       "--approve none.\n";
                unanswered_ = true;
                cancel();
                return;
            }
            file = askToFile(session_->approvalItems.size());
        }
        if (file) {
            coordinator_.advance(options_.flowID, context_);
        } else {
            coordinator_.rejectAllApprovalItems(options_.flowID, context_);
        }
    }

    int outcome() const {
        if (unanswered_) {
            return 1;
        }
        if (cancelled_ || !session_) {
            std::cerr << "Run cancelled.\n";
            return 130;
        }
        if (session_->stage == RunStage::failed) {
            return fail(session_->failureMessage.value_or("The run failed."));
        }
        std::cout << session_->resultOutput << '\n';
        if (session_->outputFolder) {
            std::cout << "Output folder: " << *session_->outputFolder << '\n';
        }
        if (!recordedRunID_.empty()) {
            std::cout << "Recorded as run " << recordedRunID_.substr(0, 8)
                      << " (quorlin history show " << recordedRunID_.substr(0, 8) << ").\n";
        }
        return 0;
    }

    RunCoordinator& coordinator_;
    EventLoop& loop_;
    RunContext context_;
    const RunOptions& options_;
    ProgressPrinter printer_;
    std::optional<FlowRunSession> session_;
    std::string recordedRunID_;
    bool cancelled_ = false;
    bool unanswered_ = false;
};

} // namespace

int runCommand(const Arguments& arguments) {
    const auto options = parseRunOptions(arguments);
    if (!options) {
        return fail(runUsage);
    }
    const auto paths = AppSupportPaths::fromEnvironment();
    const auto& resources = QuorlinResources::installed();
    const WorkflowBundleLocator locator(resources, paths);
    const WorkflowLoader loader(locator);
    auto auditStore = std::make_shared<AuditLogStore>(paths);
    auditStore->checkWritable();

    RunContext context;
    context.clientProfile = ClientProfileStore(paths).loadOrCreateDefault(resources);
    context.totalMinutesSaved = auditStore->totals().minutesSaved;
    std::optional<LoadedWorkflow> workflow;
    if (options->choices.inputFile || !options->choices.folders.empty()) {
        workflow = loader.loadRunnableWorkflow(options->flowID);
        context.environmentOverrides = choiceOverrides(workflow->flow(), options->choices);
    }

    EventLoop loop;
    auto service = std::make_shared<GenericScriptWorkflowService>(
        loader, std::make_shared<DefaultScriptRunner>(locator), paths, loop);
    RunCoordinator coordinator(service, auditStore, loader, loop);
    TerminalRun run(coordinator, loop, std::move(context), *options);
    InterruptWatcher interrupts([&] { loop.post([&] { run.cancel(); }); });
    return run.run(std::move(workflow));
}

} // namespace quorlin::cli

#include "cli/SchedulerCommand.h"

#include "cli/InterruptWatcher.h"
#include "cli/RunReport.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/ClientProfileStore.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/GenericScriptWorkflowService.h"
#include "core/execution/RunContext.h"
#include "core/execution/RunCoordinator.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/ChildProcess.h"
#include "core/foundation/EventLoop.h"
#include "core/foundation/FileError.h"
#include "core/foundation/FileLock.h"
#include "core/foundation/Text.h"
#include "core/state/SchedulePresentation.h"
#include "core/state/Scheduler.h"
#include "core/stores/AppSettingsStore.h"
#include "core/stores/AuditLogStore.h"
#include "core/stores/FlowLibraryPreferencesStore.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <set>
#include <unistd.h>

namespace quorlin::cli {

namespace {

using namespace std::chrono_literals;

// Every minute is seen at least once, most twice; the scheduler's minute keys make the
// second sighting harmless.
constexpr auto roundInterval = 30s;

void log(const std::string& line) {
    std::cerr << formatLocalMinute(std::chrono::system_clock::now()) << "  " << line << std::endl;
}

// Fires schedules on this thread's event loop through the same run coordinator as
// `quorlin run`, reading the flows and the library preferences afresh each round, so an
// edit made meanwhile (quorlin schedule, the desktop app) applies at the next round.
class HeadlessScheduler {
public:
    HeadlessScheduler(EventLoop& loop, AppSupportPaths paths)
        : loop_(loop), paths_(std::move(paths)), locator_(QuorlinResources::installed(), paths_),
          loader_(locator_), auditStore_(std::make_shared<AuditLogStore>(paths_)),
          service_(std::make_shared<GenericScriptWorkflowService>(
              loader_, std::make_shared<DefaultScriptRunner>(locator_), paths_, loop_)),
          coordinator_(service_, auditStore_, loader_, loop_) {}

    void start() {
        loop_.post([this] { round(); });
    }

    // A clean stop: no new firing, every run going is cancelled, and the loop ends once
    // none is left.
    void stop() {
        if (stopping_) {
            return;
        }
        stopping_ = true;
        for (const auto& flowID : live_) {
            cancelled_.push_back(flowID);
            coordinator_.cancel(flowID);
        }
        awaitQuiet();
    }

    const std::vector<std::string>& cancelledRuns() const { return cancelled_; }

private:
    void round() {
        if (stopping_) {
            return;
        }
        const auto now = std::chrono::system_clock::now();
        const auto flows = scheduledFlows(now);
        const auto isActive = [this](const std::string& flowID) { return isActiveRun(flowID); };
        for (const auto& flowID : scheduler_.dueFlows(flows, isActive, now)) {
            fire(flowID);
        }
        loop_.postAfter(roundInterval, [this] { round(); });
    }

    std::vector<ScheduledFlow> scheduledFlows(SystemTime now) {
        FlowLibraryPreferencesDocument preferences;
        try {
            preferences = FlowLibraryPreferencesStore(paths_).loadIfPresent().value_or(
                FlowLibraryPreferencesDocument{});
        } catch (const std::exception& error) {
            note(error.what());
        }
        std::vector<ScheduledFlow> flows;
        for (const auto& reference : locator_.availableWorkflowReferences()) {
            try {
                const auto flow = loader_.loadWorkflowBundle(reference).flow;
                const auto found = preferences.schedulePreferences.find(reference.flowID);
                const auto preference = found == preferences.schedulePreferences.end()
                                            ? std::nullopt
                                            : std::optional(found->second);
                const auto schedule = schedulePresentation(flow, preference, std::nullopt, now);
                flows.push_back({reference.flowID, schedule.isEnabled, isRunnable(flow),
                                 schedule.cronExpression, schedule.inheritedCronExpression});
            } catch (const std::exception& error) {
                note(reference.flowID + " can't be read: " + error.what());
            }
        }
        return flows;
    }

    bool isRunnable(const FlowDefinition& flow) const {
        const auto& supported = service_->supportedStepTypes();
        return std::all_of(flow.steps.begin(), flow.steps.end(),
                           [&](const FlowStep& step) { return supported.contains(step.type); });
    }

    bool isActiveRun(const std::string& flowID) const {
        if (coordinator_.isRunning(flowID)) {
            return true;
        }
        const auto session = coordinator_.session(flowID);
        return session &&
               (session->stage == RunStage::running || session->stage == RunStage::approval ||
                session->stage == RunStage::filing);
    }

    void fire(const std::string& flowID) {
        RunContext context;
        try {
            context.appSettings = AppSettingsStore(paths_).load();
            context.clientProfile =
                ClientProfileStore(paths_).loadOrCreateDefault(QuorlinResources::installed());
            context.totalMinutesSaved = auditStore_->totals().minutesSaved;
        } catch (const std::exception& error) {
            log(flowID + " not started: " + error.what());
            return;
        }
        context.trigger = "Schedule";
        log("started " + flowID);
        live_.insert(flowID);
        coordinator_.start(flowID, context,
                           [this, flowID](const RunEvent& event) { handle(flowID, event); });
    }

    void handle(const std::string& flowID, const RunEvent& event) {
        switch (event.kind) {
        case RunEvent::Kind::auditRunRecorded: {
            const auto& run = *event.auditRun;
            const auto summary = oneLineSummary(run.outputSummary);
            log(flowID + " " + lowercased(run.status) + (summary.empty() ? "" : ": " + summary) +
                " (run " + run.id.uppercaseString().substr(0, 8) + ")");
            live_.erase(flowID);
            return;
        }
        case RunEvent::Kind::waitingAtGate:
            // Nobody is here to review proposals; the run is stopped rather than left
            // waiting where no one will see it.
            log(flowID +
                " reached its approval gate, which needs a person: run it with "
                "'quorlin run " +
                flowID + "' or from the desktop app");
            coordinator_.cancel(flowID);
            return;
        case RunEvent::Kind::cancelled:
            live_.erase(flowID);
            return;
        case RunEvent::Kind::failed:
        case RunEvent::Kind::sessionUpdated:
            if (event.session && event.session->stage == RunStage::failed) {
                log(flowID +
                    " failed: " + event.session->failureMessage.value_or("the run failed"));
                live_.erase(flowID);
            }
            return;
        }
    }

    void awaitQuiet() {
        const bool busy = std::any_of(live_.begin(), live_.end(), [this](const std::string& id) {
            return coordinator_.isRunning(id);
        });
        if (busy) {
            loop_.postAfter(100ms, [this] { awaitQuiet(); });
        } else {
            loop_.quit();
        }
    }

    // Problems that would repeat every round are said once.
    void note(const std::string& problem) {
        if (noted_.insert(problem).second) {
            log(problem);
        }
    }

    EventLoop& loop_;
    AppSupportPaths paths_;
    WorkflowBundleLocator locator_;
    WorkflowLoader loader_;
    std::shared_ptr<AuditLogStore> auditStore_;
    std::shared_ptr<GenericScriptWorkflowService> service_;
    RunCoordinator coordinator_;
    Scheduler scheduler_;
    std::set<std::string> live_;
    std::vector<std::string> cancelled_;
    std::set<std::string> noted_;
    bool stopping_ = false;
};

// Held for the scheduler's life: two schedulers on one data root would fire every flow
// twice. The holder's process id is kept beside the lock to name it.
FileLock takeSchedulerLock(const AppSupportPaths& paths) {
    createDirectories(paths.root());
    const auto pidFile = paths.root() / "scheduler.pid";
    auto lock = FileLock::tryAcquire(paths.root() / "scheduler.lock");
    if (!lock) {
        std::string holder;
        try {
            holder = trimmed(readFile(pidFile, 64));
        } catch (const std::exception&) {
            holder = "unknown";
        }
        throw Error("another scheduler already runs on " + paths.root().string() + " (process " +
                    holder + "); stop it first");
    }
    writeFileAtomically(pidFile, std::to_string(::getpid()) + "\n");
    return std::move(*lock);
}

constexpr const char* unitName = "quorlin-scheduler.service";

std::filesystem::path userUnitPath() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    std::filesystem::path base =
        config != nullptr && *config != '\0'
            ? std::filesystem::path(config)
            : std::filesystem::path(home != nullptr ? home : "") / ".config";
    return base / "systemd" / "user" / unitName;
}

// systemd reads a word with blanks only in quotes, and treats "%" and "\" itself.
std::string unitWord(const std::string& word) {
    std::string quoted = "\"";
    for (const char c : word) {
        quoted += c == '%'                ? "%%"
                  : c == '"' || c == '\\' ? std::string("\\") + c
                                          : std::string(1, c);
    }
    return quoted + "\"";
}

std::string unitText() {
    const auto& resources = QuorlinResources::installed();
    if (!resources.resourceDirectory || !resources.executableDirectory) {
        throw Error("the scheduler's unit file can't be found beside this quorlin");
    }
    std::string text = readFile(*resources.resourceDirectory / "systemd" / unitName);
    const auto program = *resources.executableDirectory / "quorlin";
    std::string environment;
    // A data root chosen by the environment is the one the service must use too.
    if (const char* root = std::getenv("QUORLIN_APP_SUPPORT_ROOT");
        root != nullptr && *root != '\0') {
        environment = "Environment=" +
                      unitWord("QUORLIN_APP_SUPPORT_ROOT=" +
                               AppSupportPaths::fromEnvironment().root().string()) +
                      "\n";
    }
    const auto replace = [&text](const std::string& key, const std::string& value) {
        text.replace(text.find(key), key.size(), value);
    };
    replace("@EXEC_START@", unitWord(program.string()) + " scheduler");
    replace("@ENVIRONMENT@\n", environment);
    return text;
}

// Runs systemctl --user with the words; its failure is the command's, in its own words.
void systemctl(const std::vector<std::string>& words) {
    ChildProcessRequest request;
    request.executable = "/usr/bin/env";
    request.arguments = {"systemctl", "--user"};
    request.arguments.insert(request.arguments.end(), words.begin(), words.end());
    request.environment = processEnvironment();
    request.timeout = std::chrono::seconds(60);
    const auto result = runChildProcess(request);
    if (result.exitCode != 0) {
        std::string command = "systemctl --user";
        for (const auto& word : words) {
            command += " " + word;
        }
        throw Error(
            command + " failed: " +
            trimmed(result.standardError.empty() ? result.standardOutput : result.standardError));
    }
}

int installUnit() {
    const auto unit = userUnitPath();
    createDirectories(unit.parent_path());
    writeFileAtomically(unit, unitText());
    std::cout << "Wrote " << unit.string() << '\n';
    systemctl({"daemon-reload"});
    systemctl({"enable", "--now", unitName});
    std::cout << "Enabled and started " << unitName
              << "; it starts with your session from now on (journalctl --user -u " << unitName
              << " shows its lines).\n";
    return exitStatus::success;
}

int uninstallUnit() {
    const auto unit = userUnitPath();
    std::error_code error;
    if (!std::filesystem::exists(unit, error)) {
        std::cout << "Nothing to remove: " << unit.string() << " isn't there.\n";
        return exitStatus::success;
    }
    systemctl({"disable", "--now", unitName});
    std::filesystem::remove(unit, error);
    if (error) {
        throw FileError(FileError::Kind::writeFailed, unit, error.message());
    }
    systemctl({"daemon-reload"});
    std::cout << "Stopped and disabled " << unitName << ", and removed " << unit.string() << '\n';
    return exitStatus::success;
}

} // namespace

int schedulerCommand(const ParsedArguments& arguments) {
    if (arguments.has("--install") && arguments.has("--uninstall")) {
        throw UsageError("give --install or --uninstall, not both", "scheduler");
    }
    if (arguments.has("--install")) {
        return installUnit();
    }
    if (arguments.has("--uninstall")) {
        return uninstallUnit();
    }
    const auto paths = AppSupportPaths::fromEnvironment();
    const auto lock = takeSchedulerLock(paths);
    EventLoop loop;
    HeadlessScheduler scheduler(loop, paths);
    log("scheduler started (process " + std::to_string(::getpid()) + ", data in " +
        paths.root().string() + ")");
    {
        const InterruptWatcher interrupts([&] { loop.post([&] { scheduler.stop(); }); });
        scheduler.start();
        loop.run();
    }
    std::string last = "scheduler stopped";
    for (std::size_t index = 0; index < scheduler.cancelledRuns().size(); ++index) {
        last += (index == 0 ? "; cancelled the run of " : ", ") + scheduler.cancelledRuns()[index];
    }
    log(last);
    return exitStatus::success;
}

} // namespace quorlin::cli

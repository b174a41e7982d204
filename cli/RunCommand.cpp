#include "cli/Commands.h"
#include "cli/ProgressPrinter.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/QuorlinResources.h"
#include "core/definitions/WorkflowLoader.h"
#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/GenericScriptWorkflowService.h"
#include "core/foundation/Cancellation.h"
#include "core/foundation/EventLoop.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <thread>

namespace quorlin::cli {

namespace {

// Turns Ctrl-C (and SIGTERM) into a stop request for the run. The signals are blocked in
// every thread and taken here with sigtimedwait, so no handler runs in signal context.
class InterruptWatcher {
public:
    explicit InterruptWatcher(std::stop_source stop) {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        thread_ = std::jthread([this, stop](std::stop_token done) mutable {
            const timespec tick{0, 100'000'000};
            while (!done.stop_requested()) {
                if (sigtimedwait(&signals_, nullptr, &tick) > 0) {
                    interrupted_ = true;
                    stop.request_stop();
                }
            }
        });
    }
    ~InterruptWatcher() {
        thread_.request_stop();
        thread_.join();
        pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
    }
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    bool interrupted() const { return interrupted_; }

private:
    sigset_t signals_{};
    std::atomic<bool> interrupted_{false};
    std::jthread thread_;
};

void printResult(const GenericScriptWorkflowRunResult& result) {
    std::cout << result.outputSummary << '\n';
    if (result.outputFolder) {
        std::cout << "Output folder: " << *result.outputFolder << '\n';
    }
    std::printf("Finished %s in %.1fs.\n", result.flowID.c_str(), result.durationSeconds);
}

} // namespace

int runCommand(const Arguments& arguments) {
    if (arguments.size() != 1) {
        return fail("usage: quorlin run <flow-id>");
    }
    const std::string flowID = arguments[0];
    const auto paths = AppSupportPaths::fromEnvironment();
    const auto& resources = QuorlinResources::installed();
    EventLoop loop;
    GenericScriptWorkflowService service(WorkflowLoader(resources),
                                         std::make_shared<DefaultScriptRunner>(resources, paths),
                                         paths, loop);

    std::stop_source stop;
    InterruptWatcher interrupts(stop);
    ProgressPrinter printer(stdout);
    WorkflowRunRequest request;
    request.progress = [&printer](const GenericScriptWorkflowProgress& progress) {
        printer.show(progress);
    };
    request.stopToken = stop.get_token();

    std::optional<GenericScriptWorkflowRunResult> result;
    std::exception_ptr failure;
    std::jthread worker([&] {
        try {
            result = service.run(flowID, request);
        } catch (...) {
            failure = std::current_exception();
        }
        loop.post([&loop] { loop.quit(); });
    });
    loop.run();
    worker.join();

    if (result) {
        printResult(*result);
        return 0;
    }
    printer.stepFailed();
    try {
        std::rethrow_exception(failure);
    } catch (const CancellationError&) {
        std::cerr << "Run cancelled.\n";
        return 130;
    } catch (const std::exception& error) {
        if (interrupts.interrupted()) {
            std::cerr << "Run cancelled: " << error.what() << '\n';
            return 130;
        }
        return fail(error.what());
    }
}

} // namespace quorlin::cli

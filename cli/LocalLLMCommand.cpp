#include "cli/LocalLLMCommand.h"

#include "cli/InterruptWatcher.h"
#include "cli/TransferProgress.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/HttpClient.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/Json.h"
#include "core/runtimes/LocalLLMInstaller.h"
#include "core/stores/AppSettingsStore.h"

#include <functional>
#include <iostream>
#include <stop_token>
#include <unistd.h>

namespace quorlin::cli {

namespace {

// How many times `start` asks the new server whether it answers, 250 ms apart.
constexpr int startReadinessAttempts = 20;

struct LocalLLMContext {
    AppSupportPaths paths = AppSupportPaths::fromEnvironment();
    AppSettings settings = AppSettingsStore(paths).load();
    std::shared_ptr<CurlHttpClient> client = std::make_shared<CurlHttpClient>();
    LocalLLMInstaller installer{paths, client, client};
};

std::string stageText(const LocalLLMProgress& step) {
    using Stage = LocalLLMProgress::Stage;
    switch (step.stage) {
    case Stage::downloading:
        return "Downloading Ollama";
    case Stage::verifying:
        return "Checking the download against its published checksum";
    case Stage::unpacking:
        return "Unpacking Ollama";
    case Stage::starting:
    case Stage::pulling:
        return step.status;
    }
    return step.status;
}

// The installer's steps as TransferProgress lines: a line per new stage or server status,
// and the bytes of the step under way.
class ProgressLines {
public:
    ProgressLines() : progress_(stderr, isatty(STDERR_FILENO) != 0) {}

    void operator()(const LocalLLMProgress& step) {
        const std::string text = stageText(step);
        if (step.stage == LocalLLMProgress::Stage::pulling && step.status == "success") {
            progress_.finish(); // the log on stdout says it
            return;
        }
        if (text != label_) {
            label_ = text;
            progress_.stage(text);
        }
        if (step.transfer.receivedBytes > 0) {
            progress_.download(step.transfer);
        }
    }
    void finish() { progress_.finish(); }

private:
    TransferProgress progress_;
    std::string label_;
};

// Runs an action that honours a stop token, with Ctrl-C as the stop. The log goes to
// stdout; an interrupted action says what it left, on stderr.
int runInterruptible(const std::function<std::string(const LocalLLMProgressCallback&,
                                                     const std::stop_token&)>& action,
                     const std::string& cancelled) {
    ProgressLines lines;
    std::stop_source stop;
    std::string log;
    try {
        const InterruptWatcher interrupts([&stop] { stop.request_stop(); });
        log = action(std::ref(lines), stop.get_token());
    } catch (const HttpError& error) {
        lines.finish();
        if (error.kind() != HttpError::Kind::cancelled) {
            throw;
        }
        std::cerr << cancelled << '\n';
        return exitStatus::interrupted;
    } catch (...) {
        lines.finish();
        throw;
    }
    lines.finish();
    std::cout << log << '\n';
    return exitStatus::success;
}

nlohmann::json stateJson(const LocalLLMState& state) {
    const auto orNull = [](const std::string& text) {
        return text.empty() ? nlohmann::json(nullptr) : nlohmann::json(text);
    };
    return {{"ollamaInstalled", state.ollamaInstalled},
            {"installPath", orNull(state.installPath)},
            {"cliAvailable", state.cliAvailable},
            {"cliPath", orNull(state.cliPath)},
            {"modelsDirectory", orNull(state.modelsDirectory)},
            {"serverURL", state.serverURL},
            {"serverRunning", state.serverRunning},
            {"serverStartedBy", state.serverProcessID          ? nlohmann::json("quorlin")
                                : state.serverStartedOutside() ? nlohmann::json("outside")
                                                               : nlohmann::json(nullptr)},
            {"serverProcessID",
             state.serverProcessID ? nlohmann::json(*state.serverProcessID) : nullptr},
            {"defaultModel", state.defaultModel},
            {"defaultModelInstalled", state.defaultModelInstalled},
            {"route", localLLMRoute(state.defaultModel)}};
}

std::string modelOperand(const ParsedArguments& arguments) {
    const std::string& word = arguments.operands.at(0);
    // Ollama's names ("qwen2.5:7b", "hf.co/owner/model:tag") never hold blanks.
    if (word.empty() || word.find_first_of(" \t\r\n") != std::string::npos) {
        throw UsageError("invalid model name '" + word + "': a model name such as " +
                             std::string(defaultLocalLLMModel) + " holds no blanks",
                         "local-llm pull");
    }
    return word;
}

} // namespace

std::string localLLMModelCompletion() {
    std::string ids;
    for (const auto& option : localLLMModelOptions()) {
        ids += (ids.empty() ? "" : " ") + option.id;
    }
    return ids;
}

int localLLMStatusCommand(const ParsedArguments& arguments) {
    const LocalLLMContext context;
    const auto state =
        context.installer.status(context.settings.ollamaURL, context.settings.localLLMModel);
    if (arguments.has("--json")) {
        std::cout << prettySortedJson(stateJson(state)) << '\n';
    } else {
        std::cout << state.lastActionLog << '\n';
    }
    return exitStatus::success;
}

int localLLMSetupCommand(const ParsedArguments&) {
    const LocalLLMContext context;
    return runInterruptible(
        [&](const LocalLLMProgressCallback& progress, const std::stop_token& stop) {
            return context.installer.setupForWorkflow(
                context.settings.ollamaURL, context.settings.localLLMModel, progress, stop);
        },
        "Setup cancelled; nothing was half installed. quorlin local-llm status shows what runs.");
}

int localLLMStartCommand(const ParsedArguments&) {
    const LocalLLMContext context;
    return runInterruptible(
        [&](const LocalLLMProgressCallback&, const std::stop_token& stop) {
            return context.installer.startOllama(context.settings.ollamaURL, startReadinessAttempts,
                                                 stop);
        },
        "Start cancelled; the server it launched was stopped.");
}

int localLLMStopCommand(const ParsedArguments&) {
    const LocalLLMContext context;
    std::cout << context.installer.stopOllama(context.settings.ollamaURL) << '\n';
    return exitStatus::success;
}

int localLLMPullCommand(const ParsedArguments& arguments) {
    const std::string model = modelOperand(arguments);
    const LocalLLMContext context;
    return runInterruptible(
        [&](const LocalLLMProgressCallback& progress, const std::stop_token& stop) {
            return context.installer.pullModel(context.settings.ollamaURL, model, progress, stop);
        },
        "Pull cancelled; " + model + " was not installed.");
}

} // namespace quorlin::cli

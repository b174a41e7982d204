#include "core/runtimes/LocalLLMInstaller.h"

#include "core/foundation/FileLock.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/Text.h"
#include "core/runtimes/LocalLLMAddress.h"
#include "core/runtimes/LocalLLMInstallerError.h"
#include "core/runtimes/LocalLLMPullReader.h"
#include "core/runtimes/LocalLLMServerProcess.h"
#include "core/services/OllamaClient.h"

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace quorlin {

namespace {

using namespace std::chrono_literals;

constexpr int setupReadinessAttempts = 20;
// A pull streams a line at least every few seconds while it works; this long without a
// byte means the server is stuck.
constexpr auto pullStallLimit = 5min;
constexpr std::size_t logTailBytes = 4096;
constexpr std::size_t logTailLines = 5;

bool isExecutableFile(const std::filesystem::path& file) {
    std::error_code error;
    return std::filesystem::is_regular_file(file, error) && ::access(file.c_str(), X_OK) == 0;
}

// The server's last words, for a start that failed.
std::string logTail(const std::filesystem::path& log) {
    std::ifstream file(log, std::ios::binary | std::ios::ate);
    if (!file) {
        return {};
    }
    const auto size = static_cast<std::size_t>(file.tellg());
    const std::size_t start = size > logTailBytes ? size - logTailBytes : 0;
    file.seekg(static_cast<std::streamoff>(start));
    std::string text(size - start, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    std::vector<std::string> lines;
    std::istringstream reader(text);
    for (std::string line; std::getline(reader, line);) {
        if (!trimmed(line).empty()) {
            lines.push_back(escapedControlBytes(line));
        }
    }
    std::string tail;
    for (std::size_t index = lines.size() > logTailLines ? lines.size() - logTailLines : 0;
         index < lines.size(); ++index) {
        tail += "\n" + lines[index];
    }
    return tail;
}

bool sameModel(const std::string& listed, const std::string& wanted) {
    // Ollama lists a model pulled without a tag under its "latest" tag.
    return listed == wanted ||
           (wanted.find(':') == std::string::npos && listed == wanted + ":latest");
}

// Sleeps for the duration; false when a stop came first.
bool sleepUnlessStopped(std::chrono::milliseconds duration, const std::stop_token& stopToken) {
    std::mutex mutex;
    std::condition_variable_any woken;
    std::unique_lock lock(mutex);
    woken.wait_for(lock, stopToken, duration, [] { return false; });
    return !stopToken.stop_requested();
}

// The model asked for, or the default one when the setting is blank.
std::string modelOrDefault(const std::string& model) {
    const std::string name = trimmed(model);
    return name.empty() ? std::string(defaultLocalLLMModel) : name;
}

std::string serverLines(const std::string& cli, const std::string& url, const std::string& models) {
    return "\ncli: " + cli + "\nserver: " + url + "\nmodels: " + models;
}

} // namespace

OllamaLocations OllamaLocations::fromEnvironment() {
    OllamaLocations locations;
    if (const char* path = std::getenv("PATH")) {
        locations.searchPath = path;
    }
    return locations;
}

LocalLLMInstaller::LocalLLMInstaller(AppSupportPaths paths,
                                     std::shared_ptr<HttpTransport> transport,
                                     std::shared_ptr<HttpDownloading> downloader,
                                     OllamaLocations locations, OllamaDownloadSource source,
                                     LocalLLMTimings timings)
    : paths_(std::move(paths)), transport_(std::move(transport)),
      downloader_(std::move(downloader)), locations_(std::move(locations)),
      source_(std::move(source)), timings_(timings) {}

// An ollama the user installed wins over the managed copy, as an installed application
// would: whoever installed it keeps it up to date, and it is the one their own `ollama`
// commands and a system service run, so versions and models stay in step. The managed
// copy is for a machine that has none.
std::vector<std::filesystem::path> LocalLLMInstaller::cliCandidates() const {
    std::vector<std::filesystem::path> candidates;
    std::set<std::filesystem::path> seen;
    const auto add = [&](std::filesystem::path candidate) {
        if (seen.insert(candidate.lexically_normal()).second) {
            candidates.push_back(std::move(candidate));
        }
    };
    std::istringstream folders(locations_.searchPath);
    for (std::string folder; std::getline(folders, folder, ':');) {
        // An empty entry means the working directory, which is nobody's install.
        if (!folder.empty() && folder.front() == '/') {
            add(std::filesystem::path(folder) / "ollama");
        }
    }
    for (const auto& executable : locations_.systemExecutables) {
        add(executable);
    }
    add(managedCLIPath());
    return candidates;
}

std::optional<std::filesystem::path> LocalLLMInstaller::ollamaCLIPath() const {
    for (auto& candidate : cliCandidates()) {
        if (isExecutableFile(candidate)) {
            return std::move(candidate);
        }
    }
    return std::nullopt;
}

std::filesystem::path LocalLLMInstaller::managedCLIPath() const {
    return paths_.managedRuntimesDirectory() / "ollama" / "bin" / "ollama";
}

std::filesystem::path LocalLLMInstaller::serverRecordPath() const {
    return paths_.localLLMDirectory() / "ollama-serve.pid";
}

std::filesystem::path LocalLLMInstaller::serverLogPath() const {
    return paths_.localLLMDirectory() / "ollama-serve.log";
}

bool LocalLLMInstaller::isServerRunning(const std::string& baseURL,
                                        const std::stop_token& stopToken) const {
    try {
        OllamaClient(checkedServerURL(baseURL), transport_).listModels(stopToken);
        return true;
    } catch (const HttpError& error) {
        if (error.kind() == HttpError::Kind::cancelled) {
            throw;
        }
        return false;
    } catch (const std::exception&) {
        return false; // an address that can't be reached or a reply that isn't Ollama's
    }
}

bool LocalLLMInstaller::isModelInstalled(const std::string& baseURL, const std::string& model,
                                         const std::stop_token& stopToken) const {
    try {
        for (const auto& listed :
             OllamaClient(checkedServerURL(baseURL), transport_).listModels(stopToken)) {
            if (sameModel(listed.name, model)) {
                return true;
            }
        }
    } catch (const HttpError& error) {
        if (error.kind() == HttpError::Kind::cancelled) {
            throw;
        }
    } catch (const std::exception&) {
        // not reachable, or not an answer: not installed as far as anyone can tell
    }
    return false;
}

std::string LocalLLMInstaller::modelsFolderText() const {
    try {
        return paths_.localLLMModelsDirectory().string();
    } catch (const std::exception&) {
        return {}; // the data root can't be written; the status says "not available"
    }
}

LocalLLMState LocalLLMInstaller::status(const std::string& baseURL, const std::string& model,
                                        const std::stop_token& stopToken) const {
    LocalLLMState state;
    state.defaultModel = modelOrDefault(model);
    state.serverURL = normalizedHost(baseURL);
    try {
        if (const auto cli = ollamaCLIPath()) {
            state.ollamaInstalled = state.cliAvailable = true;
            state.installPath = state.cliPath = cli->string();
        }
        if (const auto ours = LocalLLMServerProcess::fromRecord(serverRecordPath());
            ours && ours->address() == state.serverURL) {
            state.serverProcessID = ours->pid();
        }
    } catch (const std::exception&) {
        // The data root can't be read or made: what lies there is reported as missing.
    }
    state.modelsDirectory = modelsFolderText();
    state.serverRunning = isServerRunning(baseURL, stopToken);
    state.defaultModelInstalled =
        state.serverRunning && isModelInstalled(baseURL, state.defaultModel, stopToken);
    state.lastActionLog = localLLMStatusText(state);
    return state;
}

std::string LocalLLMInstaller::startOllama(const std::string& baseURL, int readinessAttempts,
                                           const std::stop_token& stopToken) const {
    const std::string url = checkedServerURL(baseURL);
    const std::string host = ollamaHostEnvironment(baseURL);
    // One start or stop at a time, across the app and the command line.
    const auto lock = waitForLock(paths_.localLLMDirectory() / ".server.lock", url, stopToken);
    auto ours = LocalLLMServerProcess::fromRecord(serverRecordPath());
    if (isServerRunning(url, stopToken)) {
        std::string log = "Ollama background server already running\nserver: " + url +
                          "\nmodels: " + modelsFolderText();
        if (ours && ours->address() == url) {
            return log + "\nstarted by: Quorlin (process " + std::to_string(ours->pid()) + ")";
        }
        // A server someone else started keeps its own settings.
        return log + "\nnote: If the Ollama server was started outside Quorlin, the actual "
                     "model storage location is determined by that server's OLLAMA_MODELS "
                     "setting.";
    }
    if (ours && ours->address() == url) {
        return awaitReadiness(*ours, url, readinessAttempts, false, stopToken);
    }
    if (ours) {
        // Quorlin keeps one server; the one for an address no longer in use goes.
        ours->stop(timings_.stopGrace, timings_.readinessInterval);
        std::filesystem::remove(serverRecordPath());
    }
    const auto cli = ollamaCLIPath();
    if (!cli) {
        throw LocalLLMInstallerError::cliUnavailable();
    }
    const std::string models = paths_.localLLMModelsDirectory().string();
    const auto process = LocalLLMServerProcess::launch(
        *cli, {"serve"}, {{"OLLAMA_HOST", host}, {"OLLAMA_MODELS", models}}, serverLogPath(), url);
    try {
        process.writeRecord(serverRecordPath());
    } catch (...) {
        // Unrecorded, it could never be stopped by Quorlin: it must not run on.
        process.stop(timings_.stopGrace, timings_.readinessInterval);
        throw;
    }
    return awaitReadiness(process, url, readinessAttempts, true, stopToken);
}

std::string LocalLLMInstaller::awaitReadiness(const LocalLLMServerProcess& process,
                                              const std::string& url, int readinessAttempts,
                                              bool launchedNow,
                                              const std::stop_token& stopToken) const {
    const std::string lines = serverLines(process.executable().string(), url, modelsFolderText());
    const auto failed = [&] {
        std::filesystem::remove(serverRecordPath());
        return LocalLLMInstallerError::processFailed("Ollama background server failed to start." +
                                                     logTail(serverLogPath()));
    };
    try {
        for (int attempt = 0; attempt < readinessAttempts; ++attempt) {
            if (isServerRunning(url, stopToken)) {
                return "Ollama background server started" + lines;
            }
            if (!process.running()) {
                throw failed();
            }
            if (!sleepUnlessStopped(timings_.readinessInterval, stopToken)) {
                throw HttpError::cancelled(httpHostOf(url));
            }
        }
    } catch (const HttpError& error) {
        if (error.kind() == HttpError::Kind::cancelled && launchedNow) {
            // A start given up leaves no server behind it.
            process.stop(timings_.stopGrace, timings_.readinessInterval);
            std::filesystem::remove(serverRecordPath());
        }
        throw;
    }
    if (!process.running()) {
        throw failed();
    }
    // Slow machines go on starting; the server is ours and recorded all the same.
    return "Ollama background server starting" + lines;
}

std::string LocalLLMInstaller::stopOllama(const std::string& baseURL) const {
    const std::string url = checkedServerURL(baseURL);
    const auto lock = FileLock::acquire(paths_.localLLMDirectory() / ".server.lock");
    std::string log;
    if (const auto ours = LocalLLMServerProcess::fromRecord(serverRecordPath())) {
        ours->stop(timings_.stopGrace, timings_.readinessInterval);
        log = "Sent stop signal to the Ollama background server Quorlin started.\n";
    }
    std::error_code ignored; // fromRecord already removed a record of a process that is gone
    std::filesystem::remove(serverRecordPath(), ignored);
    if (isServerRunning(url)) {
        // Ending a server this program did not start could take down a system service or
        // someone's own session, so it stays.
        return log + "Ollama background server left running\nserver: " + url +
               "\nnote: It was started outside Quorlin (a system service or someone's own "
               "ollama serve), so Quorlin doesn't stop it; stop it where it was started.";
    }
    return log + "Local AI background service stopped\nserver: " + url;
}

std::string LocalLLMInstaller::pullModel(const std::string& baseURL, const std::string& model,
                                         const LocalLLMProgressCallback& progress,
                                         const std::stop_token& stopToken) const {
    const std::string url = checkedServerURL(baseURL);
    const std::string host = ollamaHostEnvironment(baseURL);
    const std::string name = trimmed(model);
    if (name.empty()) {
        throw LocalLLMInstallerError::processFailed("Name a model to pull, such as " +
                                                    std::string(defaultLocalLLMModel) + ".");
    }
    if (!isServerRunning(url, stopToken)) {
        if (!ollamaCLIPath()) {
            throw LocalLLMInstallerError::cliUnavailable();
        }
        throw LocalLLMInstallerError::processFailed(
            "The Ollama background server isn't running at " + url + "; start it first.");
    }
    reportProgress(progress,
                   {LocalLLMProgress::Stage::pulling, "Asking the server for " + name, {}});
    LocalLLMPullReader reader(name, progress);
    HttpRequest request;
    request.method = "POST";
    request.url = url + "/api/pull";
    request.headers = {{"Content-Type", "application/json"}};
    request.body = nlohmann::json{{"model", name}, {"stream", true}}.dump();
    request.timeout = pullStallLimit;
    request.onBodyData = [&reader](std::string_view piece) {
        reader.read(piece);
        return true;
    };
    HttpResponse response;
    try {
        response = transport_->send(request, stopToken);
    } catch (const HttpError& error) {
        if (error.kind() == HttpError::Kind::cancelled) {
            throw;
        }
        throw LocalLLMInstallerError::processFailed("Ollama couldn't pull " + name + ": " +
                                                    error.what());
    }
    if (!response.successful()) {
        const std::string words = ollamaRefusal(response.body);
        throw LocalLLMInstallerError::processFailed(
            "Ollama couldn't pull " + name + ": " +
            (words.empty() ? "the server answered HTTP " + std::to_string(response.status) + "."
                           : words));
    }
    reader.read(response.body); // from a transport that hands the body over whole
    reader.finish();
    return "Ollama model downloaded\nmodel: " + name + "\nhost: " + host +
           "\nmodels: " + modelsFolderText();
}

std::string LocalLLMInstaller::setupForWorkflow(const std::string& baseURL,
                                                const std::string& model,
                                                const LocalLLMProgressCallback& progress,
                                                const std::stop_token& stopToken) const {
    const std::string url = checkedServerURL(baseURL);
    std::vector<std::string> logs;
    if (!ollamaCLIPath() && !isServerRunning(url, stopToken)) {
        logs.push_back(installOllama(progress, stopToken));
    }
    reportProgress(progress, {LocalLLMProgress::Stage::starting, "Starting the Ollama server", {}});
    logs.push_back(startOllama(baseURL, setupReadinessAttempts, stopToken));
    // A server still starting gets a little longer before the pull needs it.
    for (auto waited = 0ms; waited < timings_.setupSettling && !isServerRunning(url, stopToken);
         waited += timings_.readinessInterval) {
        if (!sleepUnlessStopped(timings_.readinessInterval, stopToken)) {
            throw HttpError::cancelled(httpHostOf(url));
        }
    }
    const std::string wanted = modelOrDefault(model);
    logs.push_back(pullModel(baseURL, wanted, progress, stopToken));
    logs.push_back("Workflow routing ready: " + localLLMRoute(wanted));
    std::string text;
    for (const auto& log : logs) {
        text += (text.empty() ? "" : "\n\n") + log;
    }
    return text;
}

FileLock LocalLLMInstaller::waitForLock(const std::filesystem::path& file, const std::string& url,
                                        const std::stop_token& stopToken) {
    auto lock = FileLock::acquireUnlessStopped(file, stopToken);
    if (!lock) {
        throw HttpError::cancelled(httpHostOf(url));
    }
    return std::move(*lock);
}

} // namespace quorlin

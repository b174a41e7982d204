#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/FileLock.h"
#include "core/foundation/HttpDownload.h"
#include "core/foundation/HttpTransport.h"
#include "core/runtimes/LocalLLMProgress.h"
#include "core/runtimes/LocalLLMState.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace quorlin {

class LocalLLMServerProcess;

// Where an ollama executable is looked for besides the managed copy.
struct OllamaLocations {
    std::string searchPath; // as PATH: folders separated by ":"
    std::vector<std::filesystem::path> systemExecutables{"/usr/local/bin/ollama",
                                                         "/usr/bin/ollama"};

    // PATH as this process has it.
    static OllamaLocations fromEnvironment();
};

// Where the Ollama archive is downloaded from. Its checksum list, sha256sum.txt, lies in
// the same folder, as Ollama publishes its releases.
struct OllamaDownloadSource {
    std::string archiveURL;

    // QUORLIN_OLLAMA_DOWNLOAD_URL when set and not blank, else the latest release's
    // archive for this machine's architecture (amd64 or arm64).
    static OllamaDownloadSource fromEnvironment();

    std::string archiveName() const;     // the last part of the URL's path
    std::string checksumListURL() const; // sha256sum.txt beside the archive
};

// How long the installer waits on the server; tests shorten them.
struct LocalLLMTimings {
    std::chrono::milliseconds readinessInterval{250};
    // Between SIGTERM and SIGKILL when stopping the server Quorlin started.
    std::chrono::milliseconds stopGrace{5000};
    // The one-click setup's extra patience for a server still starting before it pulls.
    std::chrono::milliseconds setupSettling{1500};
};

// Gives the user a local model without a terminal: finds an ollama executable or
// downloads one under the data root, runs `ollama serve` with its models in the data
// root, pulls a model through the server and stops the server again.
//
// Only the server this program started is ever stopped, found by the process id it
// recorded (local-llm/ollama-serve.pid) and checked to be that very process: a server
// someone else started (a system service, someone's own `ollama serve`) is reported as
// started outside Quorlin and left running. Stateless between calls apart from that
// record, so the app and the command line may share it; starting and stopping are
// serialised across processes by a lock file beside it.
class LocalLLMInstaller {
public:
    LocalLLMInstaller(AppSupportPaths paths, std::shared_ptr<HttpTransport> transport,
                      std::shared_ptr<HttpDownloading> downloader,
                      OllamaLocations locations = OllamaLocations::fromEnvironment(),
                      OllamaDownloadSource source = OllamaDownloadSource::fromEnvironment(),
                      LocalLLMTimings timings = {});

    // The places an ollama executable is looked for, in order.
    std::vector<std::filesystem::path> cliCandidates() const;
    // The first candidate that is an executable file.
    std::optional<std::filesystem::path> ollamaCLIPath() const;
    // Where the downloaded copy goes: <data root>/managed-runtimes/ollama/bin/ollama.
    std::filesystem::path managedCLIPath() const;
    std::filesystem::path serverRecordPath() const; // the pid file
    std::filesystem::path serverLogPath() const;    // the server's stdout and stderr

    // Whether the server answers its model list within two seconds.
    bool isServerRunning(const std::string& baseURL, const std::stop_token& stopToken = {}) const;
    // Whether the server lists the model ("llama3" also matches "llama3:latest").
    bool isModelInstalled(const std::string& baseURL, const std::string& model,
                          const std::stop_token& stopToken = {}) const;

    // Never fails: what can't be found or reached is reported as such. A blank model
    // means the default one, here and in the setup.
    LocalLLMState status(const std::string& baseURL, const std::string& model,
                         const std::stop_token& stopToken = {}) const;

    // Downloads, verifies and unpacks Ollama into the managed copy, all or nothing: a
    // failure, a stop or a crash leaves no part of it behind. Does nothing when an ollama
    // executable is found already. Throws LocalLLMInstallerError, HttpError(cancelled)
    // on a stop, FileError when the data root can't be written.
    std::string installOllama(const LocalLLMProgressCallback& progress = {},
                              const std::stop_token& stopToken = {}) const;

    // Starts `ollama serve` for the address unless a server answers there already, and
    // polls it readinessAttempts times; a server still starting after the last poll is a
    // success. A stop while polling ends the server it launched and throws
    // HttpError(cancelled). Throws LocalLLMInstallerError.
    std::string startOllama(const std::string& baseURL, int readinessAttempts,
                            const std::stop_token& stopToken = {}) const;

    // Stops the server this program started; a server started outside it is left
    // running, and the log says so. Throws LocalLLMInstallerError(invalidBaseURL).
    std::string stopOllama(const std::string& baseURL) const;

    // Has the running server download the model, reporting its progress. Throws
    // LocalLLMInstallerError with the server's words when it refuses or fails, or when
    // the exchange with it fails; HttpError(cancelled) on a stop.
    std::string pullModel(const std::string& baseURL, const std::string& model,
                          const LocalLLMProgressCallback& progress = {},
                          const std::stop_token& stopToken = {}) const;

    // The one-click path: installs Ollama when none is found and no server answers,
    // starts the server, pulls the model, and says the route workflows can use.
    std::string setupForWorkflow(const std::string& baseURL, const std::string& model,
                                 const LocalLLMProgressCallback& progress = {},
                                 const std::stop_token& stopToken = {}) const;

private:
    // Checks the downloaded archive, unpacks it beside the target and renames it into place.
    std::string placeArchive(const std::filesystem::path& archive,
                             const std::string& expectedDigest,
                             const LocalLLMProgressCallback& progress,
                             const std::stop_token& stopToken) const;
    std::string expectedChecksum(const std::stop_token& stopToken) const;
    // Polls the server until it answers; launchedNow: a stop ends the process too.
    std::string awaitReadiness(const LocalLLMServerProcess& process, const std::string& url,
                               int readinessAttempts, bool launchedNow,
                               const std::stop_token& stopToken) const;
    std::string modelsFolderText() const;
    // The lock, once free; a stop while waiting throws HttpError(cancelled) naming url.
    static FileLock waitForLock(const std::filesystem::path& file, const std::string& url,
                                const std::stop_token& stopToken);

    AppSupportPaths paths_;
    std::shared_ptr<HttpTransport> transport_;
    std::shared_ptr<HttpDownloading> downloader_;
    OllamaLocations locations_;
    OllamaDownloadSource source_;
    LocalLLMTimings timings_;
};

} // namespace quorlin

#include "core/runtimes/LocalLLMInstaller.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/ChildProcess.h"
#include "core/foundation/HttpClient.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/Sha256.h"
#include "core/runtimes/LocalLLMAddress.h"
#include "core/runtimes/LocalLLMInstallerError.h"
#include "core/runtimes/LocalLLMPullReader.h"
#include "tests/support/LoopbackHttpServer.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TarBuilder.h"
#include "tests/support/TemporaryDirectory.h"

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <set>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

extern char** environ; // NOLINT: the process environment, as POSIX names it

namespace quorlin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Kind = LocalLLMInstallerError::Kind;
using Stage = LocalLLMProgress::Stage;
using Tar = testing::TarEntry::Type;

const fs::path fakeOllama = QUORLIN_FAKE_OLLAMA;

// A port nothing listens on right now.
int freePort() {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets API
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    ::bind(socket, generic, length);
    ::getsockname(socket, generic, &length);
    ::close(socket);
    return ntohs(address.sin_port);
}

// A live process (not a zombie) with that id.
bool processLives(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return false;
    }
    const auto state = line.substr(line.rfind(')') + 2, 1);
    return state != "Z" && state != "X";
}

bool isFakeOllama(pid_t pid) {
    std::ifstream cmdline("/proc/" + std::to_string(pid) + "/cmdline");
    const std::string text((std::istreambuf_iterator<char>(cmdline)), {});
    return text.find("ollama") != std::string::npos;
}

void killFakeOllama(pid_t pid) {
    if (pid > 0 && isFakeOllama(pid)) {
        ::kill(pid, SIGKILL);
    }
    ::waitpid(pid, nullptr, 0); // only does something for a child of this process
}

// Ends every server a test started, however the test went: the installer's, found by its
// record, and those the test names.
class ServerReaper {
public:
    explicit ServerReaper(fs::path record) : record_(std::move(record)) {}
    ~ServerReaper() {
        if (auto pid = recordedPid()) {
            pids_.insert(*pid);
        }
        for (const pid_t pid : pids_) {
            killFakeOllama(pid);
        }
    }
    ServerReaper(const ServerReaper&) = delete;
    ServerReaper& operator=(const ServerReaper&) = delete;

    void add(pid_t pid) { pids_.insert(pid); }

    std::optional<pid_t> recordedPid() const {
        std::ifstream file(record_);
        const auto record = nlohmann::json::parse(file, nullptr, false);
        if (!record.is_object() || !record.contains("pid")) {
            return std::nullopt;
        }
        return record["pid"].get<pid_t>();
    }

private:
    fs::path record_;
    std::set<pid_t> pids_;
};

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (auto& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

bool answers(int port) {
    HttpRequest request;
    request.url = "http://127.0.0.1:" + std::to_string(port) + "/api/tags";
    request.timeout = 2s;
    try {
        return CurlHttpClient().send(request, {}).status == 200;
    } catch (const HttpError&) {
        return false;
    }
}

// The fake ollama serving as someone else started it: a system service, a user's shell.
class OutsideServer {
public:
    OutsideServer(const fs::path& ollama, int port, const fs::path& models) {
        std::vector<std::string> arguments{ollama.string(), "serve"};
        std::vector<std::string> environment{"OLLAMA_HOST=127.0.0.1:" + std::to_string(port),
                                             "OLLAMA_MODELS=" + models.string()};
        for (char** entry = environ; *entry != nullptr; ++entry) {
            environment.emplace_back(*entry);
        }
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        auto argv = pointers(arguments);
        auto envp = pointers(environment);
        const int error =
            ::posix_spawn(&pid_, ollama.c_str(), &actions, nullptr, argv.data(), envp.data());
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            throw std::runtime_error("the outside server could not start");
        }
        for (int attempt = 0; attempt < 300 && !answers(port); ++attempt) {
            std::this_thread::sleep_for(50ms);
        }
    }
    ~OutsideServer() { killFakeOllama(pid_); }
    OutsideServer(const OutsideServer&) = delete;
    OutsideServer& operator=(const OutsideServer&) = delete;

    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

// Ollama's release folder on loopback: files by path, one of them perhaps cut off.
class DownloadHost {
public:
    DownloadHost() {
        server_.server().Get(
            R"(/(.*))", [this](const httplib::Request& request, httplib::Response& response) {
                const std::lock_guard lock(mutex_);
                const auto found = files_.find(request.path);
                if (found == files_.end()) {
                    response.status = 404;
                    response.set_content("Not Found", "text/plain");
                    return;
                }
                const std::string body = found->second;
                if (request.path == cutOff_) {
                    // Announces the whole file, sends half, hangs up.
                    response.set_content_provider(
                        body.size(), "application/gzip",
                        [body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                            if (offset > 0) {
                                return false;
                            }
                            sink.write(body.data(), body.size() / 2);
                            return true;
                        });
                    return;
                }
                response.set_content(body, "application/octet-stream");
            });
        server_.start();
    }

    void put(const std::string& path, std::string bytes, bool cutOff = false) {
        const std::lock_guard lock(mutex_);
        files_[path] = std::move(bytes);
        cutOff_ = cutOff ? path : "";
    }
    std::string url(const std::string& path) const { return server_.url(path); }

private:
    std::mutex mutex_;
    std::map<std::string, std::string> files_;
    std::string cutOff_;
    testing::LoopbackHttpServer server_;
};

class LocalLLMInstallerTest : public ::testing::Test {
protected:
    LocalLLMInstallerTest() {
        fs::create_directories(binFolder);
        fs::copy_file(fakeOllama, binFolder / "ollama");
        fs::permissions(binFolder / "ollama", fs::perms::owner_all);
        source.archiveURL = host.url("/releases/ollama-linux-amd64.tgz");
    }

    LocalLLMInstaller installer(std::string searchPath) const {
        return {paths, client, client, {std::move(searchPath), {}}, source, timings};
    }
    LocalLLMInstaller installer() const { return installer(binFolder.string()); }

    std::string address() const { return "http://127.0.0.1:" + std::to_string(port); }

    std::string ollamaArchive(std::vector<testing::TarEntry> entries) const {
        const auto file = scratch.path() / "built.tgz";
        testing::writeTarGz(file, entries);
        return readFile(file);
    }
    std::string goodArchive() const {
        return ollamaArchive({{"bin/", Tar::directory, "", 0755},
                              {"bin/ollama", Tar::file, readFile(fakeOllama), 0755},
                              {"lib/ollama/libggml-base.so", Tar::file, "not a library"}});
    }
    void publish(const std::string& bytes, const std::string& digest, bool cutOff = false) {
        host.put("/releases/sha256sum.txt",
                 "0000  ./ollama-darwin.tgz\n" + digest + "  ./ollama-linux-amd64.tgz\n");
        host.put("/releases/ollama-linux-amd64.tgz", bytes, cutOff);
    }

    // What the managed runtimes folder holds, lock files aside.
    std::vector<std::string> managedFolder() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(paths.managedRuntimesDirectory())) {
            if (!entry.path().filename().string().ends_with(".lock")) {
                names.push_back(entry.path().filename().string());
            }
        }
        return names;
    }

    const testing::ScopedEnvironment noProxy{"no_proxy", "127.0.0.1"};
    const testing::ScopedEnvironment noProxyUpper{"NO_PROXY", "127.0.0.1"};
    testing::TemporaryDirectory scratch;
    AppSupportPaths paths{scratch.path() / "data"};
    fs::path binFolder = scratch.path() / "bin";
    int port = freePort();
    DownloadHost host;
    OllamaDownloadSource source;
    LocalLLMTimings timings{50ms, 3s, 500ms};
    std::shared_ptr<CurlHttpClient> client = std::make_shared<CurlHttpClient>();
    ServerReaper reaper{paths.localLLMDirectory() / "ollama-serve.pid"};
};

TEST(LocalLLMAddressTest, NormalisesTheAddressAndTellsOllamaItsHost) {
    const struct {
        std::string given;
        std::string normalized;
        std::string ollamaHost;
    } cases[] = {
        {"", "http://localhost:11434", "localhost:11434"},
        {" \t\n", "http://localhost:11434", "localhost:11434"},
        {"http://127.0.0.1:11500/", "http://127.0.0.1:11500", "127.0.0.1:11500"},
        {"  http://localhost:11434//\n", "http://localhost:11434", "localhost:11434"},
        {"http://ollama.lan", "http://ollama.lan", "ollama.lan"},
        {"https://me@ollama.lan:8443/api", "https://me@ollama.lan:8443/api", "ollama.lan:8443"},
        {"http://[::1]:11434", "http://[::1]:11434", "[::1]:11434"},
        {"localhost:11434", "localhost:11434", "localhost:11434"}, // no host: the default
    };
    for (const auto& c : cases) {
        EXPECT_EQ(normalizedHost(c.given), c.normalized) << c.given;
        EXPECT_EQ(ollamaHostEnvironment(c.given), c.ollamaHost) << c.given;
    }
    EXPECT_EQ(checkedServerURL(" http://127.0.0.1:11500/ "), "http://127.0.0.1:11500");

    // Not URLs at all, and addresses no server could be asked at.
    const std::pair<std::string, bool> invalid[] = {
        {"http://local host:11434", true}, {"http://localhost:port", true},
        {"http://localhost:99999", true},  {"http://localhost:", true},
        {"ht!tp://localhost", true},       {"localhost:11434", false},
        {"ftp://localhost:11434", false},
    };
    for (const auto& [given, alsoForOllamaHost] : invalid) {
        try {
            checkedServerURL(given);
            ADD_FAILURE() << given << " was taken";
        } catch (const LocalLLMInstallerError& error) {
            EXPECT_EQ(error.kind(), Kind::invalidBaseURL);
            EXPECT_EQ(error.what(), "Ollama Base URL is invalid: " + given);
        }
        if (alsoForOllamaHost) {
            EXPECT_THROW(ollamaHostEnvironment(given), LocalLLMInstallerError) << given;
        }
    }
}

TEST_F(LocalLLMInstallerTest, TheUsersOwnOllamaWinsOverTheManagedCopy) {
    const auto make = [&](const fs::path& file, fs::perms mode) {
        testing::writeTextFile(file, "#!/bin/sh\n");
        fs::permissions(file, mode);
        return file;
    };
    const auto first = make(scratch.path() / "first/ollama", fs::perms::owner_read);
    const auto second = make(scratch.path() / "second/ollama", fs::perms::owner_all);
    const auto system = make(scratch.path() / "usr/bin/ollama", fs::perms::owner_all);
    const auto managed = installer().managedCLIPath();
    const struct {
        std::string name;
        std::string searchPath;
        std::vector<fs::path> system;
        bool managedThere;
        std::optional<fs::path> chosen;
    } cases[] = {
        {"PATH in its order, not executable skipped",
         (first.parent_path().string() + ":" + second.parent_path().string()),
         {system},
         true,
         second},
        {"system folders before the managed copy", "", {system}, true, system},
        {"relative PATH entries are nobody's install", ".:bin:", {}, true, managed},
        {"nothing", "/nonexistent", {system.parent_path() / "none"}, false, std::nullopt},
    };
    for (const auto& c : cases) {
        fs::remove_all(managed.parent_path().parent_path());
        if (c.managedThere) {
            make(managed, fs::perms::owner_all);
        }
        const LocalLLMInstaller finder(paths, client, client, {c.searchPath, c.system}, source);
        EXPECT_EQ(finder.ollamaCLIPath(), c.chosen) << c.name;
        EXPECT_EQ(finder.cliCandidates().back(), managed) << c.name;
    }
}

TEST_F(LocalLLMInstallerTest, InstallsAVerifiedOllamaOnceAndItRuns) {
    const std::string archive = goodArchive();
    publish(archive, Sha256::hexOf(archive));
    fs::create_directories(paths.managedRuntimesDirectory() / ".tmp-ollama-LEFT-BY-A-CRASH");
    std::vector<Stage> stages;
    const auto noOllama = installer("/nonexistent");
    const std::string log = noOllama.installOllama([&](const LocalLLMProgress& step) {
        if (stages.empty() || stages.back() != step.stage) {
            stages.push_back(step.stage);
        }
    });

    const auto managed = noOllama.managedCLIPath();
    EXPECT_EQ(log, "Ollama downloaded\nsource: " + source.archiveURL + "\npath: " +
                       managed.parent_path().parent_path().string() + "\ncli: " + managed.string());
    EXPECT_EQ(stages, (std::vector<Stage>{Stage::downloading, Stage::verifying, Stage::unpacking}));
    EXPECT_EQ(managedFolder(), std::vector<std::string>{"ollama"});
    EXPECT_EQ(noOllama.ollamaCLIPath(), managed);
    ChildProcessRequest version;
    version.executable = managed;
    version.arguments = {"--version"};
    version.environment = {{"PATH", std::getenv("PATH")}};
    EXPECT_EQ(runChildProcess(version).standardOutput, "ollama version is 0.0.0-fake\n");

    host.put("/releases/ollama-linux-amd64.tgz", "gone");
    EXPECT_EQ(noOllama.installOllama(), "Ollama already installed: " + managed.string());
}

TEST_F(LocalLLMInstallerTest, EveryFailedInstallLeavesNothingBehind) {
    const std::string good = goodArchive();
    const std::string empty = ollamaArchive({{"README", Tar::file, "no ollama here"}});
    const std::string escaping =
        ollamaArchive({{"bin/ollama", Tar::file, "x", 0755}, {"lib", Tar::symlink, "../../.."}});
    const struct {
        std::string name;
        std::function<void()> arrange;
        Kind kind;
        std::string words;
    } cases[] = {
        {"checksum differs", [&] { publish(good, std::string(64, 'a')); }, Kind::downloadFailed,
         "ollama-linux-amd64.tgz doesn't match its published checksum (expected " +
             std::string(64, 'a') + ", got " + Sha256::hexOf(good) +
             "); the download was removed and nothing was installed."},
        {"cut off", [&] { publish(good, Sha256::hexOf(good), true); }, Kind::downloadFailed,
         "Failed to download Ollama: "},
        {"not in the list",
         [&] {
             publish(good, "");
             host.put("/releases/sha256sum.txt", "abcd  ./other.tgz\n");
         },
         Kind::downloadFailed, "has no entry for ollama-linux-amd64.tgz"},
        {"no ollama inside", [&] { publish(empty, Sha256::hexOf(empty)); }, Kind::processFailed,
         "Couldn't find bin/ollama inside the downloaded archive."},
        {"link out of the tree", [&] { publish(escaping, Sha256::hexOf(escaping)); },
         Kind::processFailed, "; nothing was installed."},
    };
    for (const auto& c : cases) {
        c.arrange();
        try {
            installer("/nonexistent").installOllama();
            ADD_FAILURE() << c.name << ": installed";
        } catch (const LocalLLMInstallerError& error) {
            EXPECT_EQ(error.kind(), c.kind) << c.name;
            EXPECT_NE(std::string(error.what()).find(c.words), std::string::npos)
                << c.name << ": " << error.what();
        }
        EXPECT_EQ(managedFolder(), std::vector<std::string>{}) << c.name;
    }

    // Ctrl-C at the last moment, the archive checked and unpacked, still installs nothing.
    publish(good, Sha256::hexOf(good));
    std::stop_source stop;
    const auto stopWhenUnpacking = [&](const LocalLLMProgress& step) {
        if (step.stage == Stage::unpacking) {
            stop.request_stop();
        }
    };
    EXPECT_THROW(installer("/nonexistent").installOllama(stopWhenUnpacking, stop.get_token()),
                 HttpError);
    EXPECT_EQ(managedFolder(), std::vector<std::string>{});
}

TEST_F(LocalLLMInstallerTest, StartPullAndStopLeaveNoProcessBehind) {
    const auto local = installer();
    const std::string models = paths.localLLMModelsDirectory().string();
    const std::string cli = (binFolder / "ollama").string();
    EXPECT_EQ(local.startOllama(address(), 200), "Ollama background server started\ncli: " + cli +
                                                     "\nserver: " + address() +
                                                     "\nmodels: " + models);
    const auto pid = reaper.recordedPid();
    ASSERT_TRUE(pid);

    auto state = local.status(address(), "llama3.2:3b");
    EXPECT_TRUE(state.serverRunning);
    EXPECT_EQ(state.serverProcessID, *pid);
    EXPECT_FALSE(state.defaultModelInstalled);
    EXPECT_EQ(state.lastActionLog, "Local LLM status\nQuorlin Ollama app: " + cli +
                                       "\nOllama CLI: " + cli + "\nOllama models: " + models +
                                       "\nServer: running\nServer started by: Quorlin " +
                                       "(process " + std::to_string(*pid) +
                                       ")\nDefault model: llama3.2:3b (not installed)\n\n"
                                       "Workflow routing available: ollama:llama3.2:3b");
    EXPECT_EQ(local.startOllama(address(), 200),
              "Ollama background server already running\nserver: " + address() + "\nmodels: " +
                  models + "\nstarted by: Quorlin (process " + std::to_string(*pid) + ")");

    std::vector<std::string> statuses;
    std::vector<std::uint64_t> layerBytes;
    const std::string log =
        local.pullModel(address(), "llama3.2:3b", [&](const LocalLLMProgress& step) {
            EXPECT_EQ(step.stage, Stage::pulling);
            if (statuses.empty() || statuses.back() != step.status) {
                statuses.push_back(step.status);
            }
            if (step.transfer.totalBytes) {
                EXPECT_EQ(step.transfer.totalBytes, 3'000'000U);
                layerBytes.push_back(step.transfer.receivedBytes);
            }
        });
    EXPECT_EQ(log, "Ollama model downloaded\nmodel: llama3.2:3b\nhost: 127.0.0.1:" +
                       std::to_string(port) + "\nmodels: " + models);
    EXPECT_EQ(statuses,
              (std::vector<std::string>{"Asking the server for llama3.2:3b", "pulling manifest",
                                        "pulling 2bada8a74506", "verifying sha256 digest",
                                        "writing manifest", "success"}));
    EXPECT_EQ(layerBytes, (std::vector<std::uint64_t>{0, 1'000'000, 2'000'000, 3'000'000}));
    EXPECT_TRUE(local.status(address(), "llama3.2:3b").defaultModelInstalled);
    EXPECT_TRUE(fs::exists(fs::path(models) / "fake-pulled.json")) << "OLLAMA_MODELS not passed";
    try {
        local.pullModel(address(), "missing-model");
        ADD_FAILURE() << "an unknown model was pulled";
    } catch (const LocalLLMInstallerError& error) {
        EXPECT_STREQ(
            error.what(),
            "Ollama couldn't pull missing-model: pull model manifest: file does not exist");
    }

    EXPECT_EQ(local.stopOllama(address()),
              "Sent stop signal to the Ollama background server Quorlin started.\n"
              "Local AI background service stopped\nserver: " +
                  address());
    EXPECT_FALSE(processLives(*pid));
    EXPECT_FALSE(fs::exists(local.serverRecordPath()));
    state = local.status(address(), "llama3.2:3b");
    EXPECT_FALSE(state.serverRunning);
    EXPECT_EQ(state.serverProcessID, std::nullopt);
}

TEST_F(LocalLLMInstallerTest, AServerStartedOutsideIsReportedSoAndLeftRunning) {
    const OutsideServer outside(binFolder / "ollama", port, scratch.path() / "elsewhere");
    const auto local = installer();

    const auto state = local.status(address(), "qwen2.5:7b");
    EXPECT_TRUE(state.serverRunning);
    EXPECT_TRUE(state.serverStartedOutside());
    EXPECT_NE(state.lastActionLog.find("\nServer: running\nServer started by: outside Quorlin"),
              std::string::npos)
        << state.lastActionLog;
    EXPECT_NE(local.startOllama(address(), 20)
                  .find("already running\nserver: " + address() +
                        "\nmodels: " + paths.localLLMModelsDirectory().string() +
                        "\nnote: If the Ollama server was started outside Quorlin, the actual "
                        "model storage location is determined by that server's OLLAMA_MODELS "
                        "setting."),
              std::string::npos);
    EXPECT_FALSE(fs::exists(local.serverRecordPath())) << "nothing was started";

    const std::string log = local.stopOllama(address());
    EXPECT_EQ(log.substr(0, log.find("\nnote:")),
              "Ollama background server left running\nserver: " + address());
    EXPECT_NE(log.find("started outside Quorlin"), std::string::npos) << log;
    EXPECT_TRUE(processLives(outside.pid()));
    EXPECT_TRUE(local.isServerRunning(address()));
}

TEST_F(LocalLLMInstallerTest, AStartThatCannotWorkSaysWhy) {
    // Someone else's web server holds the port: the new server can't listen and ends.
    testing::LoopbackHttpServer squatter;
    squatter.start();
    const std::string taken = "http://127.0.0.1:" + std::to_string(squatter.port());
    const struct {
        std::string name;
        std::string searchPath;
        std::string address;
        Kind kind;
        std::string words;
    } cases[] = {
        {"no ollama anywhere", "/nonexistent", address(), Kind::cliUnavailable,
         "Ollama CLI not found. Install or start Ollama first."},
        {"not a URL", binFolder.string(), "http://local host", Kind::invalidBaseURL,
         "Ollama Base URL is invalid: http://local host"},
        {"the server dies", binFolder.string(), taken, Kind::processFailed,
         "Ollama background server failed to start.\n"},
    };
    for (const auto& c : cases) {
        try {
            installer(c.searchPath).startOllama(c.address, 200);
            ADD_FAILURE() << c.name << ": started";
        } catch (const LocalLLMInstallerError& error) {
            EXPECT_EQ(error.kind(), c.kind) << c.name;
            EXPECT_EQ(std::string(error.what()).substr(0, c.words.size()), c.words) << c.name;
        }
        EXPECT_FALSE(fs::exists(installer().serverRecordPath())) << c.name;
    }
    try {
        installer().startOllama(taken, 200);
        ADD_FAILURE() << "started on a port someone else holds";
    } catch (const LocalLLMInstallerError& error) {
        // The server's own last words say why.
        EXPECT_NE(std::string(error.what()).find("Error: listen tcp 127.0.0.1:"), std::string::npos)
            << error.what();
    }
}

TEST_F(LocalLLMInstallerTest, NoReadinessAttemptsReportsStartingAndStopStillEndsIt) {
    const auto local = installer();
    const std::string started = local.startOllama(address(), 0);
    EXPECT_EQ(started.substr(0, started.find('\n')), "Ollama background server starting");
    const auto pid = reaper.recordedPid();
    ASSERT_TRUE(pid);
    local.stopOllama(address());
    EXPECT_FALSE(processLives(*pid));
}

TEST_F(LocalLLMInstallerTest, StopKillsItsServerWhenSigtermIsIgnored) {
    const testing::ScopedEnvironment hung{"FAKE_OLLAMA_IGNORE_SIGTERM", "1"};
    timings.stopGrace = 500ms;
    const auto local = installer();
    local.startOllama(address(), 200);
    const auto pid = reaper.recordedPid();
    ASSERT_TRUE(pid);
    ASSERT_TRUE(local.isServerRunning(address()));
    EXPECT_NE(local.stopOllama(address()).find("Local AI background service stopped"),
              std::string::npos);
    EXPECT_FALSE(processLives(*pid));
}

TEST_F(LocalLLMInstallerTest, ARecordOfAnotherProcessIsNeitherReportedNorStopped) {
    // A process that happens to have the recorded id, as after the server ended long ago.
    const OutsideServer bystander(binFolder / "ollama", port, scratch.path() / "elsewhere");
    const auto local = installer();
    // This boot's, so that only the start time tells the bystander apart.
    std::ifstream bootFile("/proc/sys/kernel/random/boot_id");
    std::string bootID;
    std::getline(bootFile, bootID);
    const std::string staleRecord =
        nlohmann::json{{"pid", bystander.pid()}, {"startTime", 1}, {"bootID", bootID}}.dump();
    writeFileAtomically(local.serverRecordPath(), staleRecord);
    EXPECT_EQ(local.status(address(), "qwen2.5:7b").serverProcessID, std::nullopt);
    EXPECT_FALSE(fs::exists(local.serverRecordPath())) << "a stale record is cleared";

    writeFileAtomically(local.serverRecordPath(), staleRecord);
    EXPECT_NE(local.stopOllama(address()).find("left running"), std::string::npos);
    EXPECT_TRUE(processLives(bystander.pid()));
}

TEST_F(LocalLLMInstallerTest, AStopRequestEndsAPullPromptly) {
    const testing::ScopedEnvironment slow{"FAKE_OLLAMA_PULL_DELAY", "30"};
    const auto local = installer();
    local.startOllama(address(), 200);
    std::stop_source stop;
    std::vector<std::string> statuses;
    try {
        local.pullModel(
            address(), "llama3.2:3b",
            [&](const LocalLLMProgress& step) {
                statuses.push_back(step.status);
                if (step.status == "pulling manifest") {
                    stop.request_stop(); // the next line is thirty seconds away
                }
            },
            stop.get_token());
        ADD_FAILURE() << "the pull finished";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::cancelled);
    }
    EXPECT_EQ(statuses.back(), "pulling manifest");
    EXPECT_FALSE(local.isModelInstalled(address(), "llama3.2:3b"));
    local.stopOllama(address());
}

TEST_F(LocalLLMInstallerTest, SetupDownloadsStartsAndPullsInOneGo) {
    const std::string archive = goodArchive();
    publish(archive, Sha256::hexOf(archive));
    const auto fresh = installer("/nonexistent");
    std::vector<Stage> stages;
    const std::string log =
        fresh.setupForWorkflow(address(), "qwen2.5:7b", [&](const LocalLLMProgress& step) {
            if (stages.empty() || stages.back() != step.stage) {
                stages.push_back(step.stage);
            }
        });
    EXPECT_EQ(stages, (std::vector<Stage>{Stage::downloading, Stage::verifying, Stage::unpacking,
                                          Stage::starting, Stage::pulling}));
    const std::vector<std::string> parts{"Ollama downloaded\n",
                                         "Ollama background server started\n",
                                         "Ollama model downloaded\nmodel: qwen2.5:7b\n"};
    for (const auto& part : parts) {
        EXPECT_NE(log.find(part), std::string::npos) << part << " is missing from\n" << log;
    }
    EXPECT_TRUE(log.ends_with("\n\nWorkflow routing ready: ollama:qwen2.5:7b")) << log;
    const auto state = fresh.status(address(), "qwen2.5:7b");
    EXPECT_TRUE(state.defaultModelInstalled);
    EXPECT_EQ(state.cliPath, fresh.managedCLIPath().string());
    fresh.stopOllama(address());
}

TEST(LocalLLMPullReaderTest, ReadsLinesCutAnywhereAndFailsWithTheServersWords) {
    const std::string stream = "{\"status\":\"pulling manifest\"}\n"
                               "{\"status\":\"pulling abc\",\"total\":10,\"completed\":4}\n"
                               "\n{\"status\":\"success\"}";
    const struct {
        std::string name;
        std::vector<std::string> pieces;
        std::string failure; // empty: succeeds
    } cases[] = {
        {"whole", {stream}, ""},
        {"cut inside lines", {stream.substr(0, 7), stream.substr(7, 40), stream.substr(47)}, ""},
        {"error line",
         {"{\"status\":\"pulling manifest\"}\n{\"error\":\"pull model manifest: file does not "
          "exist\"}\n"},
         "Ollama couldn't pull m: pull model manifest: file does not exist"},
        {"ends early",
         {"{\"status\":\"pulling manifest\"}\n"},
         "Ollama couldn't pull m: the server ended the download before it finished."},
        {"not JSON",
         {"<html>\n"},
         "Ollama couldn't pull m: the server sent a line that isn't a progress report: <html>"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> statuses;
        LocalLLMPullReader reader("m", [&](const LocalLLMProgress& step) {
            statuses.push_back(step.status + " " + std::to_string(step.transfer.receivedBytes));
        });
        try {
            for (const auto& piece : c.pieces) {
                reader.read(piece);
            }
            reader.finish();
            EXPECT_EQ(c.failure, "") << c.name << " succeeded";
            EXPECT_EQ(statuses, (std::vector<std::string>{"pulling manifest 0", "pulling abc 4",
                                                          "success 0"}))
                << c.name;
        } catch (const LocalLLMInstallerError& error) {
            EXPECT_EQ(error.what(), c.failure) << c.name;
        }
    }
    EXPECT_EQ(ollamaRefusal(R"({"error":"model is required"})"), "model is required");
    EXPECT_EQ(ollamaRefusal("  Bad Gateway\n"), "Bad Gateway");
}

} // namespace
} // namespace quorlin

#include "core/runtimes/ManagedRuntimeInstaller.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/HttpClient.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/Sha256.h"
#include "core/runtimes/InterpreterLocator.h"
#include "tests/support/LoopbackHttpServer.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TarBuilder.h"
#include "tests/support/TemporaryDirectory.h"

#include <map>
#include <mutex>
#include <set>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

namespace fs = std::filesystem;
using Tar = testing::TarEntry::Type;
using Stage = RuntimeInstallProgress::Stage;

// The publishers' download hosts on loopback: files by path, and the paths asked for.
class DownloadHost {
public:
    DownloadHost() {
        server_.server().Get(
            R"(/(.*))", [this](const httplib::Request& request, httplib::Response& response) {
                const std::lock_guard lock(mutex_);
                asked_.push_back(request.path);
                const auto found = files_.find(request.path);
                if (found == files_.end()) {
                    response.status = 404;
                    response.set_content("Not Found", "text/plain");
                    return;
                }
                std::string body = found->second;
                if (cutOff_.contains(request.path)) {
                    // Announces the whole file, sends half, hangs up.
                    const std::size_t half = body.size() / 2;
                    response.set_content_provider(
                        body.size(), "application/gzip",
                        [body, half](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                            if (offset >= half) {
                                return false;
                            }
                            sink.write(body.data(), half);
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
        if (cutOff) {
            cutOff_.insert(path);
        } else {
            cutOff_.erase(path);
        }
    }
    std::vector<std::string> asked() const {
        const std::lock_guard lock(mutex_);
        return asked_;
    }
    std::string url() const { return server_.url(""); }

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::string> files_;
    std::set<std::string> cutOff_;
    std::vector<std::string> asked_;
    testing::LoopbackHttpServer server_;
};

class ManagedRuntimeInstallerTest : public ::testing::Test {
protected:
    ManagedRuntimeInstallerTest() {
        sources.pythonBaseURL = host.url();
        sources.nodeBaseURL = host.url();
        python = managedRuntimeDescriptor(ScriptRuntime::python, currentArchitecture(), sources);
        folder = "/astral-sh/python-build-standalone/releases/download/20260414/";
    }

    // A Python build as the publisher packs it: everything under "python/".
    std::string archive(std::vector<testing::TarEntry> extra = {}) const {
        std::vector<testing::TarEntry> entries{
            {"python/", Tar::directory, "", 0755},
            {"python/bin/", Tar::directory, "", 0755},
            {"python/bin/python3.10", Tar::file, "#!/bin/sh\necho managed\n", 0755},
            {"python/bin/python3", Tar::symlink, "python3.10"}};
        entries.insert(entries.end(), extra.begin(), extra.end());
        const auto file = scratch.path() / "built.tar.gz";
        testing::writeTarGz(file, entries);
        return readFile(file);
    }

    void publish(const std::string& bytes, const std::string& listedDigest, bool cutOff = false) {
        host.put(folder + python.archiveName, bytes, cutOff);
        host.put(folder + "SHA256SUMS",
                 "0000  cpython-other.tar.gz\n" + listedDigest + "  " + python.archiveName + "\n");
    }

    std::string install(std::vector<Stage>* stages = nullptr) const {
        ManagedRuntimeInstaller installer(paths, client, client, sources);
        return installer.install(ScriptRuntime::python,
                                 [stages](const RuntimeInstallProgress& progress) {
                                     if (stages &&
                                         (stages->empty() || stages->back() != progress.stage)) {
                                         stages->push_back(progress.stage);
                                     }
                                 },
                                 {});
    }

    // What the runtimes folder holds, hidden lock file aside.
    std::vector<std::string> runtimeFolder() const {
        std::vector<std::string> names;
        std::error_code error;
        for (const auto& entry : fs::directory_iterator(
                 paths.managedRuntimeRootDirectory(ScriptRuntime::python), error)) {
            if (entry.path().filename() != ".install.lock") {
                names.push_back(entry.path().filename().string());
            }
        }
        return names;
    }

    testing::ScopedEnvironment noProxy{"no_proxy", "127.0.0.1"};
    testing::ScopedEnvironment noProxyUpper{"NO_PROXY", "127.0.0.1"};
    testing::TemporaryDirectory scratch;
    AppSupportPaths paths{scratch.path() / "data"};
    DownloadHost host;
    RuntimeCatalogSources sources;
    ManagedRuntimeDescriptor python;
    std::string folder;
    std::shared_ptr<CurlHttpClient> client = std::make_shared<CurlHttpClient>();
};

TEST_F(ManagedRuntimeInstallerTest, InstallsAVerifiedBuildOnceAndScriptsRunOnIt) {
    const std::string bytes = archive();
    publish(bytes, Sha256::hexOf(bytes));
    fs::create_directories(paths.managedRuntimeRootDirectory(ScriptRuntime::python) /
                           ".tmp-LEFT-BY-A-CRASH");
    std::vector<Stage> stages;
    const std::string log = install(&stages);

    const auto target = paths.managedRuntimeVersionDirectory(ScriptRuntime::python, python.version);
    EXPECT_EQ(log, "Quorlin CPython runtime installed\nversion: 3.10.20+20260414\nsource: " +
                       python.archiveURL + "\npath: " + target.string() +
                       "\nexecutable: " + (target / "python/bin/python3").string());
    EXPECT_EQ(stages, (std::vector<Stage>{Stage::downloading, Stage::verifying, Stage::unpacking}));
    EXPECT_EQ(runtimeFolder(), std::vector<std::string>{python.version});
    const auto chosen = chosenInterpreter(ScriptRuntime::python, QuorlinResources{}, paths);
    EXPECT_EQ(chosen, target / "python/bin/python3");
    EXPECT_EQ(fs::status(target / "python/bin/python3.10").permissions() & fs::perms::owner_exec,
              fs::perms::owner_exec);

    const auto asked = host.asked().size();
    EXPECT_EQ(install().substr(0, 51), "Quorlin-managed CPython runtime already installed\nv");
    EXPECT_EQ(host.asked().size(), asked) << "nothing is fetched for an installed runtime";
}

// Each failure leaves the runtimes folder as it was: no version folder, no staging.
TEST_F(ManagedRuntimeInstallerTest, EveryFailureLeavesNothingHalfInstalled) {
    const std::string good = archive();
    const std::string escaping = archive({{"python/lib/evil", Tar::symlink, "../../../../etc"}});
    const std::string empty = [&] {
        const auto file = scratch.path() / "empty.tar.gz";
        testing::writeTarGz(file, {{"python/README", Tar::file, "no interpreter"}});
        return readFile(file);
    }();
    const struct {
        std::string name;
        std::function<void()> arrange;
        RuntimeInstallError::Kind kind;
        std::string words;
    } cases[] = {
        {"checksum differs", [&] { publish(good, std::string(64, 'a')); },
         RuntimeInstallError::Kind::checksumMismatch,
         python.archiveName + " doesn't match its published checksum (expected " +
             std::string(64, 'a') + ", got " + Sha256::hexOf(good) + ")"},
        {"not in the list",
         [&] {
             publish(good, "");
             host.put(folder + "SHA256SUMS", "abc  other\n");
         },
         RuntimeInstallError::Kind::checksumMissing, "has no entry for " + python.archiveName},
        {"cut off", [&] { publish(good, Sha256::hexOf(good), true); },
         RuntimeInstallError::Kind::downloadFailed, "Failed to download runtime: "},
        {"link out of the tree", [&] { publish(escaping, Sha256::hexOf(escaping)); },
         RuntimeInstallError::Kind::unpackFailed, "python/lib/evil -> ../../../../etc"},
        {"no interpreter inside", [&] { publish(empty, Sha256::hexOf(empty)); },
         RuntimeInstallError::Kind::noExecutable, "holds no bin/python3"},
        {"no checksum list", [&] { sources.pythonBaseURL = "http://127.0.0.1:9"; },
         RuntimeInstallError::Kind::downloadFailed, "Failed to download runtime: Could not reach"},
    };
    for (const auto& c : cases) {
        c.arrange();
        try {
            install();
            ADD_FAILURE() << c.name << ": installed";
        } catch (const RuntimeInstallError& error) {
            EXPECT_EQ(error.kind(), c.kind) << c.name;
            EXPECT_NE(std::string(error.what()).find(c.words), std::string::npos)
                << c.name << ": " << error.what();
        }
        EXPECT_EQ(runtimeFolder(), std::vector<std::string>{}) << c.name;
    }
}

// Ctrl-C at any point of an install: nothing is put in place, and the next one starts clean.
TEST_F(ManagedRuntimeInstallerTest, AStoppedInstallLeavesNothingBehind) {
    const std::string bytes = archive();
    publish(bytes, Sha256::hexOf(bytes));
    for (const auto stopAt : {Stage::downloading, Stage::verifying, Stage::unpacking}) {
        std::stop_source stop;
        ManagedRuntimeInstaller installer(paths, client, client, sources);
        EXPECT_THROW(installer.install(
                         ScriptRuntime::python,
                         [&](const RuntimeInstallProgress& progress) {
                             if (progress.stage == stopAt) {
                                 stop.request_stop();
                             }
                         },
                         stop.get_token()),
                     HttpError);
        EXPECT_EQ(runtimeFolder(), std::vector<std::string>{});
    }
    EXPECT_NE(install().find("runtime installed"), std::string::npos);
}

TEST_F(ManagedRuntimeInstallerTest, ACatalogueFileEntryCarriesItsOwnChecksum) {
    const std::string bytes = archive();
    host.put("/mirror/python.tar.gz", bytes);
    const auto catalogue = scratch.write(
        "catalog.json",
        R"({"python": {")" + std::string(linuxArchitectureName(currentArchitecture())) +
            R"(": {"version": "3.10.99", "archive_name": "python.tar.gz", "url": ")" + host.url() +
            R"(/mirror/python.tar.gz", "sha256": ")" + Sha256::hexOf(bytes) + R"("}}})");
    sources.catalogFile = catalogue;
    EXPECT_NE(install().find("version: 3.10.99\n"), std::string::npos);
    EXPECT_EQ(host.asked(), std::vector<std::string>{"/mirror/python.tar.gz"})
        << "no publisher's list is asked for";

    const std::string arch(linuxArchitectureName(currentArchitecture()));
    const std::pair<std::string, std::string> bad[] = {
        {R"({"python": {")" + arch + R"(": {"version": "1", "archive_name": "a", "url": "u"}}})",
         "needs a non-empty string \"sha256\""},
        {R"({"python": {")" + arch +
             R"(": {"version": "1", "archive_name": "a", "url": "u", "sha256": "beef"}}})",
         "is not 64 hex digits"},
        {R"({"python": {")" + arch +
             R"(": {"version": "../up", "archive_name": "a", "url": "u", "sha256": ")" +
             std::string(64, 'b') + R"("}}})",
         "can't name a folder"},
        {"[1, 2]", "must be a JSON object"},
        {"{not json", "The runtime catalogue " + catalogue.string() + " can't be used: "},
    };
    for (const auto& [text, words] : bad) {
        testing::writeTextFile(catalogue, text);
        try {
            managedRuntimeDescriptor(ScriptRuntime::python, currentArchitecture(), sources);
            ADD_FAILURE() << text;
        } catch (const RuntimeCatalogError& error) {
            EXPECT_NE(std::string(error.what()).find(words), std::string::npos) << error.what();
        }
    }
}

TEST(ChecksumListTest, FindsTheArchiveInThePublishersFormats) {
    const std::string list = "AAAA  other.tar.gz\n"
                             "BBBB *node-v1-linux-x64.tar.gz\n"
                             "CCCC  release/cpython.tar.gz\n";
    EXPECT_EQ(checksumFromList(list, "node-v1-linux-x64.tar.gz"), "bbbb");
    EXPECT_EQ(checksumFromList(list, "cpython.tar.gz"), "cccc");
    EXPECT_EQ(checksumFromList(list, "missing.tar.gz"), std::nullopt);
    EXPECT_EQ(checksumFromList(list, "other.tar"), std::nullopt);
}

} // namespace
} // namespace quorlin

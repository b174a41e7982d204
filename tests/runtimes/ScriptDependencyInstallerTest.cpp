#include "core/runtimes/ScriptDependencyInstaller.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/ChildProcess.h"
#include "core/runtimes/ManagedRuntimeCatalog.h"
#include "core/runtimes/ScriptDependencyInstallerError.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/WorkflowFixture.h"

#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using ::testing::HasSubstr;

constexpr const char* requirements = "scripts/requirements.txt";

// Everything the folder's parent holds but the lock file: a leftover staging or replaced
// folder would show here.
std::vector<std::string> siblings(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.parent_path())) {
        if (entry.path().extension() != ".lock") {
            names.push_back(entry.path().filename().string());
        }
    }
    return names;
}

// pip finds packages only among the wheels a test builds into <root>/wheels.
struct OfflinePip {
    explicit OfflinePip(const std::filesystem::path& root)
        : noIndex("PIP_NO_INDEX", "1"), links("PIP_FIND_LINKS", (root / "wheels").string()),
          cache("PIP_CACHE_DIR", (root / "pip-cache").string()) {}

    testing::ScopedEnvironment noIndex;
    testing::ScopedEnvironment links;
    testing::ScopedEnvironment cache;
};

class ScriptDependencyInstallerTest : public ::testing::Test {
protected:
    // An installer whose Python launcher beside the executable is the given program; none
    // when absent. No managed runtime is installed in the fixture's data root.
    ScriptDependencyInstaller installer(const std::optional<std::filesystem::path>& launcher =
                                            testing::systemInterpreter("python")) const {
        auto resources = fixture.resources();
        if (launcher) {
            const auto bin = fixture.root() / "bin";
            std::filesystem::create_directories(bin);
            std::filesystem::remove(bin / "quorlin-python");
            std::filesystem::create_symlink(*launcher, bin / "quorlin-python");
            resources.executableDirectory = bin;
        }
        return ScriptDependencyInstaller(WorkflowBundleLocator(resources, fixture.paths()));
    }

    // A shell script to stand in for pip; it finds the --target folder in $target.
    std::filesystem::path fakePip(const std::string& body) const {
        const auto script = fixture.root() / "fake-pip";
        testing::writeTextFile(script, "#!/bin/sh\n"
                                       "while [ $# -gt 0 ]; do\n"
                                       "  [ \"$1\" = --target ] && target=$2\n"
                                       "  shift\n"
                                       "done\n" +
                                           body);
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);
        return script;
    }

    // Builds a wheel of `quorlintestpkg` whose VALUE is value into wheels/.
    void buildWheel(const std::string& version, const std::string& value) const {
        ChildProcessRequest request;
        request.executable = testing::systemInterpreter("python");
        request.arguments = {QUORLIN_RUNTIME_TEST_TOOLS "/make_wheel.py", wheels().string(),
                             "quorlintestpkg", version, value};
        ASSERT_EQ(runChildProcess(request).exitCode, 0);
    }

    // What `import quorlintestpkg` finds on the folder as PYTHONPATH.
    std::string installedValue() const {
        ChildProcessRequest request;
        request.executable = testing::systemInterpreter("python");
        request.arguments = {"-c", "import quorlintestpkg; print(quorlintestpkg.VALUE, end='')"};
        request.environment = {{"PYTHONPATH", folder().string()}};
        return runChildProcess(request).standardOutput;
    }

    std::filesystem::path wheels() const { return fixture.root() / "wheels"; }
    std::filesystem::path folder() const {
        return fixture.paths().pythonDependenciesDirectory("flow");
    }
    bool hasMarker() const { return std::filesystem::exists(folder() / dependencyMarkerFileName); }

    testing::WorkflowFixture fixture;
    const ScriptDependencyWorkflow flow{"flow", std::nullopt};
};

TEST_F(ScriptDependencyInstallerTest, AWorkflowWithoutAManifestNeedsNothingNotEvenARuntime) {
    testing::ScopedEnvironment noNpm("PATH", "/nonexistent");
    const auto none = installer(std::nullopt);
    EXPECT_EQ(none.installPythonDependencies(flow),
              "flow has no scripts/requirements.txt; no Python workflow dependencies needed.");
    EXPECT_EQ(none.installNodeDependencies(flow),
              "flow has no scripts/package.json; no Node workflow dependencies needed.");
    for (const auto runtime : allScriptRuntimes) {
        EXPECT_EQ(none.installDependenciesIfNeeded(flow, runtime), std::nullopt);
        const auto status = none.dependencyStatus(flow, runtime);
        EXPECT_EQ(status.condition, ScriptDependencyCondition::notNeeded);
        EXPECT_EQ(status.folder, std::nullopt);
    }
    EXPECT_EQ(none.installDependenciesIfNeeded({"", std::nullopt}, ScriptRuntime::python),
              std::nullopt);
}

TEST_F(ScriptDependencyInstallerTest, WithNothingToInstallWithTheRuntimeIsNamed) {
    testing::ScopedEnvironment noNpm("PATH", "/nonexistent");
    fixture.writeBundleFile("flow", requirements, "requests\n");
    fixture.writeBundleFile("flow", "scripts/package.json", "{}\n");
    const std::pair<ScriptRuntime, std::string> cases[] = {
        {ScriptRuntime::python, "Download the Quorlin-managed Python runtime first."},
        {ScriptRuntime::node, "Download the Quorlin-managed Node runtime first."},
    };
    for (const auto& [runtime, text] : cases) {
        try {
            installer(std::nullopt).installDependenciesIfNeeded(flow, runtime);
            ADD_FAILURE() << text;
        } catch (const ScriptDependencyInstallerError& error) {
            EXPECT_EQ(error.kind(), ScriptDependencyInstallerError::Kind::runtimeNotInstalled);
            EXPECT_EQ(error.what(), text);
        }
    }
    EXPECT_FALSE(hasMarker());
}

TEST_F(ScriptDependencyInstallerTest, ManifestsComeFromTheInstalledBundleElseTheBundledOne) {
    const auto sut = installer(std::nullopt);
    const auto bundled = fixture.writeBundleFile("flow", requirements, "a\n");
    EXPECT_EQ(sut.workflowResourcePath(flow, requirements), bundled);

    const auto installed = fixture.paths().bundlesDirectory() / "flow" / "2.0.0";
    testing::writeTextFile(installed / "flow.yaml",
                           "flow:\n  id: flow\n  name: Flow\n  version: 2.0.0\n"
                           "  triggers: []\n  steps: []\n");
    testing::writeTextFile(installed.parent_path() / "active.json",
                           R"({"flow_id": "flow", "active_version": "2.0.0",)"
                           R"( "installed_at": "2026-11-23T10:00:00Z"})");
    EXPECT_EQ(sut.workflowResourcePath(flow, requirements), bundled) << "not in the installed one";
    testing::writeTextFile(installed / requirements, "b\n");
    EXPECT_EQ(sut.workflowResourcePath(flow, requirements), installed / requirements);

    // A run's own bundle is the only place looked at.
    const auto own = fixture.root() / "own-bundle";
    EXPECT_EQ(sut.workflowResourcePath({"flow", own}, requirements), std::nullopt);
    testing::writeTextFile(own / requirements, "c\n");
    EXPECT_EQ(sut.workflowResourcePath({"flow", own}, requirements), own / requirements);
}

TEST_F(ScriptDependencyInstallerTest, TheManagedRuntimeInstallsWhenItIsThere) {
    // Stand-ins for the managed interpreters: each writes the words it was given into the
    // folder it is told to install into.
    const auto record =
        "#!/bin/sh\nfor word; do\n"
        "  case $last in --target|--prefix) echo \"$*\" > \"$word/arguments\";; esac\n"
        "  last=$word\ndone\n";
    struct Case {
        ScriptRuntime runtime;
        const char* manifest;
        std::vector<const char*> files; // below the runtime's version folder
        const char* arguments;          // as the stand-in saw them, after the interpreter
    };
    const Case cases[] = {
        {ScriptRuntime::python, "scripts/requirements.txt", {"bin/python3"}, "-m pip install -r"},
        {ScriptRuntime::node,
         "scripts/package.json",
         {"bin/node", "lib/node_modules/npm/bin/npm-cli.js"},
         "npm-cli.js install --prefix"}};
    for (const auto& test : cases) {
        fixture.writeBundleFile("flow", test.manifest, "{}\n");
        const auto descriptor = managedRuntimeDescriptor(test.runtime);
        const auto root =
            fixture.paths().managedRuntimeVersionDirectory(test.runtime, descriptor.version);
        for (const auto* file : test.files) {
            testing::writeTextFile(root / file, record);
            std::filesystem::permissions(root / file, std::filesystem::perms::owner_all);
        }
        const auto sut = installer(std::nullopt);
        const auto interpreter = root / test.files.front();
        EXPECT_EQ(sut.installTool(test.runtime)->description(), interpreter.string());
        const auto log = test.runtime == ScriptRuntime::python ? sut.installPythonDependencies(flow)
                                                               : sut.installNodeDependencies(flow);
        EXPECT_THAT(log, HasSubstr("\nruntime: " + interpreter.string() + "\n"));
        const auto folder = sut.dependencyStatus(flow, test.runtime).folder.value();
        EXPECT_THAT(readFile(folder / "arguments"), HasSubstr(test.arguments));
    }
    const auto state = installer(std::nullopt).status();
    EXPECT_TRUE(state.pythonRuntimeInstalled);
    EXPECT_TRUE(state.nodeRuntimeInstalled);
    EXPECT_THAT(state.lastActionLog,
                HasSubstr(fixture.paths().managedRuntimesDirectory().string()));
}

TEST_F(ScriptDependencyInstallerTest, PipInstallsOnceAndAgainWhenOneByteChanges) {
    buildWheel("1.0.0", "one");
    buildWheel("1.0.1", "two");
    const OfflinePip offline(fixture.root());
    const auto manifest = fixture.writeBundleFile("flow", requirements, "quorlintestpkg==1.0.0\n");
    const auto sut = installer();
    std::string printed;
    const auto output = [&printed](std::string_view text) { printed += text; };

    EXPECT_EQ(sut.installPythonDependencies(flow, {}, output),
              "Python workflow dependencies installed\nworkflow: flow\nruntime: " +
                  (fixture.root() / "bin" / "quorlin-python").string() +
                  " (the system's Python, not Quorlin-managed)\ntarget: " + folder().string());
    EXPECT_THAT(printed, HasSubstr("Successfully installed quorlintestpkg-1.0.0"));
    EXPECT_EQ(installedValue(), "one");
    EXPECT_EQ(sut.dependencyStatus(flow, ScriptRuntime::python).condition,
              ScriptDependencyCondition::current);

    printed.clear();
    EXPECT_EQ(sut.installDependenciesIfNeeded(flow, ScriptRuntime::python, {}, output),
              "Python workflow dependencies are up to date\nworkflow: flow\ntarget: " +
                  folder().string());
    EXPECT_EQ(printed, "") << "pip ran although nothing changed";

    testing::writeTextFile(manifest, "quorlintestpkg==1.0.1\n");
    EXPECT_EQ(sut.dependencyStatus(flow, ScriptRuntime::python).condition,
              ScriptDependencyCondition::outOfDate);
    EXPECT_THAT(sut.installPythonDependencies(flow), HasSubstr("dependencies installed"));
    EXPECT_EQ(installedValue(), "two");
    EXPECT_THAT(siblings(folder()), ::testing::ElementsAre("flow"));
}

TEST_F(ScriptDependencyInstallerTest, HashPinnedRequirementsAreChecked) {
    buildWheel("1.0.0", "one");
    const OfflinePip offline(fixture.root());
    ChildProcessRequest hash;
    hash.executable = "/usr/bin/sha256sum";
    hash.arguments = {(wheels() / "quorlintestpkg-1.0.0-py3-none-any.whl").string()};
    const auto digest = runChildProcess(hash).standardOutput.substr(0, 64);

    const std::pair<std::string, bool> cases[] = {
        {digest, true},
        {std::string(64, '0'), false},
    };
    for (const auto& [pinned, installs] : cases) {
        fixture.writeBundleFile("flow", requirements,
                                "# pinned\nquorlintestpkg==1.0.0 --hash=sha256:" + pinned + "\n");
        try {
            EXPECT_THAT(installer().installPythonDependencies(flow), HasSubstr("installed"));
            EXPECT_TRUE(installs) << "a wrong hash was accepted";
        } catch (const ScriptDependencyInstallerError& error) {
            EXPECT_FALSE(installs) << error.what();
            EXPECT_THAT(error.what(), HasSubstr("DO NOT MATCH THE HASHES"));
            EXPECT_NE(installer().dependencyStatus(flow, ScriptRuntime::python).condition,
                      ScriptDependencyCondition::current);
        }
    }
}

TEST_F(ScriptDependencyInstallerTest, AFailingPipSaysWhyAndKeepsWhatWasInstalled) {
    buildWheel("1.0.0", "one");
    const OfflinePip offline(fixture.root());
    const auto manifest = fixture.writeBundleFile("flow", requirements, "quorlintestpkg\n");
    const auto sut = installer();
    sut.installPythonDependencies(flow);

    testing::writeTextFile(manifest, "quorlintestpkg\nno-such-package-anywhere\n");
    try {
        sut.installPythonDependencies(flow);
        ADD_FAILURE() << "pip did not fail";
    } catch (const ScriptDependencyInstallerError& error) {
        EXPECT_EQ(error.kind(), ScriptDependencyInstallerError::Kind::processFailed);
        EXPECT_THAT(error.what(), HasSubstr("No matching distribution found for "
                                            "no-such-package-anywhere"));
    }
    EXPECT_EQ(installedValue(), "one");
    EXPECT_EQ(sut.dependencyStatus(flow, ScriptRuntime::python).condition,
              ScriptDependencyCondition::outOfDate)
        << "the next run must try again";
    EXPECT_THAT(siblings(folder()), ::testing::ElementsAre("flow"));
}

TEST_F(ScriptDependencyInstallerTest, AFailedOrStoppedInstallLeavesNothingHalfInstalled) {
    struct Case {
        const char* name;
        std::string script;
        bool stopWhenStarted;
        std::string error;
    };
    const Case cases[] = {
        {"fails", "touch \"$target/half\"\necho 'ERROR: pip says no'\nexit 1\n", false,
         "ERROR: pip says no"},
        {"fails silently", "touch \"$target/half\"\nexit 3\n", false,
         "pip exited with status 3 and printed nothing."},
        {"stopped", "touch \"$target/half\"\necho started\nexec sleep 600\n", true,
         "The run was cancelled."},
    };
    fixture.writeBundleFile("flow", requirements, "anything\n");
    for (const auto& test : cases) {
        testing::writeTextFile(folder() / "earlier.txt", "kept");
        std::stop_source stop;
        const auto output = [&](std::string_view text) {
            if (test.stopWhenStarted && text.find("started") != std::string_view::npos) {
                stop.request_stop();
            }
        };
        try {
            installer(fakePip(test.script))
                .installPythonDependencies(flow, stop.get_token(), output);
            ADD_FAILURE() << test.name;
        } catch (const Error& error) {
            EXPECT_EQ(error.what(), test.error) << test.name;
        }
        EXPECT_TRUE(std::filesystem::exists(folder() / "earlier.txt")) << test.name;
        EXPECT_FALSE(std::filesystem::exists(folder() / "half")) << test.name;
        EXPECT_FALSE(hasMarker()) << test.name;
        EXPECT_THAT(siblings(folder()), ::testing::ElementsAre("flow")) << test.name;
    }
}

TEST_F(ScriptDependencyInstallerTest, InstallsOfOneFolderTakeTurnsAndTheSecondFindsItDone) {
    fixture.writeBundleFile("flow", requirements, "anything\n");
    const auto runs = fixture.root() / "runs";
    const auto go = fixture.root() / "go";
    const auto sut = installer(fakePip("echo run >> '" + runs.string() +
                                       "'\necho started\n"
                                       // bounded, so that a broken lock fails rather than hangs
                                       "i=0; while [ ! -e '" +
                                       go.string() +
                                       "' ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i+1)); done\n"));
    std::promise<void> started;
    std::string first;
    std::thread holder([&] {
        first = sut.installPythonDependencies(flow, {}, [&started](std::string_view text) {
            if (text.find("started") != std::string_view::npos) {
                started.set_value();
            }
        });
    });
    started.get_future().wait();
    const auto second = sut.installPythonDependencies(flow, {}, [&go](std::string_view text) {
        if (text.find("Waiting for another install") != std::string_view::npos) {
            testing::writeTextFile(go, "");
        }
    });
    holder.join();
    EXPECT_THAT(first, HasSubstr("dependencies installed"));
    EXPECT_THAT(second, HasSubstr("dependencies are up to date"));
    EXPECT_EQ(readFile(runs), "run\n") << "pip ran twice";
}

} // namespace
} // namespace quorlin

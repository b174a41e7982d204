#include "core/definitions/WorkflowRegistry.h"
#include "core/execution/DefaultScriptRunner.h"
#include "tests/support/WorkflowFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

std::string flowYaml(const std::string& id, const std::string& version, const std::string& name = "Flow") {
    return "flow:\n  id: " + id + "\n  name: " + name + "\n  version: " + version +
           "\n  triggers: []\n  steps:\n    - id: s\n      name: S\n      type: script-run\n"
           "      config: {runtime: python, entrypoint: step.py}\n";
}

std::string manifestYaml(const std::string& id, const std::string& version) {
    return "plugin:\n  id: " + id + "\n  version: " + version + "\n  display_name: " + id +
           "\n  entrypoint: flow.yaml\n  runtime_requirements: []\n  permissions: []\n  artifacts: []\n";
}

class WorkflowBundleLocatorTest : public ::testing::Test {
protected:
    // Writes an installed version and, when active, the activation record naming it.
    void install(const std::string& id, const std::string& folder, const std::string& version,
                 bool activate, const std::string& stepScript = "print('installed')\n") {
        const auto flowDirectory = fixture.paths().bundlesDirectory() / id;
        testing::writeTextFile(flowDirectory / folder / "flow.yaml", flowYaml(id, version, "Installed " + id));
        testing::writeTextFile(flowDirectory / folder / "manifest.yaml", manifestYaml(id, version));
        testing::writeTextFile(flowDirectory / folder / "step.py", stepScript);
        if (activate) {
            testing::writeTextFile(flowDirectory / "active.json",
                                   R"({"flow_id": ")" + id + R"(", "active_version": ")" + version +
                                       R"(", "installed_at": "2026-11-23T10:00:00Z"})");
        }
    }

    void bundle(const std::string& folder, const std::string& id) {
        fixture.writeBundleFile(folder, "flow.yaml", flowYaml(id, "1.0.0", "Bundled " + id));
        fixture.writeBundleFile(folder, "step.py", "print('bundled')\n");
    }

    std::vector<std::string> available() const {
        std::vector<std::string> names;
        for (const auto& reference : fixture.locator().availableWorkflowReferences()) {
            names.push_back(std::string(rawValue(reference.source)) + ":" + reference.flowID + "@" +
                            reference.version);
        }
        return names;
    }

    testing::WorkflowFixture fixture;
};

TEST_F(WorkflowBundleLocatorTest, InstalledShadowsBundledAndSortsFirst) {
    bundle("a-folder", "a");
    bundle("c-folder", "c");
    install("a", "2.0.0", "2.0.0", true);
    install("b", "1.0.0", "1.0.0", true);
    EXPECT_THAT(available(), ::testing::ElementsAre("installed:a@2.0.0", "installed:b@1.0.0", "bundled:c@1.0.0"));

    std::filesystem::remove_all(fixture.paths().bundlesDirectory() / "a"); // what uninstall does
    EXPECT_THAT(available(), ::testing::ElementsAre("installed:b@1.0.0", "bundled:a@1.0.0", "bundled:c@1.0.0"));
}

TEST_F(WorkflowBundleLocatorTest, OnlyTheRecordedVersionIsActive) {
    install("x", "1.0.0", "1.0.0", false);
    install("x", "folder-name", "2.0.0", true); // the manifest's version counts, not the folder's
    install("y", "1.0.0", "1.0.0", false);      // no record: not available at all
    testing::writeTextFile(fixture.paths().bundlesDirectory() / "stray.txt", "ignored");
    testing::writeTextFile(fixture.paths().bundlesDirectory() / "z" / "active.json", "{ broken");
    install("z", "1.0.0", "1.0.0", false);

    EXPECT_THAT(available(), ::testing::ElementsAre("installed:x@2.0.0"));
    const auto all = fixture.locator().installedWorkflowReferences();
    EXPECT_EQ(all.size(), 4u);
    EXPECT_EQ(fixture.locator().activeInstalledWorkflowReference("x")->directory.filename(), "folder-name");
    EXPECT_FALSE(fixture.locator().activeInstalledWorkflowReference("z"));
}

TEST_F(WorkflowBundleLocatorTest, BrokenFilesAreListedAndFailOnlyWhenLoaded) {
    bundle("good", "good");
    fixture.writeBundleFile("broken-folder", "flow.yaml", "flow: [not a mapping\n");
    fixture.writeBundleFile("broken-folder", "manifest.yaml", "plugin: {}\n");
    EXPECT_THAT(available(), ::testing::ElementsAre("bundled:broken-folder@0.1.0", "bundled:good@1.0.0"));

    const WorkflowRegistry registry{WorkflowLoader(fixture.locator())};
    EXPECT_THROW(registry.availableEntries(), YamlError); // strict: one broken flow fails all
    std::filesystem::remove_all(fixture.root() / "resources" / "Workflows" / "broken-folder");
    const auto entries = registry.availableEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].document.flow.name, "Bundled good");
}

TEST_F(WorkflowBundleLocatorTest, LoaderFindsInstalledFirstAndScriptsRunFromThere) {
    bundle("a", "a");
    const WorkflowLoader loader(fixture.locator());
    EXPECT_EQ(loader.loadAvailableWorkflow("a").flow.name, "Bundled a");
    install("a", "3.0.0", "3.0.0", true);
    EXPECT_EQ(loader.loadAvailableWorkflow("a").flow.name, "Installed a");
    EXPECT_EQ(loader.loadBundledWorkflow("a").flow.name, "Bundled a");
    EXPECT_THROW(loader.loadInstalledWorkflow("nope"), WorkflowLoaderError);
    try {
        loader.availableWorkflowReference("nope");
        FAIL() << "expected workflowNotFound";
    } catch (const WorkflowLoaderError& error) {
        EXPECT_STREQ(error.what(), "Workflow not found: nope");
    }

    DefaultScriptRunner runner(fixture.locator(), [](ScriptRuntime) { return testing::systemInterpreter("python"); });
    ScriptInvocation call;
    call.workflowID = "a";
    call.spec.relativePath = "step.py";
    call.inputJSON = "{}";
    EXPECT_EQ(runner.run(call, {}).stdoutData, "installed\n");
}

TEST_F(WorkflowBundleLocatorTest, MissingResourceFolderIsReported) {
    const WorkflowBundleLocator locator(QuorlinResources{}, fixture.paths());
    EXPECT_THROW(locator.bundledWorkflowReferences(), WorkflowBundleLocatorError);
}

} // namespace
} // namespace quorlin

#include "core/definitions/WorkflowPackager.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowActivationRecord.h"
#include "core/definitions/WorkflowInstaller.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using testing::TemporaryDirectory;
using testing::writeTextFile;

const fs::path bundledWorkflows = fs::path(QUORLIN_SOURCE_RESOURCES_DIR) / "Workflows";

std::map<std::string, std::string> filesUnder(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files[entry.path().lexically_relative(root).generic_string()] = readFile(entry.path());
        }
    }
    return files;
}

// Runs a block with another working directory and puts the old one back.
void inDirectory(const fs::path& directory, const std::function<void()>& body) {
    const auto previous = fs::current_path();
    fs::current_path(directory);
    try {
        body();
    } catch (...) {
        fs::current_path(previous);
        throw;
    }
    fs::current_path(previous);
}

TEST(WorkflowPackager, BundledWorkflowsPackAndInstallUnchanged) {
    for (const auto& [flow, runtime] : std::vector<std::pair<std::string, ScriptRuntime>>{
             {"python-hello-world-v1", ScriptRuntime::python},
             {"node-hello-world-v1", ScriptRuntime::node}}) {
        SCOPED_TRACE(flow);
        const TemporaryDirectory directory;
        const auto source = bundledWorkflows / flow;
        const auto before = filesUnder(source);

        WorkflowPackResult packed;
        inDirectory(directory.path(), [&] { packed = WorkflowPackager().pack(source); });
        EXPECT_EQ(packed.packageFile, directory.path() / (flow + "-1.0.0.quorlinflow"));
        EXPECT_TRUE(packed.manifestGenerated);
        EXPECT_EQ(filesUnder(source), before) << "the source bundle must not change";

        const auto installed = WorkflowInstaller(AppSupportPaths(directory.path() / "root"))
                                   .installPackage(packed.packageFile);
        EXPECT_EQ(installed.flowID, flow);
        EXPECT_EQ(installed.version, "1.0.0");
        const auto& plugin = installed.manifest.plugin;
        EXPECT_EQ(plugin.entrypoint, "flow.yaml");
        EXPECT_EQ(plugin.runtimeRequirements,
                  (std::vector<PluginRuntimeRequirement>{{runtime, std::nullopt}}));
        auto files = filesUnder(installed.installDirectory);
        EXPECT_EQ(files.size(), before.size() + 2);
        EXPECT_EQ(files.erase("manifest.yaml") + files.erase("checksums.sha256"), 2U);
        EXPECT_EQ(files, before);
        EXPECT_EQ(packed.fileCount, before.size() + 2);
    }
}

TEST(WorkflowPackager, AnAuthorsManifestIsKeptAndAStaleListingReplaced) {
    const TemporaryDirectory directory;
    const auto bundle = directory.path() / "bundle";
    fs::copy(bundledWorkflows / "python-hello-world-v1", bundle, fs::copy_options::recursive);
    const std::string manifest = "# written by hand\nplugin:\n  id: python-hello-world-v1\n"
                                 "  version: 1.0.0\n  display_name: Hand made\n"
                                 "  entrypoint: flow.yaml\n  author: Someone\n"
                                 "  runtime_requirements: [{runtime: python, version: '3.12'}]\n"
                                 "  permissions: [files.read]\n  artifacts: []\n"
                                 "  checksums: {file: meta/sums.txt}\n";
    writeTextFile(bundle / "manifest.yaml", manifest);
    writeTextFile(bundle / "meta" / "sums.txt", "stale\n");

    const auto packed = WorkflowPackager().pack(bundle, directory.path() / "out.quorlinflow");
    EXPECT_FALSE(packed.manifestGenerated);
    const auto installed = WorkflowInstaller(AppSupportPaths(directory.path() / "root"))
                               .installPackage(packed.packageFile);
    EXPECT_EQ(readFile(installed.installDirectory / "manifest.yaml"), manifest);
    EXPECT_EQ(installed.manifest.plugin.author, "Someone");
    EXPECT_THAT(readFile(installed.installDirectory / "meta" / "sums.txt"),
                HasSubstr("  manifest.yaml\n"));
}

TEST(WorkflowPackager, RefusesWhatTheInstallerWouldRefuse) {
    const std::string flow =
        "flow:\n  id: demo\n  name: Demo\n  version: 1.0.0\n  triggers: []\n  steps: []\n";
    const auto manifest = [](const std::string& id, const std::string& version,
                             const std::string& extra) {
        return "plugin:\n  id: " + id + "\n  version: " + version +
               "\n  display_name: Demo\n  entrypoint: flow.yaml\n  runtime_requirements: []\n"
               "  permissions: []\n  artifacts: []\n" +
               extra;
    };
    const std::string checksums = "  checksums: {file: checksums.sha256}\n";
    struct Case {
        std::string name;
        std::function<void(const fs::path&)> prepare;
        std::string message;
    };
    const std::vector<Case> cases{
        {"symbolic link",
         [](const fs::path& bundle) { fs::create_symlink("flow.yaml", bundle / "link.yaml"); },
         "Workflow plugin must not contain a symbolic link: link.yaml"},
        {"unsafe name", [](const fs::path& bundle) { writeTextFile(bundle / "a\\b.txt", "x"); },
         "Workflow plugin contains an unsafe path: a\\b.txt"},
        {"fifo", [](const fs::path& bundle) { ::mkfifo((bundle / "pipe").c_str(), 0600); },
         "Only regular files and folders can be packed: pipe"},
        {"manifest id",
         [&](const fs::path& bundle) {
             writeTextFile(bundle / "manifest.yaml", manifest("other", "1.0.0", checksums));
         },
         "Invalid workflow manifest: plugin.id must match flow.id"},
        {"manifest version",
         [&](const fs::path& bundle) {
             writeTextFile(bundle / "manifest.yaml", manifest("demo", "2.0.0", checksums));
         },
         "Invalid workflow manifest: plugin.version must match flow.version"},
        {"manifest without checksums",
         [&](const fs::path& bundle) {
             writeTextFile(bundle / "manifest.yaml", manifest("demo", "1.0.0", ""));
         },
         "manifest.yaml must name its checksum file (checksums: file: checksums.sha256)"},
        {"no workflow", [](const fs::path& bundle) { fs::remove(bundle / "flow.yaml"); },
         "Not a workflow bundle (no flow.yaml or manifest.yaml): "},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        const TemporaryDirectory directory;
        const auto bundle = directory.path() / "bundle";
        writeTextFile(bundle / "flow.yaml", flow);
        testCase.prepare(bundle);
        const auto output = directory.path() / "out.quorlinflow";
        try {
            WorkflowPackager().pack(bundle, output);
            ADD_FAILURE() << "packed";
        } catch (const Error& error) {
            EXPECT_THAT(error.what(), ::testing::StartsWith(testCase.message));
        }
        EXPECT_FALSE(fs::exists(output));
    }
}

TEST(WorkflowPluginManifest, WrittenManifestsReadBackTheSame) {
    WorkflowPluginManifest full;
    full.plugin = {"id-1",
                   "2.0.0-beta",
                   "Quotes \" and \\ and\nnew lines, accents é, #hash: colon",
                   "flows/main.yaml",
                   "0.1.0",
                   "Ada",
                   "https://example.com/x?y=1&z=2",
                   {{ScriptRuntime::python, "3.12"}, {ScriptRuntime::node, std::nullopt}},
                   PluginDependencyPolicy{true, false},
                   {"network", "files.read"},
                   {{"out/report.pdf"}},
                   PluginChecksums{"checksums.sha256"}};
    WorkflowPluginManifest minimal;
    minimal.plugin.id = "true";
    minimal.plugin.version = "1.10";
    minimal.plugin.displayName = "null";
    minimal.plugin.entrypoint = "flow.yaml";
    minimal.plugin.dependencyPolicy = PluginDependencyPolicy{};
    for (const auto& manifest : {full, minimal}) {
        const auto text = manifestYaml(manifest);
        EXPECT_EQ(decodeWorkflowPluginManifestYaml(text), manifest) << text;
    }
}

TEST(WorkflowPluginManifest, MalformedManifestsNameWhereTheyFail) {
    const std::string head = "plugin:\n  id: a\n  version: '1'\n  display_name: A\n"
                             "  entrypoint: flow.yaml\n";
    const std::vector<std::pair<std::string, std::string>> cases{
        {"plugin: []\n", "Expected a mapping at plugin, found a sequence"},
        {"other: 1\n", "Missing required key 'plugin' at the document root"},
        {head + "  runtime_requirements: [{runtime: ruby}]\n  permissions: []\n  artifacts: []\n",
         "Expected \"python\" or \"node\" at plugin.runtime_requirements[0].runtime"},
        {head + "  runtime_requirements: []\n  permissions: [[x]]\n  artifacts: []\n",
         "Expected text at plugin.permissions[0], found a sequence"},
        {head + "  runtime_requirements: []\n  permissions: []\n  artifacts: [{}]\n",
         "Missing required key 'path' at plugin.artifacts[0]"},
        {head + "  runtime_requirements: []\n  permissions: []\n  artifacts: []\n"
                "  dependency_policy: {install_on_first_run: maybe}\n",
         "Expected a boolean at plugin.dependency_policy.install_on_first_run, found \"maybe\""},
        {head + "  runtime_requirements: []\n  permissions: []\n  artifacts: []\n"
                "  checksums: {}\n",
         "Missing required key 'file' at plugin.checksums"},
    };
    for (const auto& [text, message] : cases) {
        try {
            decodeWorkflowPluginManifestYaml(text);
            ADD_FAILURE() << "decoded " << text;
        } catch (const DecodingError& error) {
            EXPECT_THAT(error.what(), HasSubstr(message));
        }
    }
}

TEST(WorkflowActivationRecord, ReadsItsThreeKeysAndNothingLess) {
    const WorkflowActivationRecord record{"flow", "1.0.0", "2024-05-01T10:00:00Z"};
    EXPECT_EQ(
        toJson(record).dump(),
        R"({"flow_id":"flow","active_version":"1.0.0","installed_at":"2024-05-01T10:00:00Z"})");
    EXPECT_EQ(decodeWorkflowActivationRecord(toJson(record).dump(2)), record);
    EXPECT_EQ(decodeWorkflowActivationRecord(
                  R"({"installed_at":"t","active_version":"v","flow_id":"f","extra":1})"),
              (WorkflowActivationRecord{"f", "v", "t"}));

    const std::vector<std::pair<std::string, std::string>> malformed{
        {"", "Invalid JSON"},
        {"{\"flow_id\":", "Invalid JSON"},
        {"[]", "Expected an object at the document root, found an array"},
        {R"({"flow_id":"f","active_version":"v"})",
         "Missing required key 'installed_at' at the document root"},
        {R"({"flow_id":"f","active_version":2,"installed_at":"t"})",
         "Expected text at active_version, found 2"},
        {R"({"flow_id":null,"active_version":"v","installed_at":"t"})",
         "Expected text at flow_id, found null"},
    };
    for (const auto& [text, message] : malformed) {
        try {
            decodeWorkflowActivationRecord(text);
            ADD_FAILURE() << "decoded " << text;
        } catch (const Error& error) {
            EXPECT_THAT(error.what(), HasSubstr(message)) << text;
        }
    }
}

} // namespace
} // namespace quorlin

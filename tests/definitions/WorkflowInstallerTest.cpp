#include "core/definitions/WorkflowInstaller.h"

#include "core/definitions/WorkflowActivationRecord.h"
#include "core/definitions/WorkflowVersionPlacement.h"
#include "core/foundation/Archive.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Sha256.h"
#include "core/foundation/Text.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace quorlin {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryDirectory;
using testing::writeTextFile;

const fs::path packagesDirectory = fs::path(QUORLIN_TEST_DATA_DIR) / "packages";

// Every file and folder under a directory with its content, to compare before and after.
std::map<std::string, std::string> snapshot(const fs::path& root) {
    std::map<std::string, std::string> tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const auto name = entry.path().lexically_relative(root).generic_string();
        tree[name] = entry.is_regular_file() ? readFile(entry.path()) : "<folder>";
    }
    return tree;
}

std::vector<std::string> relativeFiles(const fs::path& root) {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path().lexically_relative(root).generic_string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Builds the package a case folder describes (see tests/data/packages/README.md).
class PackageCaseBuilder {
public:
    PackageCaseBuilder(const fs::path& caseDirectory, const fs::path& work)
        : caseDirectory_(caseDirectory), work_(work), bundle_(work / "bundle") {
        const auto description = caseDirectory / "case.json";
        spec_ = fs::exists(description) ? nlohmann::json::parse(readFile(description))
                                        : nlohmann::json::object();
    }

    const nlohmann::json& spec() const { return spec_; }

    fs::path build() {
        fs::create_directories(work_);
        fs::copy(packagesDirectory / "_base", bundle_, fs::copy_options::recursive);
        if (fs::exists(caseDirectory_ / "bundle")) {
            fs::copy(caseDirectory_ / "bundle", bundle_,
                     fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        }
        for (const auto& removed : spec_.value("remove", nlohmann::json::array())) {
            fs::remove(bundle_ / removed.get<std::string>());
        }
        const auto modes = spec_.value("modes", nlohmann::json::object());
        for (const auto& [path, mode] : modes.items()) {
            fs::permissions(bundle_ / path, static_cast<fs::perms>(
                                                std::stoul(mode.get<std::string>(), nullptr, 8)));
        }
        writeListing();
        const auto tampered = spec_.value("after_listing", nlohmann::json::object());
        for (const auto& [path, text] : tampered.items()) {
            writeTextFile(bundle_ / path, text.get<std::string>());
        }
        const auto package = work_ / spec_.value("package_name", "hello.quorlinflow");
        if (spec_.contains("raw_package")) {
            writeTextFile(package, spec_["raw_package"].get<std::string>());
        } else {
            writeZip(package, entries());
        }
        return package;
    }

private:
    void writeListing() {
        const std::string mode = spec_.value("listing", "generate");
        if (mode == "none") {
            return;
        }
        const auto unlisted = spec_.value("unlisted", std::vector<std::string>{});
        std::string listing;
        for (const auto& file : relativeFiles(bundle_)) {
            if (std::find(unlisted.begin(), unlisted.end(), file) == unlisted.end()) {
                auto hash = Sha256::hexOfFile(bundle_ / file);
                if (mode == "uppercase") {
                    std::transform(hash.begin(), hash.end(), hash.begin(),
                                   [](char c) { return static_cast<char>(std::toupper(c)); });
                }
                listing += hash + "  " + file + "\n";
            }
        }
        for (const auto& line : spec_.value("listing_lines", std::vector<std::string>{})) {
            listing += line + "\n";
        }
        writeTextFile(bundle_ / "checksums.sha256", listing);
    }

    std::vector<ZipEntrySource> entries() const {
        const std::string top = spec_.value("top_directory", "");
        const std::string prefix = top.empty() ? "" : top + "/";
        std::vector<ZipEntrySource> entries;
        if (!top.empty()) {
            entries.push_back({prefix, bundle_});
        }
        std::vector<fs::path> items(fs::recursive_directory_iterator(bundle_), {});
        std::sort(items.begin(), items.end());
        for (const auto& item : items) {
            const auto name = item.lexically_relative(bundle_).generic_string();
            entries.push_back({prefix + name + (fs::is_directory(item) ? "/" : ""), item});
        }
        std::size_t index = 0;
        for (const auto& extra : spec_.value("extra_entries", nlohmann::json::array())) {
            const auto source = work_ / "extras" / std::to_string(index++);
            if (extra.contains("symlink")) {
                fs::create_directories(source.parent_path());
                fs::create_symlink(extra["symlink"].get<std::string>(), source);
            } else {
                writeTextFile(source, extra["text"].get<std::string>());
            }
            entries.push_back({extra["name"].get<std::string>(), source});
        }
        return entries;
    }

    fs::path caseDirectory_;
    fs::path work_;
    fs::path bundle_;
    nlohmann::json spec_;
};

std::vector<std::string> packageCaseNames() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(packagesDirectory)) {
        const auto name = entry.path().filename().string();
        if (entry.is_directory() && !name.starts_with("_")) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A data root that already holds an installed flow, which no failed install may touch.
void seedDataRoot(const AppSupportPaths& paths) {
    const auto flow = paths.workflowPluginRootDirectory("already-installed");
    writeTextFile(flow / "0.9.0" / "flow.yaml", "flow: {id: already-installed}\n");
    writeTextFile(
        flow / "active.json",
        toJson(WorkflowActivationRecord{"already-installed", "0.9.0", "2024-01-01T00:00:00Z"})
            .dump());
}

class WorkflowInstallerPackageCase : public ::testing::TestWithParam<std::string> {};

TEST_P(WorkflowInstallerPackageCase, InstallsOrRefusesWithTheExactWords) {
    const auto caseDirectory = packagesDirectory / GetParam();
    const TemporaryDirectory directory;
    PackageCaseBuilder builder(caseDirectory, directory.path() / "work");
    const auto package = builder.build();
    const AppSupportPaths paths(directory.path() / "root");
    seedDataRoot(paths);
    const auto before = snapshot(paths.root());
    const auto limits = builder.spec().value("limits", nlohmann::json::object());
    const WorkflowInstaller installer(
        paths, ArchiveLimits{limits.value("max_entries", std::size_t{10'000}),
                             limits.value("max_bytes", std::uint64_t{1} << 30U)});
    const std::string expected = trimmed(readFile(caseDirectory / "expected.txt"));
    // A private system temp dir shows that the scratch directory goes away and that
    // nothing escaped into it.
    const auto temporary = directory.path() / "tmp";
    fs::create_directories(temporary);
    const testing::ScopedEnvironment privateTemporary("TMPDIR", temporary.string());

    if (expected.starts_with("installed ")) {
        const auto result = installer.installPackage(package);
        EXPECT_EQ("installed " + result.flowID + " " + result.version, expected);
        EXPECT_EQ(result.installDirectory,
                  paths.bundlesDirectory() / result.flowID / result.version);
        EXPECT_EQ(relativeFiles(result.installDirectory),
                  (std::vector<std::string>{"checksums.sha256", "flow.yaml", "manifest.yaml",
                                            "scripts/hello.py"}));
        // Whatever modes the package carried, only the owner may change what it installed.
        for (const auto& file : relativeFiles(result.installDirectory)) {
            const auto perms = fs::status(result.installDirectory / file).permissions();
            EXPECT_EQ(perms & (fs::perms::group_write | fs::perms::others_write |
                               fs::perms::set_uid | fs::perms::set_gid),
                      fs::perms::none)
                << file;
        }
        const auto record = decodeWorkflowActivationRecord(
            readFile(paths.bundlesDirectory() / result.flowID / "active.json"));
        EXPECT_EQ(record.flowID, result.flowID);
        EXPECT_EQ(record.activeVersion, result.version);
    } else {
        try {
            installer.installPackage(package);
            ADD_FAILURE() << "installed a package that should be refused";
        } catch (const WorkflowInstallerError& error) {
            EXPECT_EQ(error.what(), expected);
        }
        EXPECT_EQ(snapshot(paths.root()), before) << "the data root changed";
    }
    EXPECT_TRUE(fs::is_empty(temporary)) << "the scratch directory was left behind";
}

INSTANTIATE_TEST_SUITE_P(Packages, WorkflowInstallerPackageCase,
                         ::testing::ValuesIn(packageCaseNames()), [](const auto& param) {
                             std::string name = param.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

// A package made from a bundle directory, with the listing the installer expects.
fs::path makePackage(const fs::path& work, const std::map<std::string, std::string>& files,
                     const std::string& name) {
    const auto bundle = work / (name + "-bundle");
    std::string listing;
    std::vector<ZipEntrySource> entries;
    for (const auto& [path, text] : files) {
        writeTextFile(bundle / path, text);
        listing += Sha256::hexOf(text) + "  " + path + "\n";
        entries.push_back({path, bundle / path});
    }
    writeTextFile(bundle / "checksums.sha256", listing);
    entries.push_back({"checksums.sha256", bundle / "checksums.sha256"});
    const auto package = work / (name + ".quorlinflow");
    writeZip(package, entries);
    return package;
}

std::map<std::string, std::string> helloFiles(const std::string& version,
                                              const std::string& extraFile) {
    return {{"flow.yaml", "flow:\n  id: hello\n  name: Hello\n  version: " + version +
                              "\n  triggers: []\n  steps: []\n"},
            {"manifest.yaml", "plugin:\n  id: hello\n  version: " + version +
                                  "\n  display_name: Hello\n  entrypoint: flow.yaml\n"
                                  "  runtime_requirements: []\n  permissions: []\n"
                                  "  artifacts: []\n  checksums: {file: checksums.sha256}\n"},
            {extraFile, "only in this build\n"}};
}

TEST(WorkflowInstaller, ReinstallReplacesTheVersionAndNewVersionsBecomeActive) {
    const TemporaryDirectory directory;
    const AppSupportPaths paths(directory.path() / "root");
    const WorkflowInstaller installer(paths);
    const auto flow = paths.bundlesDirectory() / "hello";

    installer.installPackage(makePackage(directory.path(), helloFiles("1.0.0", "old.txt"), "a"));
    // An older record shows that reinstalling writes a fresh one.
    writeFileAtomically(
        flow / "active.json",
        toJson(WorkflowActivationRecord{"hello", "0.1.0", "2000-01-01T00:00:00Z"}).dump());
    installer.installPackage(makePackage(directory.path(), helloFiles("1.0.0", "new.txt"), "b"));
    EXPECT_FALSE(fs::exists(flow / "1.0.0" / "old.txt"));
    EXPECT_TRUE(fs::exists(flow / "1.0.0" / "new.txt"));
    auto record = decodeWorkflowActivationRecord(readFile(flow / "active.json"));
    EXPECT_EQ(record.activeVersion, "1.0.0");
    EXPECT_NE(record.installedAt, "2000-01-01T00:00:00Z");

    installer.installPackage(makePackage(directory.path(), helloFiles("2.0.0", "new.txt"), "c"));
    record = decodeWorkflowActivationRecord(readFile(flow / "active.json"));
    EXPECT_EQ(record.activeVersion, "2.0.0");
    EXPECT_TRUE(fs::exists(flow / "1.0.0" / "flow.yaml")) << "older versions stay on disk";
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(flow)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"1.0.0", "2.0.0", "active.json"}))
        << "no staging or replaced copies are left";
}

TEST(WorkflowInstaller, UninstallRemovesEveryVersionAndRefusesPaths) {
    const TemporaryDirectory directory;
    const AppSupportPaths paths(directory.path() / "root");
    const WorkflowInstaller installer(paths);
    installer.installPackage(makePackage(directory.path(), helloFiles("1.0.0", "x.txt"), "a"));
    installer.installPackage(makePackage(directory.path(), helloFiles("2.0.0", "x.txt"), "b"));

    EXPECT_TRUE(installer.uninstallWorkflow("hello"));
    EXPECT_FALSE(fs::exists(paths.bundlesDirectory() / "hello"));
    EXPECT_FALSE(installer.uninstallWorkflow("hello")) << "not installed is not an error";

    writeTextFile(paths.root() / "keep.txt", "precious");
    for (const std::string id : {"..", ".", "", "a/b", "../root", "~"}) {
        try {
            installer.uninstallWorkflow(id);
            ADD_FAILURE() << "accepted " << id;
        } catch (const WorkflowInstallerError& error) {
            EXPECT_EQ(error.what(), "Not a valid workflow id: " + id);
        }
    }
    EXPECT_TRUE(fs::exists(paths.root() / "keep.txt"));
}

// A placement that is not committed (the activation record could not be written, the
// copy failed) leaves the flow's directory as it found it.
TEST(WorkflowVersionPlacement, WithoutCommitEverythingIsPutBack) {
    const TemporaryDirectory directory;
    const auto package = directory.path() / "package";
    writeTextFile(package / "flow.yaml", "new\n");
    const auto flows = directory.path() / "bundles";
    writeTextFile(flows / "existing" / "1.0.0" / "flow.yaml", "old\n");
    writeTextFile(flows / "existing" / "active.json", "{}");
    const auto before = snapshot(flows);

    {
        WorkflowVersionPlacement placement(flows / "existing", "1.0.0");
        placement.place(package);
        EXPECT_EQ(readFile(flows / "existing" / "1.0.0" / "flow.yaml"), "new\n");
    }
    {
        WorkflowVersionPlacement placement(flows / "fresh", "1.0.0");
        placement.place(package);
    }
    {
        WorkflowVersionPlacement placement(flows / "existing", "1.0.0");
        EXPECT_THROW(placement.place(directory.path() / "no-such-package"), fs::filesystem_error);
    }
    EXPECT_EQ(snapshot(flows), before);

    {
        WorkflowVersionPlacement placement(flows / "existing", "1.0.0");
        placement.place(package);
        placement.commit();
    }
    EXPECT_EQ(snapshot(flows / "existing"),
              (std::map<std::string, std::string>{
                  {"1.0.0", "<folder>"}, {"1.0.0/flow.yaml", "new\n"}, {"active.json", "{}"}}));
}

} // namespace
} // namespace quorlin

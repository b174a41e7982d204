#include "core/definitions/AppSupportPaths.h"

#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <optional>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

using testing::ScopedEnvironment;

TEST(AppSupportPaths, RootComesFromTheOverrideThenXdgThenHome) {
    testing::TemporaryDirectory home;
    ScopedEnvironment homeVariable("HOME", home.path().string());
    {
        ScopedEnvironment root("QUORLIN_APP_SUPPORT_ROOT",
                               "  " + (home.path() / "custom").string() + "\n");
        ScopedEnvironment xdg("XDG_DATA_HOME", (home.path() / "xdg").string());
        EXPECT_EQ(AppSupportPaths::fromEnvironment().root(), home.path() / "custom");
    }
    {
        ScopedEnvironment root("QUORLIN_APP_SUPPORT_ROOT", "relative/root");
        EXPECT_EQ(AppSupportPaths::fromEnvironment().root(),
                  std::filesystem::current_path() / "relative/root");
    }
    {
        ScopedEnvironment root("QUORLIN_APP_SUPPORT_ROOT", "   ");
        ScopedEnvironment xdg("XDG_DATA_HOME", (home.path() / "xdg").string());
        EXPECT_EQ(AppSupportPaths::fromEnvironment().root(), home.path() / "xdg" / "Quorlin");
    }
    {
        ScopedEnvironment root("QUORLIN_APP_SUPPORT_ROOT", std::nullopt);
        ScopedEnvironment xdg("XDG_DATA_HOME", "relative/ignored");
        EXPECT_EQ(AppSupportPaths::fromEnvironment().root(),
                  home.path() / ".local" / "share" / "Quorlin");
    }
}

TEST(AppSupportPaths, DirectoriesAreCreatedOnAskingAndFilesOnlyNamed) {
    testing::TemporaryDirectory scratch;
    const AppSupportPaths paths(scratch.path() / "not" / "yet" / "there");
    const auto output = paths.workflowOutputDirectory("receipts-v1", "Receipts Inbox!");
    EXPECT_EQ(output,
              paths.root() / "workflow-data" / "receipts-v1" / "outputs" / "Receipts_Inbox");
    EXPECT_TRUE(std::filesystem::is_directory(output));
    EXPECT_EQ(paths.workflowOutputDirectory("receipts-v1", "Receipts Inbox!"),
              output); // again: fine
    EXPECT_EQ(paths.nodeDependenciesDirectory("flow"),
              paths.root() / "script-dependencies" / "node" / "flow");
    EXPECT_EQ(paths.managedRuntimeVersionDirectory(ScriptRuntime::python, "3.10"),
              paths.root() / "managed-runtimes" / "python" / "3.10");
    EXPECT_FALSE(std::filesystem::exists(paths.root() / "managed-runtimes" / "python" / "3.10"));
    EXPECT_EQ(paths.databasePath(), paths.root() / "quorlin.sqlite");
    EXPECT_FALSE(std::filesystem::exists(paths.databasePath()));
}

TEST(AppSupportPaths, SanitizedFolderComponentCannotEscape) {
    const std::pair<std::string, std::string> cases[] = {
        {"Receipts Inbox!", "Receipts_Inbox"},
        {"../x", "x"},
        {"---", "default"},
        {"", "default"},
        {"a/b", "a_b"},
        {"日本語", "日本語"},
        {"  spaced out  ", "spaced_out"},
        {"..", "default"},
        {"Cafe\u0301 menu", "Cafe\u0301_menu"}, // a combining accent stays with its letter
        {"_-keep_inner-_", "keep_inner"},
    };
    for (const auto& [key, expected] : cases) {
        EXPECT_EQ(sanitizedWorkflowFolderComponent(key), expected) << key;
    }
}

} // namespace
} // namespace quorlin

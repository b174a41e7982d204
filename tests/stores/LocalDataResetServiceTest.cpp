#include "core/stores/LocalDataResetService.h"

#include "core/foundation/FileError.h"
#include "tests/support/TemporaryDirectory.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

namespace fs = std::filesystem;

// A secret store that may refuse either call, and notes what it was asked.
class RecordingKeychain final : public LocalDataResetKeychainDeleting {
public:
    bool refuseAll = false;
    bool refuseAccount = false;
    std::vector<std::string> calls;

    void deleteAll() override {
        calls.emplace_back("all");
        if (refuseAll) {
            throw std::runtime_error("the keyring is locked");
        }
    }
    void deleteAccount(const std::string& account) override {
        calls.push_back(account);
        if (refuseAccount) {
            throw std::runtime_error("no such account");
        }
    }
};

TEST(LocalDataResetServiceTest, TheFilesGoWhateverTheSecretStoreSays) {
    const struct {
        std::string name;
        bool refuseAll;
        bool refuseAccount;
        std::string clientID;
        std::vector<std::string> calls;
    } cases[] = {
        {"store cleared", false, false, "id", {"all"}},
        {"one account instead",
         true,
         false,
         "  client.apps  ",
         {"all", "refresh-token::client.apps"}},
        {"no client id", true, false, " ", {"all"}},
        {"both refuse", true, true, "id", {"all", "refresh-token::id"}},
    };
    for (const auto& c : cases) {
        const testing::TemporaryDirectory directory;
        const auto root = directory.path() / "any-name";
        directory.write("any-name/quorlin.sqlite", "db");
        directory.write("any-name/bundles/x/flow.yaml", "flow");
        auto keychain = std::make_shared<RecordingKeychain>();
        keychain->refuseAll = c.refuseAll;
        keychain->refuseAccount = c.refuseAccount;
        LocalDataResetService([root] { return root; }, keychain).resetAllLocalData(c.clientID);
        EXPECT_FALSE(fs::exists(root)) << c.name;
        EXPECT_TRUE(fs::exists(directory.path())) << c.name << ": only the data root goes";
        EXPECT_EQ(keychain->calls, c.calls) << c.name;
    }
}

TEST(LocalDataResetServiceTest, NoDataRootIsAlreadyResetAndARootErrorIsTheCallers) {
    const testing::TemporaryDirectory directory;
    const auto missing = directory.path() / "never-made";
    EXPECT_NO_THROW(
        LocalDataResetService([missing] { return missing; }, nullptr).resetAllLocalData(""));
    const LocalDataResetService failing(
        []() -> fs::path {
            throw FileError(FileError::Kind::createDirectoryFailed, "/root", "no");
        },
        nullptr);
    EXPECT_THROW(failing.resetAllLocalData("id"), FileError);
}

} // namespace
} // namespace quorlin

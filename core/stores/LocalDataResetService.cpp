#include "core/stores/LocalDataResetService.h"

#include "core/foundation/FileError.h"
#include "core/foundation/Text.h"

#include <exception>
#include <system_error>

namespace quorlin {

LocalDataResetService::LocalDataResetService(
    std::function<std::filesystem::path()> dataRoot,
    std::shared_ptr<LocalDataResetKeychainDeleting> keychain)
    : dataRoot_(std::move(dataRoot)), keychain_(std::move(keychain)) {}

void LocalDataResetService::resetAllLocalData(const std::string& currentGoogleClientID) const {
    try {
        deleteGoogleOAuthRefreshTokens(currentGoogleClientID);
    } catch (const std::exception&) {
        // The files go all the same: a reset the user asked for must not hang on the
        // secret store, and the tokens are useless without the settings beside them.
    }
    const auto root = dataRoot_();
    std::error_code error;
    if (!std::filesystem::exists(std::filesystem::symlink_status(root, error))) {
        return;
    }
    std::filesystem::remove_all(root, error);
    if (error) {
        throw FileError(FileError::Kind::writeFailed, root, error.message());
    }
}

void LocalDataResetService::deleteGoogleOAuthRefreshTokens(const std::string& clientID) const {
    if (!keychain_) {
        return;
    }
    try {
        keychain_->deleteAll();
    } catch (const std::exception&) {
        const auto account = trimmed(clientID);
        if (account.empty()) {
            throw;
        }
        keychain_->deleteAccount("refresh-token::" + account);
    }
}

} // namespace quorlin

#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace quorlin {

// What a reset needs of the secret store that holds the Google refresh tokens.
class LocalDataResetKeychainDeleting {
public:
    virtual ~LocalDataResetKeychainDeleting() = default;
    virtual void deleteAll() = 0;
    virtual void deleteAccount(const std::string& account) = 0;
};

// Wipes what the application keeps on this machine: the Google refresh tokens in the
// secret store, then the whole data root. One operation, no partial modes; it stops no
// run (the caller cancels those) and writes nothing back (the next start makes the
// defaults again).
class LocalDataResetService {
public:
    // dataRoot gives the data root or throws; keychain may be null where no secret store
    // holds anything yet.
    LocalDataResetService(std::function<std::filesystem::path()> dataRoot,
                          std::shared_ptr<LocalDataResetKeychainDeleting> keychain);

    // A secret store that refuses doesn't stop the reset of the files. A data root that
    // isn't there is already reset. Throws FileError when the root can't be removed; what
    // was removed by then stays removed.
    void resetAllLocalData(const std::string& currentGoogleClientID) const;

private:
    void deleteGoogleOAuthRefreshTokens(const std::string& clientID) const;

    std::function<std::filesystem::path()> dataRoot_;
    std::shared_ptr<LocalDataResetKeychainDeleting> keychain_;
};

} // namespace quorlin

#include "AppSettings.h"

#include "core/foundation/Text.h"

// The build sets both; a build without them ships no client of its own.
#ifndef QUORLIN_GOOGLE_CLIENT_ID
#define QUORLIN_GOOGLE_CLIENT_ID ""
#endif
#ifndef QUORLIN_GOOGLE_CLIENT_SECRET
#define QUORLIN_GOOGLE_CLIENT_SECRET ""
#endif

namespace quorlin {

bool GoogleAccountSettings::isConnected() const {
    return !trimmed(connectedEmail).empty();
}

const GoogleClientCredentials& builtInGoogleCredentials() {
    // This build has never shipped another client, so nothing is retired yet; when the
    // shipped ID is rotated, the old one goes here.
    static const GoogleClientCredentials credentials{QUORLIN_GOOGLE_CLIENT_ID, "",
                                                     QUORLIN_GOOGLE_CLIENT_SECRET};
    return credentials;
}

GoogleAccountSettings defaultGoogleAccountSettings(const GoogleClientCredentials& credentials) {
    GoogleAccountSettings account;
    account.clientID = credentials.clientID;
    account.clientSecret = credentials.clientSecret;
    return account;
}

AppSettings defaultAppSettings(const GoogleClientCredentials& credentials) {
    AppSettings settings;
    settings.googleAccount = defaultGoogleAccountSettings(credentials);
    return settings;
}

void repairGoogleClientCredentials(GoogleAccountSettings& account,
                                   const GoogleClientCredentials& credentials) {
    const auto clientID = trimmed(account.clientID);
    // An empty retired ID must not make every empty ID count as retired.
    const bool retired =
        !credentials.retiredClientID.empty() && clientID == credentials.retiredClientID;
    const bool secretMissing = trimmed(account.clientSecret).empty();
    if (clientID.empty() || retired) {
        account.clientID = credentials.clientID;
    }
    if (secretMissing || retired) {
        account.clientSecret = credentials.clientSecret;
    }
}

bool needsGoogleClientID(const AppSettings& settings) {
    return trimmed(settings.googleAccount.clientID).empty();
}

} // namespace quorlin

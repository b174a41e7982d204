#pragma once

#include <string>
#include <vector>

namespace quorlin {

struct GoogleAccountSettings {
    std::string clientID;
    std::string clientSecret;
    std::string connectedEmail;
    std::vector<std::string> grantedScopes;
    std::string gmailQuery = "newer_than:30d";
    std::string driveQuery = "trashed = false";

    // Whether an account has been connected: the e-mail, trimmed, is not empty.
    bool isConnected() const;

    friend bool operator==(const GoogleAccountSettings&, const GoogleAccountSettings&) = default;
};

// The application's own settings; a copy travels with every run.
struct AppSettings {
    bool launchAtLogin = true;
    bool showMenuBar = true;
    bool openWindowOnLaunch = false;
    bool startOllamaOnLaunch = false;
    std::string anthropicAPIKey;
    std::string ollamaURL = "http://localhost:11434";
    std::string localLLMModel = "qwen2.5:7b";
    GoogleAccountSettings googleAccount;
    std::string gmailAccessToken;
    bool gmailAuthorized = false;
    friend bool operator==(const AppSettings&, const AppSettings&) = default;
};

// The Google OAuth client the program ships with. A build may carry none (empty texts):
// then the user must enter a client of their own before connecting.
struct GoogleClientCredentials {
    std::string clientID;
    // An ID shipped earlier and since revoked; settings naming it are moved to clientID.
    // Empty when there is none.
    std::string retiredClientID;
    std::string clientSecret;
};

// The credentials compiled into this build (QUORLIN_GOOGLE_CLIENT_ID and
// QUORLIN_GOOGLE_CLIENT_SECRET at configure time).
const GoogleClientCredentials& builtInGoogleCredentials();

// The default records, with the given client filled in.
GoogleAccountSettings defaultGoogleAccountSettings(
    const GoogleClientCredentials& credentials = builtInGoogleCredentials());
AppSettings
defaultAppSettings(const GoogleClientCredentials& credentials = builtInGoogleCredentials());

// Brings the account's client up to date, as every read of the settings does: an empty
// or retired ID becomes the current one; an empty secret, or any secret paired with the
// retired ID, becomes the built-in one. Blanks only count for the test: a client the user
// entered is kept exactly as typed.
void repairGoogleClientCredentials(
    GoogleAccountSettings& account,
    const GoogleClientCredentials& credentials = builtInGoogleCredentials());

// True when no Google client ID is set (a build without built-in credentials): a front
// end asks for one before it offers to connect.
bool needsGoogleClientID(const AppSettings& settings);

} // namespace quorlin

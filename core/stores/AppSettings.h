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

} // namespace quorlin

#pragma once

#include "core/stores/AppSettings.h"

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin {

// The settings as JSON, keys equal to the field names. Every key is written, the
// account's too, so a file once saved is complete.
nlohmann::json appSettingsJson(const AppSettings& settings);

// The file's text: two-space indentation, keys sorted.
std::string encodeAppSettings(const AppSettings& settings);

// Reads settings from JSON. Each key may be missing (or null) and then takes its default;
// a key of the wrong type fails the whole read, and so does a "googleAccount" without all
// six of its keys. Keys the program doesn't know are ignored, and not kept. The client
// credentials are repaired on every read (repairGoogleClientCredentials).
// Throws DecodingError, naming the key ("googleAccount.grantedScopes[1]").
AppSettings
decodeAppSettings(const nlohmann::json& json,
                  const GoogleClientCredentials& credentials = builtInGoogleCredentials());

// The settings to show a person: appSettingsJson with the API key, the client secret and
// the access token masked (maskedSecret).
nlohmann::json maskedAppSettingsJson(const AppSettings& settings);

// A secret as it may be shown: "" for none, else the count of its characters, led by its
// first four when the secret is long enough (16 or more) that four give little away:
// "sk-a…(41 characters)", "…(8 characters)".
std::string maskedSecret(std::string_view secret);

// The paths of the fields one can set, in declared order, nested ones dotted
// ("googleAccount.clientID").
const std::vector<std::string>& appSettingsFieldPaths();

// Sets one field from text: "true" or "false" for a flag, text as it is for a string,
// comma-separated items (each trimmed, empty ones dropped) for a list.
// Throws AppSettingsError (unknownField, invalidValue); settings stay as they were then.
void setAppSettingsField(AppSettings& settings, std::string_view path, std::string_view value);

} // namespace quorlin

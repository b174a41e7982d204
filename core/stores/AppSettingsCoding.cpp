#include "AppSettingsCoding.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/RecordDecoding.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/stores/AppSettingsError.h"

#include <algorithm>
#include <array>
#include <variant>

namespace quorlin {

namespace {

using Json = nlohmann::json;
using FieldReference = std::variant<bool*, std::string*, std::vector<std::string>*>;

constexpr std::string_view accountKey = "googleAccount";
constexpr std::size_t quotedTextLimit = 60;
// A secret shorter than this shows no characters at all.
constexpr std::size_t revealingLength = 16;
constexpr std::size_t revealedCharacters = 4;

// One stored field: its key, the group it sits in (empty for the top level) and where it
// lives in the record. Coding, masking and setting all walk this one table, so a key is
// spelled once.
struct Field {
    std::string_view group;
    std::string_view key;
    FieldReference (*reference)(AppSettings&);
};

// In declared order, which is also the order of decoding.
const std::array<Field, 15> fields{{
    {{}, "launchAtLogin", [](AppSettings& s) -> FieldReference { return &s.launchAtLogin; }},
    {{}, "showMenuBar", [](AppSettings& s) -> FieldReference { return &s.showMenuBar; }},
    {{},
     "openWindowOnLaunch",
     [](AppSettings& s) -> FieldReference { return &s.openWindowOnLaunch; }},
    {{},
     "startOllamaOnLaunch",
     [](AppSettings& s) -> FieldReference { return &s.startOllamaOnLaunch; }},
    {{}, "anthropicAPIKey", [](AppSettings& s) -> FieldReference { return &s.anthropicAPIKey; }},
    {{}, "ollamaURL", [](AppSettings& s) -> FieldReference { return &s.ollamaURL; }},
    {{}, "localLLMModel", [](AppSettings& s) -> FieldReference { return &s.localLLMModel; }},
    {accountKey, "clientID",
     [](AppSettings& s) -> FieldReference { return &s.googleAccount.clientID; }},
    {accountKey, "clientSecret",
     [](AppSettings& s) -> FieldReference { return &s.googleAccount.clientSecret; }},
    {accountKey, "connectedEmail",
     [](AppSettings& s) -> FieldReference { return &s.googleAccount.connectedEmail; }},
    {accountKey, "grantedScopes",
     [](AppSettings& s) -> FieldReference { return &s.googleAccount.grantedScopes; }},
    {accountKey, "gmailQuery",
     [](AppSettings& s) -> FieldReference { return &s.googleAccount.gmailQuery; }},
    {accountKey, "driveQuery",
     [](AppSettings& s) -> FieldReference { return &s.googleAccount.driveQuery; }},
    {{}, "gmailAccessToken", [](AppSettings& s) -> FieldReference { return &s.gmailAccessToken; }},
    {{}, "gmailAuthorized", [](AppSettings& s) -> FieldReference { return &s.gmailAuthorized; }},
}};

std::string fieldPath(const Field& field) {
    return keyPath(std::string(field.group), field.key);
}

// What a JSON value holds, for "found ..." in error messages.
std::string describeJson(const Json& value) {
    if (value.is_object()) {
        return "an object";
    }
    if (value.is_array()) {
        return "an array";
    }
    if (value.is_string()) {
        const auto& text = value.get_ref<const std::string&>();
        if (text.size() <= quotedTextLimit) {
            return "\"" + text + "\"";
        }
        // Cut at a character boundary so the message stays valid UTF-8.
        std::size_t cut = quotedTextLimit;
        while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0U) == 0x80U) {
            --cut;
        }
        return "\"" + text.substr(0, cut) + "...\"";
    }
    return value.dump();
}

[[noreturn]] void throwMismatch(const Json& value, const std::string& path, std::string expected) {
    throw DecodingError(DecodingError::Kind::typeMismatch, path, std::move(expected),
                        describeJson(value));
}

void decodeInto(const FieldReference& reference, const Json& value, const std::string& path) {
    std::visit(
        [&](auto* target) {
            using Target = std::remove_pointer_t<decltype(target)>;
            if constexpr (std::is_same_v<Target, bool>) {
                if (!value.is_boolean()) {
                    throwMismatch(value, path, "a boolean");
                }
                *target = value.get<bool>();
            } else if constexpr (std::is_same_v<Target, std::string>) {
                if (!value.is_string()) {
                    throwMismatch(value, path, "text");
                }
                *target = value.get<std::string>();
            } else {
                if (!value.is_array()) {
                    throwMismatch(value, path, "an array");
                }
                Target items;
                for (std::size_t index = 0; index < value.size(); ++index) {
                    if (!value[index].is_string()) {
                        throwMismatch(value[index], indexPath(path, index), "text");
                    }
                    items.push_back(value[index].get<std::string>());
                }
                *target = std::move(items);
            }
        },
        reference);
}

Json encoded(const FieldReference& reference) {
    return std::visit([](auto* target) { return Json(*target); }, reference);
}

// The account is all or nothing: once present, every key must be there.
void decodeAccount(const Json& root, AppSettings& settings) {
    const auto found = root.find(accountKey);
    if (found == root.end() || found->is_null()) {
        return;
    }
    const std::string group(accountKey);
    if (!found->is_object()) {
        throwMismatch(*found, group, "an object");
    }
    for (const auto& field : fields) {
        if (field.group != accountKey) {
            continue;
        }
        const auto value = found->find(field.key);
        if (value == found->end()) {
            throw DecodingError(DecodingError::Kind::keyNotFound, group, std::string(field.key));
        }
        decodeInto(field.reference(settings), *value, fieldPath(field));
    }
}

bool parsedFlag(std::string_view text, bool& flag) {
    const auto word = lowercased(trimmed(text));
    flag = word == "true";
    return flag || word == "false";
}

std::vector<std::string> parsedList(std::string_view text) {
    std::vector<std::string> items;
    std::size_t start = 0;
    while (start <= text.size()) {
        const auto comma = std::min(text.find(',', start), text.size());
        if (auto item = trimmed(text.substr(start, comma - start)); !item.empty()) {
            items.push_back(std::move(item));
        }
        start = comma + 1;
    }
    return items;
}

} // namespace

Json appSettingsJson(const AppSettings& settings) {
    // The table hands out references to change; reading through a copy keeps this const.
    AppSettings source = settings;
    Json json = Json::object();
    for (const auto& field : fields) {
        auto& object = field.group.empty() ? json : json[field.group];
        object[field.key] = encoded(field.reference(source));
    }
    return json;
}

std::string encodeAppSettings(const AppSettings& settings) {
    return prettySortedJson(appSettingsJson(settings)) + "\n";
}

AppSettings decodeAppSettings(const Json& json, const GoogleClientCredentials& credentials) {
    if (!json.is_object()) {
        throwMismatch(json, "", "an object");
    }
    auto settings = defaultAppSettings(credentials);
    bool accountDecoded = false;
    for (const auto& field : fields) {
        if (field.group == accountKey) {
            // The repair comes right after the account, before the keys that follow it.
            if (!accountDecoded) {
                decodeAccount(json, settings);
                repairGoogleClientCredentials(settings.googleAccount, credentials);
                accountDecoded = true;
            }
            continue;
        }
        const auto value = json.find(field.key);
        if (value != json.end() && !value->is_null()) {
            decodeInto(field.reference(settings), *value, std::string(field.key));
        }
    }
    return settings;
}

Json maskedAppSettingsJson(const AppSettings& settings) {
    auto json = appSettingsJson(settings);
    json["anthropicAPIKey"] = maskedSecret(settings.anthropicAPIKey);
    json["gmailAccessToken"] = maskedSecret(settings.gmailAccessToken);
    json[accountKey]["clientSecret"] = maskedSecret(settings.googleAccount.clientSecret);
    return json;
}

std::string maskedSecret(std::string_view secret) {
    if (secret.empty()) {
        return {};
    }
    std::size_t characters = 0;
    std::size_t prefixEnd = 0;
    for (std::size_t index = 0; index < secret.size(); ++index) {
        // Count lead bytes only, so a multi-byte character is one and is never cut.
        if ((static_cast<unsigned char>(secret[index]) & 0xC0U) != 0x80U) {
            if (++characters == revealedCharacters + 1) {
                prefixEnd = index;
            }
        }
    }
    if (characters <= revealedCharacters) {
        prefixEnd = secret.size();
    }
    const auto shown = characters >= revealingLength ? secret.substr(0, prefixEnd) : "";
    return std::string(shown) + "\u2026(" + std::to_string(characters) +
           (characters == 1 ? " character)" : " characters)");
}

const std::vector<std::string>& appSettingsFieldPaths() {
    static const std::vector<std::string> paths = [] {
        std::vector<std::string> result;
        for (const auto& field : fields) {
            result.push_back(fieldPath(field));
        }
        return result;
    }();
    return paths;
}

void setAppSettingsField(AppSettings& settings, std::string_view path, std::string_view value) {
    const auto field = std::find_if(fields.begin(), fields.end(),
                                    [&](const Field& each) { return fieldPath(each) == path; });
    if (field == fields.end()) {
        throw AppSettingsError::unknownField(std::string(path), appSettingsFieldPaths());
    }
    std::visit(
        [&](auto* target) {
            using Target = std::remove_pointer_t<decltype(target)>;
            if constexpr (std::is_same_v<Target, bool>) {
                bool flag = false;
                if (!parsedFlag(value, flag)) {
                    throw AppSettingsError::invalidValue(std::string(path), std::string(value),
                                                         "true or false");
                }
                *target = flag;
            } else if constexpr (std::is_same_v<Target, std::string>) {
                *target = std::string(value);
            } else {
                *target = parsedList(value);
            }
        },
        field->reference(settings));
}

} // namespace quorlin

#include "cli/Commands.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/stores/AppSettingsCoding.h"
#include "core/stores/AppSettingsError.h"
#include "core/stores/AppSettingsStore.h"

#include <iostream>
#include <iterator>

namespace quorlin::cli {

namespace {

// The masked settings as "path: value" lines, in the order of the settable paths.
void printSettingLines(const nlohmann::json& masked) {
    for (const auto& path : appSettingsFieldPaths()) {
        const nlohmann::json* value = &masked;
        std::size_t start = 0;
        while (value != nullptr && start <= path.size()) {
            const auto dot = std::min(path.find('.', start), path.size());
            const auto key = path.substr(start, dot - start);
            value = value->is_object() && value->contains(key) ? &(*value)[key] : nullptr;
            start = dot + 1;
        }
        if (value != nullptr) {
            std::cout << path << ": "
                      << (value->is_string() ? value->get<std::string>() : value->dump()) << '\n';
        }
    }
}

// "-" reads the value from standard input, so a key never stands in the shell's history.
std::string settingValue(const std::string& word) {
    if (word != "-") {
        return word;
    }
    std::string text(std::istreambuf_iterator<char>(std::cin), {});
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

} // namespace

// The application's settings with the API key, secrets and tokens masked.
int settingsCommand(const ParsedArguments& arguments) {
    const AppSettingsStore store(AppSupportPaths::fromEnvironment());
    const auto settings = store.load();
    const auto masked = maskedAppSettingsJson(settings);
    if (arguments.has("--json")) {
        std::cout << prettySortedJson(masked) << '\n';
        return exitStatus::success;
    }
    printSettingLines(masked);
    std::cout << "\nSaved in " << store.settingsPath().string() << '\n';
    if (needsGoogleClientID(settings)) {
        std::cout << "Google sign-in needs a client ID: quorlin settings set "
                     "googleAccount.clientID <id>\n";
    }
    return exitStatus::success;
}

// Changes one setting and saves; the others stay as they were.
int settingsSetCommand(const ParsedArguments& arguments) {
    const AppSettingsStore store(AppSupportPaths::fromEnvironment());
    auto settings = store.load();
    const auto& path = arguments.operands[0];
    try {
        setAppSettingsField(settings, path, settingValue(arguments.operands[1]));
    } catch (const AppSettingsError& error) {
        throw UsageError(error.what(), "settings set");
    }
    store.save(settings);
    std::cerr << "Saved " << path << ".\n";
    return exitStatus::success;
}

} // namespace quorlin::cli

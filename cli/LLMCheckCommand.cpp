#include "cli/Commands.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/services/AnthropicClient.h"
#include "core/services/OllamaClient.h"
#include "core/stores/AppSettingsStore.h"

#include <iostream>

namespace quorlin::cli {

namespace {

struct ProviderCheck {
    bool connected = false;
    std::string message; // "Connected", or why not
    std::vector<std::string> models;
};

ProviderCheck checkAnthropic(const AppSettings& settings) {
    const auto key = trimmed(settings.anthropicAPIKey);
    if (key.empty()) {
        return {false, "No API key entered yet.", {}};
    }
    try {
        AnthropicClient(anthropicBaseURLFromEnvironment()).ping(key);
        return {true, "Connected", {}};
    } catch (const std::exception& error) {
        return {false, error.what(), {}};
    }
}

ProviderCheck checkOllama(const AppSettings& settings) {
    try {
        ProviderCheck check{true, "Connected", {}};
        for (const auto& model : OllamaClient(settings.ollamaURL).listModels()) {
            check.models.push_back(model.name);
        }
        return check;
    } catch (const std::exception& error) {
        return {false, error.what(), {}};
    }
}

nlohmann::json checkJson(const ProviderCheck& check) {
    return {{"connected", check.connected}, {"message", check.message}, {"models", check.models}};
}

} // namespace

// Whether the configured LLM providers answer: the Anthropic key by a ping, the Ollama
// address by listing its models. Succeeds when at least one can be used.
int llmCheckCommand(const ParsedArguments& arguments) {
    const auto settings = AppSettingsStore(AppSupportPaths::fromEnvironment()).load();
    const auto anthropic = checkAnthropic(settings);
    const auto ollama = checkOllama(settings);
    if (arguments.has("--json")) {
        std::cout << prettySortedJson(
                         {{"anthropic", checkJson(anthropic)}, {"ollama", checkJson(ollama)}})
                  << '\n';
    } else {
        std::cout << "Anthropic: " << anthropic.message << '\n'
                  << "Ollama at " << settings.ollamaURL << ": " << ollama.message;
        if (ollama.connected) {
            std::string models;
            for (const auto& model : ollama.models) {
                models += (models.empty() ? "" : ", ") + model;
            }
            std::cout << " (" << (models.empty() ? "no models installed" : models) << ")";
        }
        std::cout << '\n';
    }
    if (!anthropic.connected && !ollama.connected) {
        return fail("no LLM provider can be used.");
    }
    return exitStatus::success;
}

} // namespace quorlin::cli

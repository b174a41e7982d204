#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/HttpClient.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

namespace quorlin {

inline constexpr std::string_view defaultAnthropicBaseURL = "https://api.anthropic.com";
inline constexpr std::string_view anthropicAPIVersion = "2023-06-01";

// Fixed prices in US dollars per million tokens, whatever the model.
inline constexpr double anthropicInputPricePerMillion = 3.0;
inline constexpr double anthropicOutputPricePerMillion = 15.0;

struct AnthropicPrompt {
    std::string model{};
    std::string systemPrompt{}; // sent even when empty
    std::string userPrompt{};
    std::int64_t maxTokens = 0;
    // Absent: 60 seconds; else at least one second.
    std::optional<double> timeoutSeconds{};
};

struct AnthropicTextResult {
    WorkflowValueMap value{};
    std::string text{}; // the model's text block as received
    std::int64_t inputTokens = 0;
    std::int64_t outputTokens = 0;
    double costUSD = 0;
};

// The Anthropic API's scheme and host: QUORLIN_ANTHROPIC_BASE_URL when set and not blank
// (a gateway, or a test's fake server), else defaultAnthropicBaseURL.
std::string anthropicBaseURLFromEnvironment();

// The program's path to the Anthropic Messages API. It holds no key: every call is given
// the key by its caller, and no error text or log line ever carries it. Stateless, so any
// thread may call it.
class AnthropicClient {
public:
    explicit AnthropicClient(
        std::string baseURL = std::string(defaultAnthropicBaseURL),
        std::shared_ptr<HttpTransport> transport = std::make_shared<CurlHttpClient>());

    // Checks that the key works. Refused: invalidAPIKey; any failure to get an answer:
    // notReachable; other statuses: apiError. A stop request throws HttpError(cancelled).
    void ping(const std::string& apiKey, const std::stop_token& stopToken = {}) const;

    // Asks the model for one JSON object. Failures of the exchange pass through as
    // HttpError, a reply body that is not the Messages format as JsonError or
    // DecodingError; the rest are AnthropicClientError. No retry.
    AnthropicTextResult generateJSON(const std::string& apiKey, const AnthropicPrompt& prompt,
                                     const std::stop_token& stopToken = {}) const;

    const std::string& baseURL() const { return baseURL_; }

private:
    std::string url(std::string_view path) const;

    std::string baseURL_;
    std::shared_ptr<HttpTransport> transport_;
};

} // namespace quorlin

#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/HttpClient.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

struct OllamaModelInfo {
    std::string name{};

    friend bool operator==(const OllamaModelInfo&, const OllamaModelInfo&) = default;
};

struct OllamaPrompt {
    std::string model{};
    std::string systemPrompt{};
    std::string userPrompt{};
    // Sent as options.num_predict only when given.
    std::optional<std::int64_t> maxTokens{};
    // Absent: 60 seconds; else at least one second.
    std::optional<double> timeoutSeconds{};
};

// Talks to a local Ollama server. The base URL is the one in the settings as the user
// wrote it; it is checked on each call, so a bad one fails the call with invalidURL
// rather than the construction. Stateless, so any thread may call it. Tokens and cost
// are not reported for a local model.
class OllamaClient {
public:
    explicit OllamaClient(std::string baseURL, std::shared_ptr<HttpTransport> transport =
                                                   std::make_shared<CurlHttpClient>());

    // The installed models, in the server's order; doubles as the connection check, so any
    // failure to get an answer is notReachable. A stop request throws HttpError(cancelled).
    std::vector<OllamaModelInfo> listModels(const std::stop_token& stopToken = {}) const;

    // Asks the model for one JSON object through /api/chat in JSON format. Failures of the
    // exchange pass through as HttpError, a reply body that is not the chat format as
    // JsonError or DecodingError; the rest are OllamaClientError.
    WorkflowValueMap generateJSON(const OllamaPrompt& prompt,
                                  const std::stop_token& stopToken = {}) const;

    const std::string& baseURL() const { return baseURL_; }

private:
    std::string url(std::string_view path) const;

    std::string baseURL_;
    std::shared_ptr<HttpTransport> transport_;
};

} // namespace quorlin

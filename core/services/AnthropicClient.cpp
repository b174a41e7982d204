#include "AnthropicClient.h"

#include "core/foundation/HttpError.h"
#include "core/foundation/ServiceAddress.h"
#include "core/foundation/Text.h"
#include "core/services/AnthropicClientError.h"
#include "core/services/LLMJsonReply.h"
#include "core/services/ReplyDecoding.h"
#include "core/services/ServiceExchange.h"

#include <chrono>
#include <cstdlib>
#include <utility>

namespace quorlin {

namespace {

using namespace std::chrono_literals;

constexpr auto pingTimeout = 8s;
constexpr double tokensPerMillion = 1'000'000.0;
// Shorter keys are test doubles or typing slips; blanking them out of a reply would
// mangle ordinary words.
constexpr std::size_t shortestRedactedKey = 8;

struct MessageReply {
    std::optional<std::string> text; // of the first "text" block, if it has one
    bool hasTextBlock = false;
    std::int64_t inputTokens = 0;
    std::int64_t outputTokens = 0;
};

HttpHeaders keyHeaders(const std::string& apiKey) {
    return {{"x-api-key", apiKey}, {"anthropic-version", std::string(anthropicAPIVersion)}};
}

std::string requestBody(const AnthropicPrompt& prompt) {
    const nlohmann::ordered_json body = {
        {"model", prompt.model},
        {"max_tokens", prompt.maxTokens},
        {"system", prompt.systemPrompt},
        {"messages", {{{"role", "user"}, {"content", prompt.userPrompt}}}},
    };
    return body.dump();
}

// A server that echoes request headers into its error body must not put the key in
// front of the user.
std::string withoutKey(std::string body, const std::string& apiKey) {
    if (apiKey.size() < shortestRedactedKey) {
        return body;
    }
    constexpr std::string_view mark = "[redacted]";
    for (auto found = body.find(apiKey); found != std::string::npos;
         found = body.find(apiKey, found + mark.size())) {
        body.replace(found, apiKey.size(), mark);
    }
    return body;
}

AnthropicClientError statusError(const HttpResponse& response, const std::string& apiKey) {
    return AnthropicClientError::apiError(response.status,
                                          withoutKey(utf8BodyText(response.body), apiKey));
}

MessageReply decodeMessageReply(const std::string& body) {
    const nlohmann::json json = parseReplyJson(body);
    MessageReply reply;
    const auto& content = replyArray(requiredReplyMember(json, "content", ""), "content");
    for (std::size_t index = 0; index < content.size(); ++index) {
        const std::string path = "content[" + std::to_string(index) + "]";
        const auto& block = content[index];
        const bool isText = replyString(requiredReplyMember(block, "type", path),
                                        replyKeyPath(path, "type")) == "text";
        const auto* text = optionalReplyMember(block, "text", path);
        if (isText && !reply.hasTextBlock) {
            reply.hasTextBlock = true;
            if (text != nullptr && !text->is_null()) {
                reply.text = replyString(*text, replyKeyPath(path, "text"));
            }
        }
    }
    const auto& usage = requiredReplyMember(json, "usage", "");
    reply.inputTokens =
        replyInteger(requiredReplyMember(usage, "input_tokens", "usage"), "usage.input_tokens");
    reply.outputTokens =
        replyInteger(requiredReplyMember(usage, "output_tokens", "usage"), "usage.output_tokens");
    return reply;
}

double costUSD(std::int64_t inputTokens, std::int64_t outputTokens) {
    return static_cast<double>(inputTokens) / tokensPerMillion * anthropicInputPricePerMillion +
           static_cast<double>(outputTokens) / tokensPerMillion * anthropicOutputPricePerMillion;
}

WorkflowValueMap decodedObject(const std::string& text) {
    if (const auto extracted = extractJSONObject(text)) {
        if (auto object = jsonObjectFromText(*extracted)) {
            return std::move(*object);
        }
    }
    throw AnthropicClientError::invalidJSON(text);
}

} // namespace

std::string anthropicBaseURLFromEnvironment() {
    return baseURLFromEnvironment("QUORLIN_ANTHROPIC_BASE_URL", defaultAnthropicBaseURL);
}

AnthropicClient::AnthropicClient(std::string baseURL, std::shared_ptr<HttpTransport> transport)
    : baseURL_(std::move(baseURL)), transport_(std::move(transport)) {}

std::string AnthropicClient::url(std::string_view path) const {
    return joinedURL(baseURL_, path);
}

void AnthropicClient::ping(const std::string& apiKey, const std::stop_token& stopToken) const {
    HttpRequest request;
    request.url = url("/v1/models");
    request.headers = keyHeaders(apiKey);
    request.timeout = pingTimeout;
    const HttpResponse response = sendToService<AnthropicClientError>(
        *transport_, request, stopToken, ServiceCall::connectionCheck);
    if (response.status == 401 || response.status == 403) {
        throw AnthropicClientError::invalidAPIKey();
    }
    if (!response.successful()) {
        throw statusError(response, apiKey);
    }
}

AnthropicTextResult AnthropicClient::generateJSON(const std::string& apiKey,
                                                  const AnthropicPrompt& prompt,
                                                  const std::stop_token& stopToken) const {
    HttpRequest request;
    request.method = "POST";
    request.url = url("/v1/messages");
    request.headers = keyHeaders(apiKey);
    request.headers.emplace_back("Content-Type", "application/json");
    request.body = requestBody(prompt);
    request.timeout = generationTimeout(prompt.timeoutSeconds);
    const HttpResponse response = sendToService<AnthropicClientError>(
        *transport_, request, stopToken, ServiceCall::generation);
    if (!response.successful()) {
        throw statusError(response, apiKey);
    }
    MessageReply reply = decodeMessageReply(response.body);
    if (!reply.text) {
        throw AnthropicClientError::noTextContent();
    }
    return {.value = decodedObject(*reply.text),
            .text = std::move(*reply.text),
            .inputTokens = reply.inputTokens,
            .outputTokens = reply.outputTokens,
            .costUSD = costUSD(reply.inputTokens, reply.outputTokens)};
}

} // namespace quorlin

#include "OllamaClient.h"

#include "core/foundation/HttpError.h"
#include "core/foundation/Text.h"
#include "core/services/LLMJsonReply.h"
#include "core/services/OllamaClientError.h"
#include "core/services/ReplyDecoding.h"
#include "core/services/ServiceExchange.h"

#include <chrono>
#include <utility>

namespace quorlin {

namespace {

using namespace std::chrono_literals;

constexpr auto listTimeout = 2s;

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return startsWith(lowercased(text.substr(0, prefix.size())), prefix);
}

// What a URL parser takes: an http(s) scheme, a host, and no character a URL must escape.
bool isUsableBase(std::string_view base) {
    std::string_view rest;
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (startsWithIgnoringCase(base, scheme)) {
            rest = base.substr(scheme.size());
        }
    }
    if (rest.empty() || rest.front() == '/') {
        return false;
    }
    for (const char c : base) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7F ||
            std::string_view(R"("<>\^`{|})").find(c) != std::string_view::npos) {
            return false;
        }
    }
    return true;
}

std::string chatBody(const OllamaPrompt& prompt) {
    nlohmann::ordered_json body = {
        {"model", prompt.model},
        {"messages",
         {{{"role", "system"}, {"content", prompt.systemPrompt}},
          {{"role", "user"}, {"content", prompt.userPrompt}}}},
        {"stream", false},
        {"format", "json"},
    };
    if (prompt.maxTokens) {
        body["options"] = {{"num_predict", *prompt.maxTokens}};
    }
    return body.dump();
}

std::vector<OllamaModelInfo> decodeTags(const std::string& body) {
    const nlohmann::json json = parseReplyJson(body);
    const auto& models = replyArray(requiredReplyMember(json, "models", ""), "models");
    std::vector<OllamaModelInfo> result;
    result.reserve(models.size());
    for (std::size_t index = 0; index < models.size(); ++index) {
        const std::string path = "models[" + std::to_string(index) + "]";
        result.push_back({replyString(requiredReplyMember(models[index], "name", path),
                                      replyKeyPath(path, "name"))});
    }
    return result;
}

// The content of the reply's message; absent when there is no message.
std::optional<std::string> decodeChatContent(const std::string& body) {
    const nlohmann::json json = parseReplyJson(body);
    const auto* message = optionalReplyMember(json, "message", "");
    if (message == nullptr || message->is_null()) {
        return std::nullopt;
    }
    return replyString(requiredReplyMember(*message, "content", "message"), "message.content");
}

OllamaClientError statusError(const HttpResponse& response) {
    return OllamaClientError::apiError(response.status, utf8BodyText(response.body));
}

} // namespace

OllamaClient::OllamaClient(std::string baseURL, std::shared_ptr<HttpTransport> transport)
    : baseURL_(std::move(baseURL)), transport_(std::move(transport)) {}

std::string OllamaClient::url(std::string_view path) const {
    std::string base = trimmed(baseURL_);
    const auto first = base.find_first_not_of('/');
    const auto last = base.find_last_not_of('/');
    base = first == std::string::npos ? "" : base.substr(first, last - first + 1);
    if (!isUsableBase(base)) {
        throw OllamaClientError::invalidURL(baseURL_);
    }
    return base + std::string(path);
}

std::vector<OllamaModelInfo> OllamaClient::listModels(const std::stop_token& stopToken) const {
    HttpRequest request;
    request.url = url("/api/tags");
    request.timeout = listTimeout;
    const HttpResponse response = sendToService<OllamaClientError>(*transport_, request, stopToken,
                                                                   ServiceCall::connectionCheck);
    if (!response.successful()) {
        throw statusError(response);
    }
    return decodeTags(response.body);
}

WorkflowValueMap OllamaClient::generateJSON(const OllamaPrompt& prompt,
                                            const std::stop_token& stopToken) const {
    HttpRequest request;
    request.method = "POST";
    request.url = url("/api/chat");
    request.headers = {{"Content-Type", "application/json"}};
    request.body = chatBody(prompt);
    request.timeout = generationTimeout(prompt.timeoutSeconds);
    const HttpResponse response =
        sendToService<OllamaClientError>(*transport_, request, stopToken, ServiceCall::generation);
    if (!response.successful()) {
        throw statusError(response);
    }
    const auto content = decodeChatContent(response.body);
    if (!content || content->empty()) {
        throw OllamaClientError::noContent();
    }
    // The request demands JSON format, so the content is decoded as it stands.
    if (auto object = jsonObjectFromText(*content)) {
        return std::move(*object);
    }
    throw OllamaClientError::invalidJSON(*content);
}

} // namespace quorlin

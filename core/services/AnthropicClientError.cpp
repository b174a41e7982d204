#include "AnthropicClientError.h"

#include <utility>

namespace quorlin {

namespace {

constexpr const char* consoleHost = "console.anthropic.com";

} // namespace

AnthropicClientError::AnthropicClientError(Kind kind, int status, std::string detail)
    : Error(compose(kind, status, detail)), kind_(kind), status_(status),
      detail_(std::move(detail)) {}

std::string AnthropicClientError::compose(Kind kind, int status, const std::string& detail) {
    switch (kind) {
    case Kind::apiError:
        return "Anthropic API error (" + std::to_string(status) + "): " + detail;
    case Kind::invalidJSON:
        return "Claude's naming proposal isn't valid JSON: " + detail;
    case Kind::invalidResponse:
        return "Unexpected Anthropic API response format.";
    case Kind::noTextContent:
        return "Anthropic API returned no text content.";
    case Kind::invalidAPIKey:
        return std::string("API key is invalid or expired — check ") + consoleHost + ".";
    case Kind::notReachable:
        return "Unable to reach the Anthropic API. Check your network connection.";
    }
    return "Anthropic API error.";
}

AnthropicClientError AnthropicClientError::apiError(int status, std::string body) {
    return {Kind::apiError, status, std::move(body)};
}

AnthropicClientError AnthropicClientError::invalidJSON(std::string text) {
    return {Kind::invalidJSON, 0, std::move(text)};
}

AnthropicClientError AnthropicClientError::invalidResponse() {
    return {Kind::invalidResponse, 0, {}};
}

AnthropicClientError AnthropicClientError::noTextContent() {
    return {Kind::noTextContent, 0, {}};
}

AnthropicClientError AnthropicClientError::invalidAPIKey() {
    return {Kind::invalidAPIKey, 0, {}};
}

AnthropicClientError AnthropicClientError::notReachable() {
    return {Kind::notReachable, 0, {}};
}

} // namespace quorlin

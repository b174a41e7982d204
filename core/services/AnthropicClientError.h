#pragma once

#include "core/foundation/Error.h"

#include <string>

namespace quorlin {

// What goes wrong talking to the Anthropic Messages API. The texts never carry the key.
class AnthropicClientError : public Error {
public:
    enum class Kind {
        apiError,        // a status outside 200 to 299
        invalidJSON,     // the model's text holds no JSON object
        invalidResponse, // the reply is not HTTP
        noTextContent,   // no "text" block in the reply
        invalidAPIKey,   // the key check was refused (401 or 403)
        notReachable,    // the key check could not reach the API
    };

    // body: the reply's body as text, empty when it is not UTF-8.
    static AnthropicClientError apiError(int status, std::string body);
    // text: the model's text as received.
    static AnthropicClientError invalidJSON(std::string text);
    static AnthropicClientError invalidResponse();
    static AnthropicClientError noTextContent();
    static AnthropicClientError invalidAPIKey();
    static AnthropicClientError notReachable();

    Kind kind() const { return kind_; }
    int statusCode() const { return status_; }
    // The reply body for apiError, the model's text for invalidJSON.
    const std::string& detail() const { return detail_; }

private:
    AnthropicClientError(Kind kind, int status, std::string detail);
    static std::string compose(Kind kind, int status, const std::string& detail);

    Kind kind_;
    int status_;
    std::string detail_;
};

} // namespace quorlin

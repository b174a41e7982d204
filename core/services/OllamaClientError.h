#pragma once

#include "core/foundation/Error.h"

#include <string>

namespace quorlin {

// What goes wrong talking to a local Ollama server.
class OllamaClientError : public Error {
public:
    enum class Kind {
        invalidURL,      // no URL can be made of the base URL
        apiError,        // a status outside 200 to 299
        invalidJSON,     // the model's content is not a JSON object
        invalidResponse, // the reply is not HTTP
        noContent,       // no message, or empty content
        notReachable,    // the model listing got no answer
    };

    // url: the base URL as it was given.
    static OllamaClientError invalidURL(std::string url);
    // body: the reply's body as text, empty when it is not UTF-8.
    static OllamaClientError apiError(int status, std::string body);
    static OllamaClientError invalidJSON(std::string content);
    static OllamaClientError invalidResponse();
    static OllamaClientError noContent();
    static OllamaClientError notReachable();

    Kind kind() const { return kind_; }
    int statusCode() const { return status_; }
    // The URL, the reply body or the content, by kind.
    const std::string& detail() const { return detail_; }

private:
    OllamaClientError(Kind kind, int status, std::string detail);
    static std::string compose(Kind kind, int status, const std::string& detail);

    Kind kind_;
    int status_;
    std::string detail_;
};

} // namespace quorlin

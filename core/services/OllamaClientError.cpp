#include "OllamaClientError.h"

#include <utility>

namespace quorlin {

OllamaClientError::OllamaClientError(Kind kind, int status, std::string detail)
    : Error(compose(kind, status, detail)), kind_(kind), status_(status),
      detail_(std::move(detail)) {}

std::string OllamaClientError::compose(Kind kind, int status, const std::string& detail) {
    switch (kind) {
    case Kind::invalidURL:
        return "Ollama URL is invalid: " + detail;
    case Kind::apiError:
        return "Ollama API error (" + std::to_string(status) + "): " + detail;
    case Kind::invalidJSON:
        return "Ollama returned content that isn't valid JSON: " + detail;
    case Kind::invalidResponse:
        return "Unexpected Ollama response format.";
    case Kind::noContent:
        return "Ollama returned no content.";
    case Kind::notReachable:
        return "Unable to reach Ollama. Make sure it's running (systemctl start ollama, or run "
               "ollama serve).";
    }
    return "Ollama API error.";
}

OllamaClientError OllamaClientError::invalidURL(std::string url) {
    return {Kind::invalidURL, 0, std::move(url)};
}

OllamaClientError OllamaClientError::apiError(int status, std::string body) {
    return {Kind::apiError, status, std::move(body)};
}

OllamaClientError OllamaClientError::invalidJSON(std::string content) {
    return {Kind::invalidJSON, 0, std::move(content)};
}

OllamaClientError OllamaClientError::invalidResponse() {
    return {Kind::invalidResponse, 0, {}};
}

OllamaClientError OllamaClientError::noContent() {
    return {Kind::noContent, 0, {}};
}

OllamaClientError OllamaClientError::notReachable() {
    return {Kind::notReachable, 0, {}};
}

} // namespace quorlin

#include "LocalLLMInstallerError.h"

#include <utility>

namespace quorlin {

LocalLLMInstallerError::LocalLLMInstallerError(Kind kind, std::string detail)
    : Error(compose(kind, detail)), kind_(kind), detail_(std::move(detail)) {}

std::string LocalLLMInstallerError::compose(Kind kind, const std::string& detail) {
    switch (kind) {
    case Kind::invalidBaseURL:
        return "Ollama Base URL is invalid: " + detail;
    case Kind::downloadFailed:
    case Kind::processFailed:
        return detail;
    case Kind::ollamaNotInstalled:
        return "Ollama isn't installed yet.";
    case Kind::cliUnavailable:
        return "Ollama CLI not found. Install or start Ollama first.";
    }
    return detail;
}

LocalLLMInstallerError LocalLLMInstallerError::invalidBaseURL(std::string url) {
    return {Kind::invalidBaseURL, std::move(url)};
}

LocalLLMInstallerError LocalLLMInstallerError::downloadFailed(std::string detail) {
    return {Kind::downloadFailed, std::move(detail)};
}

LocalLLMInstallerError LocalLLMInstallerError::processFailed(std::string detail) {
    return {Kind::processFailed, std::move(detail)};
}

LocalLLMInstallerError LocalLLMInstallerError::ollamaNotInstalled() {
    return {Kind::ollamaNotInstalled, {}};
}

LocalLLMInstallerError LocalLLMInstallerError::cliUnavailable() {
    return {Kind::cliUnavailable, {}};
}

} // namespace quorlin

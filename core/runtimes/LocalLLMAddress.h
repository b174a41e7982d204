#pragma once

#include <string>
#include <string_view>

namespace quorlin {

// Where a local Ollama server answers unless the settings say otherwise.
inline constexpr std::string_view defaultLocalLLMBaseURL = "http://localhost:11434";
// What OLLAMA_HOST says for an address without a host.
inline constexpr std::string_view defaultOllamaHost = "localhost:11434";

// The address as the settings hold it, trimmed of blanks and line ends and then of "/" at
// both ends; the default address when nothing is left.
std::string normalizedHost(std::string_view baseURL);

// What `ollama serve` is told in OLLAMA_HOST for the address: its host, then ":" and the
// port when it has one; defaultOllamaHost when it has no host (no "scheme://" part).
// Throws LocalLLMInstallerError(invalidBaseURL) for an address that is not a URL at all:
// one holding blanks or characters a URL can't hold, or a port that is not a number
// from 1 to 65535.
std::string ollamaHostEnvironment(std::string_view baseURL);

// The normalised address for talking to the server. Throws
// LocalLLMInstallerError(invalidBaseURL) unless it is a URL as above with an http or https
// scheme and a host: anything else could never be reached.
std::string checkedServerURL(std::string_view baseURL);

} // namespace quorlin

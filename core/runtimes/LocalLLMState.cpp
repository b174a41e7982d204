#include "core/runtimes/LocalLLMState.h"

namespace quorlin {

namespace {

std::string orElse(const std::string& text, const char* missing) {
    return text.empty() ? std::string(missing) : text;
}

// Who runs the server; empty when nothing runs.
std::string startedByLine(const LocalLLMState& state) {
    if (state.serverProcessID) {
        return "\nServer started by: Quorlin (process " + std::to_string(*state.serverProcessID) +
               (state.serverRunning ? ")" : "), not answering yet");
    }
    if (state.serverRunning) {
        return "\nServer started by: outside Quorlin (a system service or someone's own "
               "ollama serve)";
    }
    return {};
}

} // namespace

std::string localLLMStatusText(const LocalLLMState& state) {
    return "Local LLM status\nQuorlin Ollama app: " + orElse(state.installPath, "not installed") +
           "\nOllama CLI: " + orElse(state.cliPath, "not found") +
           "\nOllama models: " + orElse(state.modelsDirectory, "not available") +
           "\nServer: " + (state.serverRunning ? "running" : "not running") + startedByLine(state) +
           "\nDefault model: " + state.defaultModel +
           (state.defaultModelInstalled ? " (installed)" : " (not installed)") +
           "\n\nWorkflow routing available: " + localLLMRoute(state.defaultModel);
}

} // namespace quorlin

#pragma once

#include "core/runtimes/LocalLLMModelOption.h"

#include <optional>
#include <string>

namespace quorlin {

// What the local model setup looks like right now, as the settings view and
// `quorlin local-llm status` show it.
struct LocalLLMState {
    bool ollamaInstalled = false;       // an ollama executable was found
    bool serverRunning = false;         // the server address answered its model list
    bool cliAvailable = false;          // the same executable, which the server runs on
    bool defaultModelInstalled = false; // the chosen model is on the server
    std::string defaultModel = std::string(defaultLocalLLMModel);
    std::string installPath; // the executable found; empty when none
    std::string cliPath;     // the same, as the CLI the server is started with
    // The folder a server Quorlin starts keeps its models in; empty when it can't be made.
    std::string modelsDirectory;
    std::string serverURL; // the normalised address asked

    // The server Quorlin started, while that very process lives (answering or still
    // starting); nothing when Quorlin has no server running.
    std::optional<int> serverProcessID;

    // Busy flags for a view that runs the installer's calls: set by the view around its
    // own call, never by the installer, whose calls are each complete when they return.
    bool isInstallingOllama = false;
    bool isStartingServer = false;
    bool isStoppingServer = false;
    bool isPullingModel = false;
    bool isSettingUp = false;

    std::string lastActionLog;

    // A server answers that no process of Quorlin's is behind: a system service, or
    // someone's own `ollama serve`.
    bool serverStartedOutside() const { return serverRunning && !serverProcessID; }
};

// The status log of the state: where Ollama is, whether its server runs and who started
// it, and whether the model is there.
std::string localLLMStatusText(const LocalLLMState& state);

} // namespace quorlin

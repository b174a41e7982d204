#pragma once

#include "cli/CommandLine.h"

#include <string>

namespace quorlin::cli {

// `quorlin local-llm ...`: the local Ollama server at the address and with the model the
// settings hold (ollamaURL, localLLMModel). Logs go to stdout, progress to stderr.

// `status [--json]`: where ollama is, whether its server answers, who started it.
int localLLMStatusCommand(const ParsedArguments& arguments);
// `setup`: installs Ollama when none is found, starts the server, pulls the model.
int localLLMSetupCommand(const ParsedArguments& arguments);
// `start`: starts `ollama serve` unless a server answers already.
int localLLMStartCommand(const ParsedArguments& arguments);
// `stop`: stops the server Quorlin started, and only that one.
int localLLMStopCommand(const ParsedArguments& arguments);
// `pull <model>`: has the running server download a model.
int localLLMPullCommand(const ParsedArguments& arguments);

// The ids of the models offered, separated by spaces, for completing `pull`.
std::string localLLMModelCompletion();

} // namespace quorlin::cli

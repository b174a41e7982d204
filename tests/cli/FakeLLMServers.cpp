// The Anthropic and Ollama fakes as a process of their own, for command-line tests: prints
// "anthropic <url>" and "ollama <url>", then serves until its standard input closes.
// usage: quorlin_fake_llm_servers <api key> [installed model...]
//
// Each line on standard input queues one Anthropic reply, answered with "queued":
//   reply <input tokens> <text>
// and "requests" answers with the number of message requests received so far.
#include "tests/support/FakeAnthropicServer.h"
#include "tests/support/FakeOllamaServer.h"

#include <cstdint>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

void obey(const std::string& line, quorlin::testing::FakeAnthropicServer& anthropic) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "reply") {
        std::int64_t inputTokens = 0;
        words >> inputTokens;
        std::string text;
        std::getline(words >> std::ws, text);
        anthropic.replyWithText(text, inputTokens);
        std::cout << "queued" << std::endl;
    } else if (command == "requests") {
        std::size_t messages = 0;
        for (const auto& request : anthropic.requests()) {
            messages += request.path == "/v1/messages" ? 1 : 0;
        }
        std::cout << messages << std::endl;
    } else {
        std::cout << "unknown command: " << command << std::endl;
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: quorlin_fake_llm_servers <api key> [installed model...]\n";
        return 2;
    }
    quorlin::testing::FakeAnthropicServer anthropic(argv[1]);
    const quorlin::testing::FakeOllamaServer ollama(
        std::vector<std::string>(argv + 2, argv + argc));
    std::cout << "anthropic " << anthropic.baseURL() << "\nollama " << ollama.baseURL()
              << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        obey(line, anthropic);
    }
    return 0;
}

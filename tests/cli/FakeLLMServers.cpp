// The Anthropic and Ollama fakes as a process of their own, for command-line tests: prints
// "anthropic <url>" and "ollama <url>", then serves until its standard input closes.
// usage: quorlin_fake_llm_servers <api key> [installed model...]
#include "tests/support/FakeAnthropicServer.h"
#include "tests/support/FakeOllamaServer.h"

#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: quorlin_fake_llm_servers <api key> [installed model...]\n";
        return 2;
    }
    const quorlin::testing::FakeAnthropicServer anthropic(argv[1]);
    const quorlin::testing::FakeOllamaServer ollama(
        std::vector<std::string>(argv + 2, argv + argc));
    std::cout << "anthropic " << anthropic.baseURL() << "\nollama " << ollama.baseURL()
              << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
    }
    return 0;
}

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// The model a fresh installation routes local work to.
inline constexpr std::string_view defaultLocalLLMModel = "qwen2.5:7b";

// A model offered to the user for local work, by its Ollama name.
struct LocalLLMModelOption {
    std::string id;     // "qwen2.5:7b"
    std::string title;  // "Qwen 2.5 7B"
    std::string detail; // what it is good for, or what it needs

    friend bool operator==(const LocalLLMModelOption&, const LocalLLMModelOption&) = default;
};

// The models offered, the recommended one first.
const std::vector<LocalLLMModelOption>& localLLMModelOptions();

// How workflow routing names a local model: "ollama:<id>".
std::string localLLMRoute(std::string_view model);

} // namespace quorlin

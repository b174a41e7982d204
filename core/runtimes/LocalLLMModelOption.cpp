#include "core/runtimes/LocalLLMModelOption.h"

namespace quorlin {

const std::vector<LocalLLMModelOption>& localLLMModelOptions() {
    static const std::vector<LocalLLMModelOption> options{
        {"qwen2.5:7b", "Qwen 2.5 7B", "Recommended · reliable structured output"},
        {"llama3.1:8b", "Llama 3.1 8B", "General · steady quality"},
        {"mistral:7b", "Mistral 7B", "Fast · basic tasks"},
        {"llama3.2:3b", "Llama 3.2 3B", "Lightweight · demo/fallback"},
        {"qwen2.5:14b", "Qwen 2.5 14B", "Slower · 36GB RAM recommended"},
    };
    return options;
}

std::string localLLMRoute(std::string_view model) {
    return "ollama:" + std::string(model);
}

} // namespace quorlin

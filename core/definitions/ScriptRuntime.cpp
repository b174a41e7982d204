#include "ScriptRuntime.h"

namespace quorlin {

namespace {

constexpr std::string_view managedPrefix = "managed_runtime.";

} // namespace

std::string_view rawValue(ScriptRuntime runtime) {
    return runtime == ScriptRuntime::python ? "python" : "node";
}

std::optional<ScriptRuntime> scriptRuntimeFromRawValue(std::string_view text) {
    if (text == "python") {
        return ScriptRuntime::python;
    }
    if (text == "node") {
        return ScriptRuntime::node;
    }
    return std::nullopt;
}

std::optional<ScriptRuntime> scriptRuntimeFromBlockValue(std::string_view text) {
    if (text.starts_with(managedPrefix)) {
        text.remove_prefix(managedPrefix.size());
    }
    return scriptRuntimeFromRawValue(text);
}

} // namespace quorlin

#include "ScriptRuntime.h"

namespace quorlin {

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

} // namespace quorlin

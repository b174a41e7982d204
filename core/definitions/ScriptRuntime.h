#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// The interpreters a script step can name.
enum class ScriptRuntime { python, node };

// "python" or "node".
std::string_view rawValue(ScriptRuntime runtime);
std::optional<ScriptRuntime> scriptRuntimeFromRawValue(std::string_view text);

} // namespace quorlin

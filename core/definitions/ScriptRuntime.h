#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// The interpreters a script step can name.
enum class ScriptRuntime { python, node };

inline constexpr std::array allScriptRuntimes{ScriptRuntime::python, ScriptRuntime::node};

// "python" or "node".
std::string_view rawValue(ScriptRuntime runtime);
std::optional<ScriptRuntime> scriptRuntimeFromRawValue(std::string_view text);
// A block's execution.runtime, which may also say "managed_runtime.python" or
// "managed_runtime.node". The text is taken as it stands, untrimmed.
std::optional<ScriptRuntime> scriptRuntimeFromBlockValue(std::string_view text);

} // namespace quorlin

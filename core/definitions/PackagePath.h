#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// The rule for a path that a workflow bundle or package names relative to its root:
// trimmed, not empty, not starting with "/" or "~", no "\", and no part that is empty,
// "." or "..". With allowDirectory a single trailing "/" is accepted (and removed).
// Returns the trimmed path, or nothing when the rule is broken; each caller raises its
// own error, naming the path as written.
std::optional<std::string> validRelativePackagePath(std::string_view path, bool allowDirectory = false);

} // namespace quorlin

#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace quorlin {

// The user's home: $HOME, else the password database, else "/".
std::filesystem::path homeDirectory();

// "~" or "~/..." at the start becomes the home directory; anything else is unchanged
// ("~other/x" included: only the user's own home is expanded).
std::string expandingTildeInPath(std::string_view path);

} // namespace quorlin

#include "UserPaths.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace quorlin {

std::filesystem::path homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
        return home;
    }
    if (const passwd* entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir != nullptr) {
        return entry->pw_dir;
    }
    return "/";
}

std::string expandingTildeInPath(std::string_view path) {
    if (path == "~") {
        return homeDirectory().string();
    }
    if (path.starts_with("~/")) {
        return (homeDirectory() / path.substr(2)).string();
    }
    return std::string(path);
}

} // namespace quorlin

#include "PackagePath.h"

#include "core/foundation/Text.h"

namespace quorlin {

std::optional<std::string> validRelativePackagePath(std::string_view path, bool allowDirectory) {
    std::string text = trimmed(path);
    if (allowDirectory && endsWith(text, "/")) {
        text.pop_back();
    }
    if (text.empty() || text.front() == '/' || text.front() == '~' ||
        text.find('\\') != std::string::npos) {
        return std::nullopt;
    }
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = text.find('/', start);
        const std::string_view part = std::string_view(text).substr(
            start, slash == std::string::npos ? std::string::npos : slash - start);
        if (part.empty() || part == "." || part == "..") {
            return std::nullopt;
        }
        if (slash == std::string::npos) {
            return text;
        }
        start = slash + 1;
    }
}

} // namespace quorlin

#include "core/foundation/ServiceAddress.h"

#include "core/foundation/Text.h"

#include <cstdlib>

namespace quorlin {

std::string baseURLFromEnvironment(const char* variable, std::string_view builtIn) {
    const char* value = std::getenv(variable);
    std::string text = value != nullptr ? trimmed(value) : std::string();
    return text.empty() ? std::string(builtIn) : text;
}

std::string joinedURL(std::string_view base, std::string_view path) {
    while (base.ends_with('/')) {
        base.remove_suffix(1);
    }
    while (path.starts_with('/')) {
        path.remove_prefix(1);
    }
    return std::string(base) + "/" + std::string(path);
}

} // namespace quorlin

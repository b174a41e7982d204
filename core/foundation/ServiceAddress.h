#pragma once

#include <string>
#include <string_view>

namespace quorlin {

// An outside service's scheme and host: the environment variable's value when it is set
// and not blank (a gateway, a mirror, a test's fake server), else the built-in address.
std::string baseURLFromEnvironment(const char* variable, std::string_view builtIn);

// base and path joined with one "/" between them, whatever slashes base ends with.
std::string joinedURL(std::string_view base, std::string_view path);

} // namespace quorlin

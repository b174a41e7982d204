#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// "standard" is RFC 4648 section 4 (+ and /); "url" is section 5 (- and _), which Google's
// APIs use for message bodies and PKCE uses for the code challenge.
enum class Base64Alphabet { standard, url };
enum class Base64Padding { with, without };

std::string base64Encoded(std::string_view bytes, Base64Alphabet alphabet = Base64Alphabet::standard,
                          Base64Padding padding = Base64Padding::with);

// Padding is optional; anything else outside the alphabet (line breaks included) makes the
// text invalid and gives nullopt, so a damaged reply is never half decoded.
std::optional<std::string> base64Decoded(std::string_view text,
                                         Base64Alphabet alphabet = Base64Alphabet::standard);

} // namespace quorlin

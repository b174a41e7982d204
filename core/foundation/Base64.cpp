#include "Base64.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace quorlin {

namespace {

constexpr std::string_view standardDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view urlDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string_view digitsOf(Base64Alphabet alphabet) {
    return alphabet == Base64Alphabet::url ? urlDigits : standardDigits;
}

constexpr int notADigit = -1;

std::array<int, 256> digitValues(std::string_view digits) {
    std::array<int, 256> values{};
    values.fill(notADigit);
    for (std::size_t index = 0; index < digits.size(); ++index) {
        values[static_cast<unsigned char>(digits[index])] = static_cast<int>(index);
    }
    return values;
}

} // namespace

std::string base64Encoded(std::string_view bytes, Base64Alphabet alphabet, Base64Padding padding) {
    const std::string_view digits = digitsOf(alphabet);
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t index = 0; index < bytes.size(); index += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - index);
        std::uint32_t group = 0;
        for (std::size_t offset = 0; offset < 3; ++offset) {
            group <<= 8U;
            if (offset < count) {
                group |= static_cast<unsigned char>(bytes[index + offset]);
            }
        }
        for (std::size_t digit = 0; digit < 4; ++digit) {
            if (digit <= count) {
                text += digits[(group >> (18U - 6U * digit)) & 0x3FU];
            } else if (padding == Base64Padding::with) {
                text += '=';
            }
        }
    }
    return text;
}

std::optional<std::string> base64Decoded(std::string_view text, Base64Alphabet alphabet) {
    static const std::array<int, 256> standardValues = digitValues(standardDigits);
    static const std::array<int, 256> urlValues = digitValues(urlDigits);
    const auto& values = alphabet == Base64Alphabet::url ? urlValues : standardValues;

    while (!text.empty() && text.back() == '=') {
        text.remove_suffix(1);
    }
    // A lone trailing digit carries fewer than eight bits: no encoder writes that.
    if (text.size() % 4 == 1) {
        return std::nullopt;
    }
    std::string bytes;
    bytes.reserve(text.size() * 3 / 4);
    std::uint32_t group = 0;
    unsigned bits = 0;
    for (const char character : text) {
        const int value = values[static_cast<unsigned char>(character)];
        if (value == notADigit) {
            return std::nullopt;
        }
        group = (group << 6U) | static_cast<std::uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>((group >> bits) & 0xFFU);
        }
    }
    return bytes;
}

} // namespace quorlin

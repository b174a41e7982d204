#include "Uuid.h"

#include "Error.h"

#include <cerrno>
#include <sys/random.h>

namespace quorlin {

// Straight from the kernel: starting OpenSSL's generator costs a run a few milliseconds
// (it reads its configuration) for sixteen bytes.
Uuid Uuid::random() {
    Uuid uuid;
    std::size_t filled = 0;
    while (filled < uuid.bytes_.size()) {
        const auto got = ::getrandom(uuid.bytes_.data() + filled, uuid.bytes_.size() - filled, 0);
        if (got < 0 && errno != EINTR) {
            throw Error("The system's random number generator failed.");
        }
        filled += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    uuid.bytes_[6] = static_cast<std::uint8_t>((uuid.bytes_[6] & 0x0F) | 0x40);
    uuid.bytes_[8] = static_cast<std::uint8_t>((uuid.bytes_[8] & 0x3F) | 0x80);
    return uuid;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) {
        return std::nullopt;
    }
    Uuid uuid;
    std::size_t byte = 0;
    for (std::size_t index = 0; index < text.size();) {
        if (index == 8 || index == 13 || index == 18 || index == 23) {
            if (text[index] != '-') {
                return std::nullopt;
            }
            ++index;
            continue;
        }
        auto nibble = [](char character) -> int {
            if (character >= '0' && character <= '9')
                return character - '0';
            if (character >= 'a' && character <= 'f')
                return character - 'a' + 10;
            if (character >= 'A' && character <= 'F')
                return character - 'A' + 10;
            return -1;
        };
        const int high = nibble(text[index]);
        const int low = nibble(text[index + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        uuid.bytes_[byte++] = static_cast<std::uint8_t>(high * 16 + low);
        index += 2;
    }
    return uuid;
}

std::string Uuid::uppercaseString() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t index = 0; index < bytes_.size(); ++index) {
        if (index == 4 || index == 6 || index == 8 || index == 10) {
            text.push_back('-');
        }
        text.push_back(digits[bytes_[index] >> 4]);
        text.push_back(digits[bytes_[index] & 0x0F]);
    }
    return text;
}

} // namespace quorlin

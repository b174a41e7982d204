#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// A random (version 4) UUID.
class Uuid {
public:
    static Uuid random();
    static std::optional<Uuid> parse(std::string_view text);

    // Canonical 8-4-4-4-12 form in upper case, as run ids and staging folders use it.
    std::string uppercaseString() const;

    friend bool operator==(const Uuid&, const Uuid&) = default;
    friend auto operator<=>(const Uuid&, const Uuid&) = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

} // namespace quorlin

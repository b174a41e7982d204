#pragma once

#include "core/foundation/YamlNode.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace quorlin {

// The scalar rules, one per type a field may ask for. Each answers only for a plain
// scalar: quoted and block scalars, sequences and mappings give false / absent.
bool isYamlNull(const YamlNode& node);
std::optional<bool> yamlBool(const YamlNode& node);
std::optional<std::int64_t> yamlInteger(const YamlNode& node);
std::optional<double> yamlDouble(const YamlNode& node);

// Whole-text parses without surrounding blanks. Decimal: an optional "+" or "-" and
// digits, 64-bit overflow fails. Floating: decimal or hexadecimal with optional exponent,
// or inf/infinity/nan in any case, optional sign; independent of the process locale.
std::optional<std::int64_t> parseDecimalInteger(std::string_view text);
std::optional<double> parseFloatingNumber(std::string_view text);

} // namespace quorlin

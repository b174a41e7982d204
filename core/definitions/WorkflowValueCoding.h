#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/YamlNode.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quorlin {

// Reads a value from YAML by the scalar rules: a plain scalar is tried as null, bool,
// int, double, then string; a quoted or block scalar is always a string. Sequences and
// mappings become arrays and objects.
WorkflowValue workflowValueFromYaml(const YamlNode& node);

// Reads a value from JSON: true/false is a bool, a number with an exact integer value is
// an int, any other number a double, a string stays a string, null is null. A JSON value
// with no workflow counterpart (binary, discarded) throws DecodingError naming codingPath.
WorkflowValue workflowValueFromJson(const nlohmann::json& json, const std::string& codingPath = {});

// JSON has no infinities or NaN: like JSON.stringify, those doubles are written as null.
nlohmann::json toJson(const WorkflowValue& value);
nlohmann::json toJson(const WorkflowValueMap& map);

// Turns JSON into the YAML node tree that the record decoders read, so a JSON document
// decodes through the same code: strings become quoted scalars (always text), other
// scalars plain ones, and numbers with an exact integer value are written as integers.
// Throws DecodingError for values JSON text cannot hold or nesting deeper than YAML allows.
YamlNode yamlNodeFromJson(const nlohmann::json& json);

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

#pragma once

#include "core/definitions/WorkflowScalarRules.h"
#include "core/definitions/WorkflowValue.h"
#include "core/foundation/YamlNode.h"

#include <string>

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

} // namespace quorlin

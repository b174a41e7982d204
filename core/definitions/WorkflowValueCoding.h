#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/YamlNode.h"

#include <nlohmann/json.hpp>

namespace quorlin {

// Reads a value from YAML by the scalar rules: a plain scalar is tried as null, bool,
// int, double, then string; a quoted or block scalar is always a string. Sequences and
// mappings become arrays and objects.
WorkflowValue workflowValueFromYaml(const YamlNode& node);

// Reads a value from JSON: true/false is a bool, a number with an exact integer value is
// an int, any other number a double, a string stays a string, null is null.
WorkflowValue workflowValueFromJson(const nlohmann::json& json);

nlohmann::json toJson(const WorkflowValue& value);
nlohmann::json toJson(const WorkflowValueMap& map);

// Turns JSON into the YAML node tree that the record decoders read, so a JSON document
// decodes through the same code: strings become quoted scalars (always text), other
// scalars plain ones, and numbers with an exact integer value are written as integers.
YamlNode yamlNodeFromJson(const nlohmann::json& json);

} // namespace quorlin

#pragma once

#include "core/definitions/WorkflowValue.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// What the LLM clients share about asking a model for one JSON object.

// The whole-request time-out of a generation: 60 seconds, or the caller's, but never
// under one second.
std::chrono::milliseconds generationTimeout(std::optional<double> timeoutSeconds);

// The JSON object in a reply that was told to be JSON only but may wrap it in a code fence
// or prose: from the first "{" through the last "}". A text with no braces comes back as
// it stands, for the decoder to refuse; one whose last "}" comes before its first "{" has
// no object at all.
std::optional<std::string> extractJSONObject(std::string_view text);

// The text decoded as a JSON object of workflow values, or nothing when it is not one.
std::optional<WorkflowValueMap> jsonObjectFromText(std::string_view text);

} // namespace quorlin

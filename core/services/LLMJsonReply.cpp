#include "LLMJsonReply.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace quorlin {

namespace {

constexpr double defaultGenerationSeconds = 60;
constexpr double shortestGenerationSeconds = 1;
// A caller's "forever" still has to fit curl's millisecond count.
constexpr double longestGenerationSeconds = 24.0 * 60 * 60;

std::string withoutEvery(std::string text, std::string_view piece) {
    for (auto found = text.find(piece); found != std::string::npos; found = text.find(piece)) {
        text.erase(found, piece.size());
    }
    return text;
}

} // namespace

std::chrono::milliseconds generationTimeout(std::optional<double> timeoutSeconds) {
    double seconds = defaultGenerationSeconds;
    if (timeoutSeconds) {
        // NaN compares false, so it falls to the floor too.
        seconds = *timeoutSeconds >= shortestGenerationSeconds ? *timeoutSeconds
                                                               : shortestGenerationSeconds;
        seconds = std::min(seconds, longestGenerationSeconds);
    }
    return std::chrono::milliseconds(static_cast<std::int64_t>(std::llround(seconds * 1000)));
}

std::optional<std::string> extractJSONObject(std::string_view text) {
    std::string candidate = trimmed(text);
    if (startsWith(candidate, "```")) {
        candidate = trimmed(withoutEvery(withoutEvery(std::move(candidate), "```json"), "```"));
    }
    const auto first = candidate.find('{');
    const auto last = candidate.rfind('}');
    if (first == std::string::npos || last == std::string::npos) {
        return candidate;
    }
    if (last < first) {
        return std::nullopt;
    }
    return candidate.substr(first, last - first + 1);
}

std::optional<WorkflowValueMap> jsonObjectFromText(std::string_view text) {
    const nlohmann::json json = parseJsonOrDiscarded(text);
    if (!json.is_object()) {
        return std::nullopt;
    }
    try {
        return *workflowValueFromJson(json).object();
    } catch (const DecodingError&) {
        // Parsed text holds no value without a workflow counterpart; refuse it all the same.
        return std::nullopt;
    }
}

} // namespace quorlin

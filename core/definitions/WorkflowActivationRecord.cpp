#include "WorkflowActivationRecord.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/Json.h"

namespace quorlin {

namespace {

std::string describe(const nlohmann::json& value) {
    return value.is_null() ? std::string("null") : value.dump();
}

std::string requiredString(const nlohmann::json& object, const std::string& key) {
    const auto found = object.find(key);
    if (found == object.end()) {
        throw DecodingError(DecodingError::Kind::keyNotFound, {}, key);
    }
    if (!found->is_string()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, key, "text", describe(*found));
    }
    return found->get<std::string>();
}

} // namespace

nlohmann::ordered_json toJson(const WorkflowActivationRecord& record) {
    return {{"flow_id", record.flowID},
            {"active_version", record.activeVersion},
            {"installed_at", record.installedAt}};
}

WorkflowActivationRecord decodeWorkflowActivationRecord(std::string_view text) {
    const auto json = parseJson(text);
    if (!json.is_object()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, {}, "an object",
                            json.is_array() ? "an array" : describe(json));
    }
    return {requiredString(json, "flow_id"), requiredString(json, "active_version"),
            requiredString(json, "installed_at")};
}

} // namespace quorlin

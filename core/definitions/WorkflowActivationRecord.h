#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quorlin {

// The file active.json beside the installed versions of a flow: which version is in force
// and when it was installed (ISO 8601).
struct WorkflowActivationRecord {
    std::string flowID;        // "flow_id"
    std::string activeVersion; // "active_version"
    std::string installedAt;   // "installed_at"
    friend bool operator==(const WorkflowActivationRecord&,
                           const WorkflowActivationRecord&) = default;
};

// The three keys, in field order.
nlohmann::ordered_json toJson(const WorkflowActivationRecord& record);

// Reads the JSON text of active.json. Malformed JSON throws JsonError; anything but an
// object holding all three keys as strings throws DecodingError. Other keys are ignored.
WorkflowActivationRecord decodeWorkflowActivationRecord(std::string_view text);

} // namespace quorlin

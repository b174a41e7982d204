#pragma once

#include "core/foundation/Uuid.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin {

// One row of the approval table: an item the run proposes to file, with its name.
struct ApprovalProposal {
    Uuid id;
    std::int64_t index = 0;
    std::string date;
    std::string sender;
    std::string subject;
    std::optional<std::string> emailPreviewHTML;
    std::optional<std::string> emailPreviewText;
    std::string originalName;
    std::optional<std::string> previewPath;
    std::string proposedName;
    bool isSelected = true;
    friend bool operator==(const ApprovalProposal&, const ApprovalProposal&) = default;
};

// JSON keys equal the field names; absent optionals are left out.
nlohmann::ordered_json toJson(const ApprovalProposal& proposal);

// Reads a proposal written by toJson; a missing key or a wrong type throws DecodingError
// naming codingPath.
ApprovalProposal decodeApprovalProposal(const nlohmann::json& json, const std::string& codingPath);

} // namespace quorlin

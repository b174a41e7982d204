#include "ApprovalProposal.h"

#include "core/definitions/DecodingError.h"

namespace quorlin {

nlohmann::ordered_json toJson(const ApprovalProposal& proposal) {
    nlohmann::ordered_json json;
    json["id"] = proposal.id.uppercaseString();
    json["index"] = proposal.index;
    json["date"] = proposal.date;
    json["sender"] = proposal.sender;
    json["subject"] = proposal.subject;
    if (proposal.emailPreviewHTML) {
        json["emailPreviewHTML"] = *proposal.emailPreviewHTML;
    }
    if (proposal.emailPreviewText) {
        json["emailPreviewText"] = *proposal.emailPreviewText;
    }
    json["originalName"] = proposal.originalName;
    if (proposal.previewPath) {
        json["previewPath"] = *proposal.previewPath;
    }
    json["proposedName"] = proposal.proposedName;
    json["isSelected"] = proposal.isSelected;
    return json;
}

ApprovalProposal decodeApprovalProposal(const nlohmann::json& json, const std::string& codingPath) {
    try {
        ApprovalProposal proposal;
        const auto id = Uuid::parse(json.at("id").get<std::string>());
        if (!id) {
            throw DecodingError(DecodingError::Kind::dataCorrupted, codingPath + ".id",
                                "Invalid UUID");
        }
        proposal.id = *id;
        proposal.index = json.at("index").get<std::int64_t>();
        proposal.date = json.at("date").get<std::string>();
        proposal.sender = json.at("sender").get<std::string>();
        proposal.subject = json.at("subject").get<std::string>();
        const auto optionalText = [&](const char* key) -> std::optional<std::string> {
            const auto found = json.find(key);
            if (found == json.end() || found->is_null()) {
                return std::nullopt;
            }
            return found->get<std::string>();
        };
        proposal.emailPreviewHTML = optionalText("emailPreviewHTML");
        proposal.emailPreviewText = optionalText("emailPreviewText");
        proposal.originalName = json.at("originalName").get<std::string>();
        proposal.previewPath = optionalText("previewPath");
        proposal.proposedName = json.at("proposedName").get<std::string>();
        proposal.isSelected = json.at("isSelected").get<bool>();
        return proposal;
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(DecodingError::Kind::dataCorrupted, codingPath, error.what());
    }
}

} // namespace quorlin

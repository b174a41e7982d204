#include "ApprovalProposal.h"

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

} // namespace quorlin

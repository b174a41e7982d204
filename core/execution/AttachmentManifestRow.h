#pragma once

#include "core/definitions/WorkflowValue.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin {

// One PDF attachment found in the mailbox, as the attachment-listing step writes it to its
// "pdf_manifest" output. Its place in that list (from 1) ties it to its preview file, its
// approval row and its downloaded copy.
struct AttachmentManifestRow {
    std::string emailID;
    std::string date;
    std::string sender;
    std::string subject;
    std::optional<std::string> emailPreviewHTML;
    std::optional<std::string> emailPreviewText;
    std::string originalName;
    std::string mimeType;
    std::string attachmentID;
    friend bool operator==(const AttachmentManifestRow&, const AttachmentManifestRow&) = default;
};

// Snake-case keys ("email_id", "original_name", ...); absent previews are left out.
nlohmann::ordered_json toJson(const AttachmentManifestRow& row);

// Reads rows written by toJson. Unknown keys are ignored; a missing or non-text required
// key, a preview that is neither text nor null, or a value that is not an array of objects
// throws DecodingError naming codingPath.
AttachmentManifestRow decodeAttachmentManifestRow(const nlohmann::json& json,
                                                  const std::string& codingPath);
std::vector<AttachmentManifestRow> decodeAttachmentManifest(const nlohmann::json& json,
                                                            const std::string& codingPath);

// Reading one row of the approval table, which the model wrote and may have left thin.
// First the row's own text under each key in turn (trimmed, only if not blank); then, if
// the row has a manifest entry, the entry's field named by a key, as it stands (a preview
// that is absent or empty is passed over). Nothing if neither answers.
std::optional<std::string> rowString(const WorkflowValue::Object& row,
                                     const AttachmentManifestRow* manifestRow,
                                     std::initializer_list<std::string_view> keys);

// Whether a row names an attachment by itself: non-blank text under "attachment_id" (or
// "attachmentID") and under "mime_type" (or "mimeType").
bool isAttachmentManifestRow(const WorkflowValue::Object& row);

} // namespace quorlin

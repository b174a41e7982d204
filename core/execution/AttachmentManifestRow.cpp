#include "AttachmentManifestRow.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/Text.h"

namespace quorlin {

namespace {

std::string describeJson(const nlohmann::json& json) {
    switch (json.type()) {
    case nlohmann::json::value_t::null:
        return "null";
    case nlohmann::json::value_t::object:
        return "an object";
    case nlohmann::json::value_t::array:
        return "an array";
    case nlohmann::json::value_t::string:
        return "text";
    case nlohmann::json::value_t::boolean:
        return "a boolean";
    default:
        return "a number";
    }
}

std::string requiredText(const nlohmann::json& object, const char* key, const std::string& path) {
    const auto found = object.find(key);
    if (found == object.end()) {
        throw DecodingError(DecodingError::Kind::keyNotFound, path, key);
    }
    if (!found->is_string()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, path + "." + key, "text",
                            describeJson(*found));
    }
    return found->get<std::string>();
}

std::optional<std::string> optionalText(const nlohmann::json& object, const char* key,
                                        const std::string& path) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return std::nullopt;
    }
    if (!found->is_string()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, path + "." + key, "text",
                            describeJson(*found));
    }
    return found->get<std::string>();
}

// The row's own non-blank text under the first key that has one.
std::optional<std::string> ownText(const WorkflowValue::Object& row,
                                   std::initializer_list<std::string_view> keys) {
    for (const auto key : keys) {
        const auto found = row.find(std::string(key));
        if (found == row.end() || !found->second.isString()) {
            continue;
        }
        auto text = trimmed(*found->second.string());
        if (!text.empty()) {
            return text;
        }
    }
    return std::nullopt;
}

// The manifest field a table key names, or nothing when it names none. A preview that is
// absent or empty counts as none, so the next key gets its turn.
std::optional<std::string> manifestField(const AttachmentManifestRow& row, std::string_view key) {
    const auto preview = [](const std::optional<std::string>& text) -> std::optional<std::string> {
        if (text && !text->empty()) {
            return text;
        }
        return std::nullopt;
    };
    if (key == "date") {
        return row.date;
    }
    if (key == "sender") {
        return row.sender;
    }
    if (key == "subject") {
        return row.subject;
    }
    if (key == "email_preview_html" || key == "emailPreviewHTML") {
        return preview(row.emailPreviewHTML);
    }
    if (key == "email_preview_text" || key == "emailPreviewText") {
        return preview(row.emailPreviewText);
    }
    if (key == "original_name" || key == "originalName") {
        return row.originalName;
    }
    if (key == "attachment_id" || key == "attachmentID") {
        return row.attachmentID;
    }
    return std::nullopt;
}

} // namespace

nlohmann::ordered_json toJson(const AttachmentManifestRow& row) {
    nlohmann::ordered_json json;
    json["email_id"] = row.emailID;
    json["date"] = row.date;
    json["sender"] = row.sender;
    json["subject"] = row.subject;
    if (row.emailPreviewHTML) {
        json["email_preview_html"] = *row.emailPreviewHTML;
    }
    if (row.emailPreviewText) {
        json["email_preview_text"] = *row.emailPreviewText;
    }
    json["original_name"] = row.originalName;
    json["mime_type"] = row.mimeType;
    json["attachment_id"] = row.attachmentID;
    return json;
}

AttachmentManifestRow decodeAttachmentManifestRow(const nlohmann::json& json,
                                                  const std::string& codingPath) {
    if (!json.is_object()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, codingPath, "an object",
                            describeJson(json));
    }
    AttachmentManifestRow row;
    row.emailID = requiredText(json, "email_id", codingPath);
    row.date = requiredText(json, "date", codingPath);
    row.sender = requiredText(json, "sender", codingPath);
    row.subject = requiredText(json, "subject", codingPath);
    row.emailPreviewHTML = optionalText(json, "email_preview_html", codingPath);
    row.emailPreviewText = optionalText(json, "email_preview_text", codingPath);
    row.originalName = requiredText(json, "original_name", codingPath);
    row.mimeType = requiredText(json, "mime_type", codingPath);
    row.attachmentID = requiredText(json, "attachment_id", codingPath);
    return row;
}

std::vector<AttachmentManifestRow> decodeAttachmentManifest(const nlohmann::json& json,
                                                            const std::string& codingPath) {
    if (!json.is_array()) {
        throw DecodingError(DecodingError::Kind::typeMismatch, codingPath, "an array",
                            describeJson(json));
    }
    std::vector<AttachmentManifestRow> rows;
    rows.reserve(json.size());
    for (std::size_t index = 0; index < json.size(); ++index) {
        rows.push_back(decodeAttachmentManifestRow(json[index],
                                                   codingPath + "[" + std::to_string(index) + "]"));
    }
    return rows;
}

std::optional<std::string> rowString(const WorkflowValue::Object& row,
                                     const AttachmentManifestRow* manifestRow,
                                     std::initializer_list<std::string_view> keys) {
    if (auto text = ownText(row, keys)) {
        return text;
    }
    if (manifestRow == nullptr) {
        return std::nullopt;
    }
    for (const auto key : keys) {
        if (auto field = manifestField(*manifestRow, key)) {
            return field;
        }
    }
    return std::nullopt;
}

bool isAttachmentManifestRow(const WorkflowValue::Object& row) {
    return ownText(row, {"attachment_id", "attachmentID"}).has_value() &&
           ownText(row, {"mime_type", "mimeType"}).has_value();
}

} // namespace quorlin

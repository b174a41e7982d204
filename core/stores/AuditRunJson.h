#pragma once

#include "core/stores/AuditRun.h"

#include <string_view>

#include <nlohmann/json.hpp>

namespace quorlin {

// The JSON form of the audit history, keys named after the fields ("flowID",
// "stepTimings"), as the old audit-log.json file kept it and as the command line prints
// runs.
//
// Writing is plain: every key, except that an absent outputFolder and absent record
// JSON fields are left out.
nlohmann::json toJson(const AuditStepTiming& timing);
nlohmann::json toJson(const AuditStepRecord& record);
nlohmann::json toJson(const AuditRun& run);
nlohmann::json toJson(const AuditLogDocument& document);

// Reading is tolerant where old files were loose: a run without "id" gets a fresh random
// one; "stepTimings" and "stepRecords" may be missing or null; "outputFolder" and a
// record's JSON fields may be missing or null. Every other key is required, unknown keys
// are ignored. A value that doesn't fit throws DecodingError naming where
// ("runs[2].stepTimings[0]").
AuditRun decodeAuditRun(const nlohmann::json& value, const std::string& codingPath = {});
AuditLogDocument decodeAuditLogDocument(const nlohmann::json& value);

// Parses and decodes the text of an audit-log.json file; malformed JSON throws JsonError.
AuditLogDocument decodeAuditLogDocumentJson(std::string_view text);

} // namespace quorlin

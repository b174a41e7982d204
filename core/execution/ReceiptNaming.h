#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/execution/AttachmentManifestRow.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// The file name an approval row is proposed when the model gave none:
// "<date>_<sender>_<invoice>.<extension>", e.g. "202603011030_Acme_INV-2041.pdf", built
// from the row and its manifest entry. A row with no original name gets "item-<index>".
std::string deterministicReceiptFilename(const WorkflowValue::Object& row,
                                         const AttachmentManifestRow* manifestRow,
                                         std::int64_t index);

// The invoice or receipt number found in the row's subject, file name and previews; else
// the attachment id; else "invoice". Never empty unless the manifest's attachment id is.
std::string invoiceNumber(const WorkflowValue::Object& row,
                          const AttachmentManifestRow* manifestRow);

// Number-like tokens of a text: at least three letters, digits, ".", "_" or "-", holding a
// digit, and not a spelling of "invoice", "receipt", "inv" or "pdf".
std::vector<std::string> invoiceTokens(std::string_view text);

// The first of the longest texts (counted in characters), or nothing for an empty list.
std::optional<std::string> firstLongest(const std::vector<std::string>& texts);

// Keeps ASCII letters and digits: "2026-03-01 10:30" gives "202603011030". A text with
// none of them is given back trimmed.
std::string compactTimestamp(std::string_view text);

// The display name of an address such as "\"Acme Billing\" <billing@acme.com>"; a text
// with no name before "<" is given back as it is.
std::string senderDisplayName(std::string_view text);

// Keeps ASCII letters and digits and CJK ideographs (U+4E00 to U+9FFF); fallback if none.
std::string normalizedSenderComponent(std::string_view text, std::string_view fallback);

// Trimmed, white space removed, and the characters file systems and shells trip on
// (/ : ? % * | " < >) turned into "_"; fallback if nothing is left.
std::string sanitizeFilenameComponent(std::string_view text, std::string_view fallback);

// "a/b/report.final.pdf" gives "report.final".
std::string basenameWithoutExtension(std::string_view text);

// The text of each whole match, in order; a pattern that does not compile gives none.
std::vector<std::string> regexMatches(std::string_view pattern, std::string_view text);

} // namespace quorlin

#include "ReceiptNaming.h"

#include "core/foundation/Regex.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <array>

namespace quorlin {

namespace {

// Compiled once: naming runs for every row of every approval table.
struct Patterns {
    Regex whitespace{R"(\s+)"};
    Regex unsafeFilenameCharacter{R"([/:\?%\*\|"<>])"};
    Regex htmlTag{R"(<[^>]+>)"};
    Regex nonAlphanumeric{R"([^a-z0-9]+)"};
    Regex numberToken{R"([A-Za-z0-9][A-Za-z0-9._-]{2,})"};
    // Two letters and eight digits, the form of many invoice systems' numbers.
    Regex letterPairAndEightDigits{R"(\b[A-Z]{2}[0-9]{8}\b)"};
    // A number after a label, most specific first; group 1 is the number.
    std::array<Regex, 3> labelledNumbers{
        Regex(
            R"((?i)(?:invoice|receipt|inv|發票|收據)\s*(?:no\.?|number|num|#|號碼|號)\s*[:#-]?\s*([A-Z0-9][A-Z0-9._-]{2,}))"),
        Regex(R"((?i)(?:invoice|receipt|inv)\s*#\s*([A-Z0-9][A-Z0-9._-]{2,}))"),
        Regex(R"((?i)(?:no\.?|number|#|號碼|號)\s*[:#-]?\s*([A-Z0-9][A-Z0-9._-]{2,}))")};
};

const Patterns& patterns() {
    static const Patterns compiled;
    return compiled;
}

std::string replacingMatches(const Regex& regex, std::string_view text,
                             std::string_view replacement) {
    std::string result;
    std::size_t copied = 0;
    for (const auto& match : regex.allMatches(text)) {
        result.append(text.substr(copied, match[0].begin - copied));
        result.append(replacement);
        copied = match[0].end;
    }
    result.append(text.substr(copied));
    return result;
}

std::string_view groupText(std::string_view text, const Regex::Group& group) {
    return text.substr(group.begin, group.end - group.begin);
}

bool isAsciiAlphanumeric(char32_t codePoint) {
    return (codePoint >= U'a' && codePoint <= U'z') || (codePoint >= U'A' && codePoint <= U'Z') ||
           (codePoint >= U'0' && codePoint <= U'9');
}

// A label word posing as a number: "Invoice No. PDF" names no invoice.
bool isLabelWord(std::string_view text) {
    const auto form = replacingMatches(patterns().nonAlphanumeric, lowercased(text), "");
    return form == "invoice" || form == "receipt" || form == "inv" || form == "pdf";
}

std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t offset = 0; offset < text.size(); ++count) {
        decodeCodePoint(text, offset);
    }
    return count;
}

} // namespace

std::string deterministicReceiptFilename(const WorkflowValue::Object& row,
                                         const AttachmentManifestRow* manifestRow,
                                         std::int64_t index) {
    const auto originalName = rowString(row, manifestRow, {"original_name", "originalName"});
    if (!originalName || originalName->empty()) {
        return "item-" + std::to_string(index);
    }
    const auto dot = originalName->rfind('.');
    const auto extension =
        dot == std::string::npos ? std::string("pdf") : originalName->substr(dot + 1);

    const auto date = sanitizeFilenameComponent(
        compactTimestamp(rowString(row, manifestRow, {"date"}).value_or("")), "unknown-date");
    const auto sender = normalizedSenderComponent(
        senderDisplayName(rowString(row, manifestRow, {"sender"}).value_or("")), "Vendor");
    const auto invoice = sanitizeFilenameComponent(invoiceNumber(row, manifestRow), "invoice");
    return date + "_" + sender + "_" + invoice + "." + extension;
}

std::string invoiceNumber(const WorkflowValue::Object& row,
                          const AttachmentManifestRow* manifestRow) {
    const auto& compiled = patterns();
    const auto base = basenameWithoutExtension(
        rowString(row, manifestRow, {"original_name", "originalName"}).value_or(""));
    const auto html = rowString(row, manifestRow, {"email_preview_html", "emailPreviewHTML"});
    const auto haystack =
        rowString(row, manifestRow, {"subject"}).value_or("") + " " + base + " " +
        rowString(row, manifestRow, {"email_preview_text", "emailPreviewText"}).value_or("") + " " +
        (html ? replacingMatches(compiled.htmlTag, *html, " ") : std::string());

    const auto upper = uppercased(haystack);
    if (const auto match = compiled.letterPairAndEightDigits.firstMatch(upper)) {
        return std::string(groupText(upper, (*match)[0]));
    }
    for (const auto& pattern : compiled.labelledNumbers) {
        const auto match = pattern.firstMatch(haystack);
        if (!match || match->size() < 2 || !(*match)[1].matched) {
            continue;
        }
        const auto number = groupText(haystack, (*match)[1]);
        if (!isLabelWord(number)) {
            return std::string(number);
        }
    }
    auto tokens = invoiceTokens(base);
    if (tokens.empty()) {
        tokens = invoiceTokens(haystack);
    }
    if (auto longest = firstLongest(tokens)) {
        return *longest;
    }
    if (auto attachmentID = rowString(row, manifestRow, {"attachment_id", "attachmentID"})) {
        return *attachmentID;
    }
    return "invoice";
}

std::vector<std::string> invoiceTokens(std::string_view text) {
    std::vector<std::string> tokens;
    for (const auto& match : patterns().numberToken.allMatches(text)) {
        const auto token = groupText(text, match[0]);
        const bool hasDigit = token.find_first_of("0123456789") != std::string_view::npos;
        if (hasDigit && !isLabelWord(token)) {
            tokens.emplace_back(token);
        }
    }
    return tokens;
}

std::optional<std::string> firstLongest(const std::vector<std::string>& texts) {
    const std::string* best = nullptr;
    std::size_t bestCount = 0;
    for (const auto& text : texts) {
        const auto count = characterCount(text);
        if (best == nullptr || count > bestCount) {
            best = &text;
            bestCount = count;
        }
    }
    return best ? std::optional<std::string>(*best) : std::nullopt;
}

std::string compactTimestamp(std::string_view text) {
    std::string compact;
    for (const char byte : text) {
        if (isAsciiAlphanumeric(static_cast<unsigned char>(byte))) {
            compact.push_back(byte);
        }
    }
    return compact.empty() ? trimmed(text) : compact;
}

std::string senderDisplayName(std::string_view text) {
    auto name = trimmed(text.substr(0, text.find('<')));
    const auto first = name.find_first_not_of('"');
    if (first == std::string::npos) {
        return std::string(text);
    }
    name = name.substr(first, name.find_last_not_of('"') - first + 1);
    return name;
}

std::string normalizedSenderComponent(std::string_view text, std::string_view fallback) {
    std::string kept;
    for (std::size_t offset = 0; offset < text.size();) {
        const auto codePoint = decodeCodePoint(text, offset);
        if (isAsciiAlphanumeric(codePoint) || (codePoint >= 0x4E00 && codePoint <= 0x9FFF)) {
            appendCodePoint(kept, codePoint);
        }
    }
    return kept.empty() ? std::string(fallback) : kept;
}

std::string sanitizeFilenameComponent(std::string_view text, std::string_view fallback) {
    const auto& compiled = patterns();
    const auto joined = replacingMatches(compiled.whitespace, trimmed(text), "");
    auto safe = replacingMatches(compiled.unsafeFilenameCharacter, joined, "_");
    return safe.empty() ? std::string(fallback) : safe;
}

std::string basenameWithoutExtension(std::string_view text) {
    // Empty pieces are skipped, so "dir/file.pdf/" still names "file".
    std::string_view last;
    std::size_t start = 0;
    while (start <= text.size()) {
        const auto slash = std::min(text.find('/', start), text.size());
        if (slash > start) {
            last = text.substr(start, slash - start);
        }
        start = slash + 1;
    }
    const auto dot = last.rfind('.');
    return std::string(dot == std::string_view::npos ? last : last.substr(0, dot));
}

std::vector<std::string> regexMatches(std::string_view pattern, std::string_view text) {
    std::optional<Regex> regex;
    try {
        regex.emplace(pattern);
    } catch (const RegexError&) {
        return {}; // callers pass fixed patterns; a broken one simply finds nothing
    }
    std::vector<std::string> matches;
    for (const auto& match : regex->allMatches(text)) {
        matches.emplace_back(groupText(text, match[0]));
    }
    return matches;
}

} // namespace quorlin

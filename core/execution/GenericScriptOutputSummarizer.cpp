#include "GenericScriptOutputSummarizer.h"

#include "core/foundation/Json.h"
#include "core/foundation/Text.h"

#include <cmath>
#include <filesystem>

namespace quorlin::GenericScriptOutputSummarizer {

namespace {

// The string under key when it is a string with more than white space in it.
std::optional<std::string> nonBlankString(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return std::nullopt;
    }
    const auto& text = found->get_ref<const std::string&>();
    if (trimmed(text).empty()) {
        return std::nullopt;
    }
    return text;
}

std::optional<long long> wholeNumber(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end()) {
        return std::nullopt;
    }
    if (found->is_number_integer()) {
        return found->get<long long>();
    }
    if (found->is_number_float()) {
        const double value = found->get<double>();
        if (std::isfinite(value) && std::trunc(value) == value && std::abs(value) < 9.0e18) {
            return static_cast<long long>(value);
        }
    }
    return std::nullopt;
}

std::optional<std::string> summaryOfObject(const nlohmann::json& object) {
    if (const auto briefing = object.find("briefing");
        briefing != object.end() && briefing->is_object()) {
        if (auto text = nonBlankString(*briefing, "executive_summary")) {
            return text;
        }
        if (auto text = nonBlankString(*briefing, "headline")) {
            return text;
        }
    }
    if (nonBlankString(object, "workflow") == "contract-audit-v1") {
        if (auto text = nonBlankString(object, "summary")) {
            return text;
        }
    }
    static const std::pair<const char*, const char*> reports[] = {
        {"pdf_path", "PDF report ready: "},
        {"html_path", "HTML report ready: "},
        {"docx_path", "Word file ready: "},
    };
    for (const auto& [key, prefix] : reports) {
        if (auto path = nonBlankString(object, key)) {
            return prefix + *path;
        }
    }
    for (const char* key : {"summary", "message"}) {
        if (auto text = nonBlankString(object, key)) {
            return text;
        }
    }
    if (const auto files = object.find("final_files"); files != object.end() && files->is_array()) {
        return std::to_string(files->size()) + " files";
    }
    if (const auto count = wholeNumber(object, "article_count")) {
        return std::to_string(*count) + " items collected";
    }
    return std::nullopt;
}

} // namespace

std::string summary(std::string_view stdoutText) {
    const auto json = parseJsonOrDiscarded(stdoutText);
    if (json.is_object()) {
        return summaryOfObject(json).value_or("Run complete");
    }
    const std::string text = trimmed(stdoutText);
    return text.empty() ? "Run complete" : text;
}

std::optional<std::string> outputFolder(std::string_view stdoutText) {
    const auto json = parseJsonOrDiscarded(stdoutText);
    if (!json.is_object()) {
        return std::nullopt;
    }
    if (auto folder = nonBlankString(json, "output_folder")) {
        return folder;
    }
    for (const char* key : {"docx_path", "pdf_path", "html_path"}) {
        if (auto path = nonBlankString(json, key)) {
            return std::filesystem::path(*path).parent_path().string();
        }
    }
    return std::nullopt;
}

} // namespace quorlin::GenericScriptOutputSummarizer

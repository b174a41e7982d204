#include "RecordDecoding.h"

#include "core/foundation/ClosestWord.h"

#include <algorithm>

namespace quorlin {

namespace {

constexpr std::size_t quotedTextLimit = 60;

thread_local RecordKeyLog* activeKeyLog = nullptr;

// Every mapping under node that was decoded as a record, checked against the keys its
// decoder looked up.
void findUnknownKeys(const YamlNode& node, const std::string& path, const RecordKeyLog& keys,
                     std::vector<UnknownRecordKey>& found) {
    if (node.isSequence()) {
        for (std::size_t index = 0; index < node.items.size(); ++index) {
            findUnknownKeys(node.items[index], indexPath(path, index), keys, found);
        }
        return;
    }
    if (!node.isMapping()) {
        return;
    }
    if (const auto* known = keys.keysAt(path)) {
        for (const auto& [key, value] : node.entries) {
            if (std::find(known->begin(), known->end(), key) != known->end()) {
                continue;
            }
            if (auto suggestion = closestWord(key, *known)) {
                found.push_back({path, key, std::move(*suggestion)});
            }
        }
    }
    for (const auto& [key, value] : node.entries) {
        findUnknownKeys(value, keyPath(path, key), keys, found);
    }
}

} // namespace

std::string describeYamlNode(const YamlNode& node) {
    if (node.isSequence()) {
        return "a sequence";
    }
    if (node.isMapping()) {
        return "a mapping";
    }
    if (node.plain && node.text.empty()) {
        return "an empty value";
    }
    if (node.text.size() <= quotedTextLimit) {
        return "\"" + node.text + "\"";
    }
    // Cut at a character boundary so the message stays valid UTF-8.
    std::size_t cut = quotedTextLimit;
    while (cut > 0 && (static_cast<unsigned char>(node.text[cut]) & 0xC0U) == 0x80U) {
        --cut;
    }
    return "\"" + node.text.substr(0, cut) + "...\"";
}

std::string keyPath(const std::string& path, std::string_view key) {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

std::string indexPath(const std::string& path, std::size_t index) {
    return path + "[" + std::to_string(index) + "]";
}

void throwTypeMismatch(const YamlNode& node, const std::string& path, std::string expected) {
    throw DecodingError(DecodingError::Kind::typeMismatch, path, std::move(expected),
                        describeYamlNode(node), node.mark);
}

std::string scalarText(const YamlNode& node, const std::string& path) {
    if (!node.isScalar()) {
        throwTypeMismatch(node, path, "text");
    }
    return node.text;
}

std::vector<std::string> textList(const YamlNode& node, const std::string& path) {
    return sequenceOf(node, path, scalarText);
}

WorkflowValueMap valueMap(const YamlNode& node, const std::string& path) {
    if (!node.isMapping()) {
        throwTypeMismatch(node, path, "a mapping");
    }
    WorkflowValueMap result;
    for (const auto& [key, value] : node.entries) {
        result.insert_or_assign(key, workflowValueFromYaml(value));
    }
    return result;
}

RecordKeyLog::RecordKeyLog() : outer_(activeKeyLog) {
    activeKeyLog = this;
}

RecordKeyLog::~RecordKeyLog() {
    activeKeyLog = outer_;
}

const std::vector<std::string>* RecordKeyLog::keysAt(const std::string& path) const {
    const auto found = keysByPath_.find(path);
    return found == keysByPath_.end() ? nullptr : &found->second;
}

void RecordKeyLog::note(const std::string& path, std::string_view key) {
    if (activeKeyLog == nullptr) {
        return;
    }
    auto& keys = activeKeyLog->keysByPath_[path];
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
        keys.emplace_back(key);
    }
}

std::vector<UnknownRecordKey>
unknownRecordKeys(const YamlNode& root, const std::function<void(const YamlNode&)>& decode) {
    const RecordKeyLog keys;
    decode(root);
    std::vector<UnknownRecordKey> found;
    findUnknownKeys(root, "", keys, found);
    return found;
}

Fields::Fields(const YamlNode& node, std::string path) : node_(node), path_(std::move(path)) {
    if (!node.isMapping()) {
        throwTypeMismatch(node, path_, "a mapping");
    }
}

const YamlNode& Fields::required(std::string_view key) const {
    RecordKeyLog::note(path_, key);
    const auto* value = node_.find(key);
    if (value == nullptr) {
        throw DecodingError(DecodingError::Kind::keyNotFound, path_, std::string(key), {},
                            node_.mark);
    }
    return *value;
}

const YamlNode* Fields::optional(std::string_view key) const {
    RecordKeyLog::note(path_, key);
    const auto* value = node_.find(key);
    return value == nullptr || isYamlNull(*value) ? nullptr : value;
}

std::string Fields::requiredText(std::string_view key) const {
    return scalarText(required(key), path(key));
}

std::optional<std::string> Fields::optionalText(std::string_view key) const {
    const auto* value = optional(key);
    return value ? std::optional(scalarText(*value, path(key))) : std::nullopt;
}

std::optional<std::vector<std::string>> Fields::optionalTextList(std::string_view key) const {
    const auto* value = optional(key);
    return value ? std::optional(textList(*value, path(key))) : std::nullopt;
}

std::optional<std::int64_t> Fields::optionalInteger(std::string_view key) const {
    const auto* value = optional(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    const auto integer = yamlInteger(*value);
    if (!integer) {
        throwTypeMismatch(*value, path(key), "an integer");
    }
    return integer;
}

std::optional<double> Fields::optionalDouble(std::string_view key) const {
    const auto* value = optional(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    // A Double field takes an integer spelling too ("30" is 30.0).
    if (const auto integer = yamlInteger(*value)) {
        return static_cast<double>(*integer);
    }
    const auto number = yamlDouble(*value);
    if (!number) {
        throwTypeMismatch(*value, path(key), "a number");
    }
    return number;
}

std::optional<bool> Fields::optionalBool(std::string_view key) const {
    const auto* value = optional(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    const auto flag = yamlBool(*value);
    if (!flag) {
        throwTypeMismatch(*value, path(key), "a boolean");
    }
    return flag;
}

std::optional<WorkflowValueMap> Fields::optionalValueMap(std::string_view key) const {
    const auto* value = optional(key);
    return value ? std::optional(valueMap(*value, path(key))) : std::nullopt;
}

} // namespace quorlin

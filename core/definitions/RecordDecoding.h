#pragma once

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowValue.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/YamlNode.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// Building blocks for the decoders of the record files (flow.yaml, block.yaml,
// manifest.yaml, client_profile.yml): each failure is a DecodingError naming the coding
// path ("flow.steps[2].on_error") and the line.

// What a node holds, for "found ..." in error messages.
std::string describeYamlNode(const YamlNode& node);
std::string keyPath(const std::string& path, std::string_view key);
std::string indexPath(const std::string& path, std::size_t index);
[[noreturn]] void throwTypeMismatch(const YamlNode& node, const std::string& path,
                                    std::string expected);

// A String field keeps the scalar's text as written, quoted or not.
std::string scalarText(const YamlNode& node, const std::string& path);
std::vector<std::string> textList(const YamlNode& node, const std::string& path);
WorkflowValueMap valueMap(const YamlNode& node, const std::string& path);

template <typename Decode>
auto sequenceOf(const YamlNode& node, const std::string& path, Decode decode) {
    if (!node.isSequence()) {
        throwTypeMismatch(node, path, "a sequence");
    }
    std::vector<decltype(decode(node, path))> result;
    result.reserve(node.items.size());
    for (std::size_t index = 0; index < node.items.size(); ++index) {
        result.push_back(decode(node.items[index], indexPath(path, index)));
    }
    return result;
}

// The keys of one mapping being decoded into a record. Optional keys that are missing or
// hold a null spelling are absent; required keys must be there.
class Fields {
public:
    Fields(const YamlNode& node, std::string path);

    std::string path(std::string_view key) const { return keyPath(path_, key); }

    const YamlNode& required(std::string_view key) const;
    const YamlNode* optional(std::string_view key) const;

    std::string requiredText(std::string_view key) const;
    std::optional<std::string> optionalText(std::string_view key) const;
    std::optional<std::vector<std::string>> optionalTextList(std::string_view key) const;
    std::optional<std::int64_t> optionalInteger(std::string_view key) const;
    std::optional<double> optionalDouble(std::string_view key) const;
    std::optional<bool> optionalBool(std::string_view key) const;
    std::optional<WorkflowValueMap> optionalValueMap(std::string_view key) const;

    template <typename Decode> auto requiredSequence(std::string_view key, Decode decode) const {
        return sequenceOf(required(key), path(key), decode);
    }

    template <typename Decode> auto optionalSequence(std::string_view key, Decode decode) const {
        const auto* value = optional(key);
        using Result = decltype(sequenceOf(*value, path(key), decode));
        return value ? std::optional<Result>(sequenceOf(*value, path(key), decode)) : std::nullopt;
    }

    template <typename Decode> auto optionalRecord(std::string_view key, Decode decode) const {
        const auto* value = optional(key);
        using Result = decltype(decode(*value, path(key)));
        return value ? std::optional<Result>(decode(*value, path(key))) : std::nullopt;
    }

private:
    const YamlNode& node_;
    std::string path_;
};

} // namespace quorlin

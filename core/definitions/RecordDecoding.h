#pragma once

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowValue.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/YamlNode.h"

#include <cstdint>
#include <functional>
#include <map>
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

// While alive, notes on its thread which keys the record decoders look up, by the coding
// path of each mapping they decode. The decoders ignore every other key, so a key
// missing here is one the program never reads: this is how a typo is found without a
// second list of keys to keep in step with the decoders. Logs nest; the innermost one
// notes.
class RecordKeyLog {
public:
    RecordKeyLog();
    ~RecordKeyLog();
    RecordKeyLog(const RecordKeyLog&) = delete;
    RecordKeyLog& operator=(const RecordKeyLog&) = delete;

    // The keys looked up in the mapping at path, or nullptr when no record was decoded
    // there (a free map such as a step's config, or a part the decoder never reached).
    const std::vector<std::string>* keysAt(const std::string& path) const;

    // Notes a lookup in the active log of this thread, if there is one.
    static void note(const std::string& path, std::string_view key);

private:
    std::map<std::string, std::vector<std::string>> keysByPath_;
    RecordKeyLog* outer_;
};

// A key of a record that its decoder never reads but that is close enough to one it does
// read to be a typo of it.
struct UnknownRecordKey {
    std::string path; // the coding path of the mapping holding it ("flow.steps[0]")
    std::string key;
    std::string suggestion;
};

// Runs decode over root with a key log and lists the likely typos among the keys it
// ignored, in document order. A key far from every read one may be meant for a newer
// program and is not listed. Whatever decode throws is passed on.
std::vector<UnknownRecordKey> unknownRecordKeys(const YamlNode& root,
                                                const std::function<void(const YamlNode&)>& decode);

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

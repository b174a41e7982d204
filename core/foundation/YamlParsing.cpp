// parseYaml of YamlNode.h: libyaml's event stream built into a node tree, with anchors,
// aliases and merge keys resolved and the nesting and copying limits enforced.

#include "core/foundation/YamlNode.h"

#include <algorithm>
#include <map>
#include <new>
#include <optional>
#include <set>

#include <yaml.h>

namespace quorlin {

namespace {

YamlMark markOf(const yaml_mark_t& mark) {
    return {mark.line + 1, mark.column + 1};
}

const char* kindName(const YamlNode& node) {
    switch (node.kind) {
    case YamlNode::Kind::scalar:
        return "scalar";
    case YamlNode::Kind::sequence:
        return "sequence";
    case YamlNode::Kind::mapping:
        return "mapping";
    }
    return "node";
}

std::string charsToString(const unsigned char* chars) {
    return chars == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(chars));
}

// One libyaml event, released when it goes out of scope.
class Event {
public:
    Event() = default;
    ~Event() { release(); }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void release() {
        if (valid_) {
            yaml_event_delete(&raw_);
            valid_ = false;
        }
    }

    yaml_event_t raw_{};
    bool valid_ = false;
};

// A node defined with an anchor, with what a copy of it costs.
struct AnchoredNode {
    YamlNode node;
    std::size_t nodeCount = 0;
    std::size_t height = 0;
};

void measure(const YamlNode& node, std::size_t depth, std::size_t& count, std::size_t& height) {
    count += 1;
    height = std::max(height, depth);
    for (const auto& item : node.items) {
        measure(item, depth + 1, count, height);
    }
    for (const auto& entry : node.entries) {
        measure(entry.second, depth + 1, count, height);
    }
}

class EventParser {
public:
    explicit EventParser(std::string_view text) : text_(text) {
        if (yaml_parser_initialize(&parser_) == 0) {
            throw std::bad_alloc();
        }
        yaml_parser_set_input_string(&parser_, reinterpret_cast<const unsigned char*>(text.data()),
                                     text.size());
    }
    ~EventParser() { yaml_parser_delete(&parser_); }
    EventParser(const EventParser&) = delete;
    EventParser& operator=(const EventParser&) = delete;

    YamlNode parseStream() {
        Event event;
        read(event); // stream start
        read(event);
        if (event.raw_.type == YAML_STREAM_END_EVENT) {
            return YamlNode::plainScalar("");
        }
        read(event); // the document's root node follows its start
        YamlNode root = parseNode(event, 1);
        read(event); // document end
        read(event);
        if (event.raw_.type == YAML_DOCUMENT_START_EVENT) {
            throw YamlError(YamlError::Kind::multipleDocuments, "", markOf(event.raw_.start_mark));
        }
        return root;
    }

private:
    void read(Event& event) {
        event.release();
        if (yaml_parser_parse(&parser_, &event.raw_) == 0) {
            throwParserError();
        }
        event.valid_ = true;
    }

    [[noreturn]] void throwParserError() const {
        if (parser_.error == YAML_MEMORY_ERROR) {
            throw std::bad_alloc();
        }
        std::string detail = parser_.problem != nullptr ? parser_.problem : "invalid YAML";
        if (parser_.error == YAML_READER_ERROR) {
            // The reader reports a byte offset only (bad encoding, control characters).
            throw YamlError(YamlError::Kind::syntax, detail, markAtOffset(parser_.problem_offset));
        }
        if (parser_.context != nullptr) {
            detail += std::string(" ") + parser_.context;
        }
        throw YamlError(YamlError::Kind::syntax, detail, markOf(parser_.problem_mark));
    }

    YamlMark markAtOffset(std::size_t offset) const {
        YamlMark mark{1, 1};
        const auto end = std::min(offset, text_.size());
        for (std::size_t index = 0; index < end; ++index) {
            if (text_[index] == '\n') {
                mark.line += 1;
                mark.column = 1;
            } else if ((static_cast<unsigned char>(text_[index]) & 0xC0U) != 0x80U) {
                mark.column += 1;
            }
        }
        return mark;
    }

    // Builds the node that starts with event, reading events up to its end.
    YamlNode parseNode(const Event& event, std::size_t depth) {
        const auto& raw = event.raw_;
        const YamlMark mark = markOf(raw.start_mark);
        YamlNode node;
        std::string anchor;
        switch (raw.type) {
        case YAML_ALIAS_EVENT:
            return resolveAlias(charsToString(raw.data.alias.anchor), mark, depth);
        case YAML_SCALAR_EVENT:
            node.text.assign(reinterpret_cast<const char*>(raw.data.scalar.value),
                             raw.data.scalar.length);
            node.plain =
                raw.data.scalar.style == YAML_PLAIN_SCALAR_STYLE && raw.data.scalar.tag == nullptr;
            anchor = charsToString(raw.data.scalar.anchor);
            break;
        case YAML_SEQUENCE_START_EVENT:
            checkDepth(depth, mark);
            anchor = charsToString(raw.data.sequence_start.anchor);
            node = parseSequence(depth);
            break;
        case YAML_MAPPING_START_EVENT:
            checkDepth(depth, mark);
            anchor = charsToString(raw.data.mapping_start.anchor);
            node = parseMapping(depth);
            break;
        default:
            throw YamlError(YamlError::Kind::syntax, "unexpected event in the event stream", mark);
        }
        node.mark = mark;
        if (!anchor.empty()) {
            remember(anchor, node, mark);
        }
        return node;
    }

    static void checkDepth(std::size_t depth, const YamlMark& mark) {
        if (depth > yamlMaxDepth) {
            throw YamlError(YamlError::Kind::tooDeep, "", mark);
        }
    }

    YamlNode parseSequence(std::size_t depth) {
        YamlNode node = YamlNode::sequence();
        Event event;
        for (read(event); event.raw_.type != YAML_SEQUENCE_END_EVENT; read(event)) {
            node.items.push_back(parseNode(event, depth + 1));
        }
        return node;
    }

    YamlNode parseMapping(std::size_t depth) {
        std::vector<std::pair<std::string, YamlNode>> explicitEntries;
        std::set<std::string, std::less<>> explicitKeys;
        std::optional<YamlNode> mergeValue;
        std::size_t mergePosition = 0;

        Event event;
        for (read(event); event.raw_.type != YAML_MAPPING_END_EVENT; read(event)) {
            YamlNode key = parseNode(event, depth + 1);
            if (!key.isScalar()) {
                throw YamlError(YamlError::Kind::unsupportedKey, kindName(key), key.mark);
            }
            read(event);
            YamlNode value = parseNode(event, depth + 1);
            if (key.plain && key.text == "<<") {
                if (mergeValue) {
                    throw YamlError(YamlError::Kind::duplicateKey, key.text, key.mark);
                }
                mergeValue = std::move(value);
                mergePosition = explicitEntries.size();
                continue;
            }
            if (!explicitKeys.insert(key.text).second) {
                throw YamlError(YamlError::Kind::duplicateKey, key.text, key.mark);
            }
            explicitEntries.emplace_back(std::move(key.text), std::move(value));
        }

        YamlNode node = YamlNode::mapping();
        if (!mergeValue) {
            node.entries = std::move(explicitEntries);
            return node;
        }
        auto merged = mergedEntries(std::move(*mergeValue), explicitKeys);
        node.entries.reserve(explicitEntries.size() + merged.size());
        auto split = explicitEntries.begin() + static_cast<std::ptrdiff_t>(mergePosition);
        std::move(explicitEntries.begin(), split, std::back_inserter(node.entries));
        std::move(merged.begin(), merged.end(), std::back_inserter(node.entries));
        std::move(split, explicitEntries.end(), std::back_inserter(node.entries));
        return node;
    }

    // The entries a merge key contributes: keys the mapping writes itself always win, and
    // among several merged mappings the earlier one wins.
    static std::vector<std::pair<std::string, YamlNode>>
    mergedEntries(YamlNode value, std::set<std::string, std::less<>> seenKeys) {
        std::vector<YamlNode> sources;
        if (value.isMapping()) {
            sources.push_back(std::move(value));
        } else if (value.isSequence()) {
            for (auto& item : value.items) {
                if (!item.isMapping()) {
                    throw YamlError(YamlError::Kind::invalidMerge, kindName(item), item.mark);
                }
            }
            sources = std::move(value.items);
        } else {
            throw YamlError(YamlError::Kind::invalidMerge, kindName(value), value.mark);
        }
        std::vector<std::pair<std::string, YamlNode>> result;
        for (auto& source : sources) {
            for (auto& entry : source.entries) {
                if (seenKeys.insert(entry.first).second) {
                    result.push_back(std::move(entry));
                }
            }
        }
        return result;
    }

    // Keeping the anchored copy costs nodes too: counting it stops a document of deeply
    // nested anchors from multiplying memory without a single alias.
    void remember(const std::string& anchor, const YamlNode& node, const YamlMark& mark) {
        AnchoredNode anchored{node, 0, 0};
        measure(anchored.node, 1, anchored.nodeCount, anchored.height);
        countCopiedNodes(anchored.nodeCount, mark);
        anchors_.insert_or_assign(anchor, std::move(anchored));
    }

    void countCopiedNodes(std::size_t count, const YamlMark& mark) {
        copiedNodeCount_ += count;
        if (copiedNodeCount_ > yamlMaxAliasNodes) {
            throw YamlError(YamlError::Kind::tooManyAliasNodes, "", mark);
        }
    }

    // An alias is a copy of the node last defined under its anchor. An anchor counts only
    // once its node is complete, so a node cannot contain an alias of itself.
    YamlNode resolveAlias(const std::string& name, const YamlMark& mark, std::size_t depth) {
        const auto found = anchors_.find(name);
        if (found == anchors_.end()) {
            throw YamlError(YamlError::Kind::undefinedAlias, name, mark);
        }
        const AnchoredNode& anchored = found->second;
        if (anchored.height > 1 && depth + anchored.height - 1 > yamlMaxDepth) {
            throw YamlError(YamlError::Kind::tooDeep, "", mark);
        }
        countCopiedNodes(anchored.nodeCount, mark);
        YamlNode copy = anchored.node;
        copy.mark = mark;
        return copy;
    }

    std::string_view text_;
    yaml_parser_t parser_{};
    std::map<std::string, AnchoredNode, std::less<>> anchors_;
    std::size_t copiedNodeCount_ = 0;
};

} // namespace

YamlNode parseYaml(std::string_view text) {
    EventParser parser(text);
    return parser.parseStream();
}

} // namespace quorlin

#include "YamlNode.h"

namespace quorlin {

const YamlNode* YamlNode::find(std::string_view key) const {
    for (const auto& entry : entries) {
        if (entry.first == key) {
            return &entry.second;
        }
    }
    return nullptr;
}

YamlNode YamlNode::plainScalar(std::string text) {
    YamlNode node;
    node.text = std::move(text);
    node.plain = true;
    return node;
}

YamlNode YamlNode::quotedScalar(std::string text) {
    YamlNode node;
    node.text = std::move(text);
    node.plain = false;
    return node;
}

YamlNode YamlNode::sequence(std::vector<YamlNode> items) {
    YamlNode node;
    node.kind = Kind::sequence;
    node.items = std::move(items);
    return node;
}

YamlNode YamlNode::mapping(std::vector<std::pair<std::string, YamlNode>> entries) {
    YamlNode node;
    node.kind = Kind::mapping;
    node.entries = std::move(entries);
    return node;
}

} // namespace quorlin

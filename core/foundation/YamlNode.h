#pragma once

#include "core/foundation/YamlError.h"
#include "core/foundation/YamlMark.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorlin {

// Limits that keep hostile input from exhausting the stack or memory: how deeply
// sequences and mappings may nest, and how many nodes anchors and aliases may copy in one
// document.
inline constexpr std::size_t yamlMaxDepth = 512;
inline constexpr std::size_t yamlMaxAliasNodes = 1'000'000;

// A YAML node tree as read from one document. Scalars keep their text as written and
// whether they were plain (unquoted, not a block, no explicit tag): the value layer, not
// the parser, decides what a scalar means. Aliases are resolved as copies and merge keys
// ("<<") are already folded into their mappings.
struct YamlNode {
    enum class Kind { scalar, sequence, mapping };

    Kind kind = Kind::scalar;
    std::string text;                                      // scalar only
    bool plain = true;                                     // scalar only
    std::vector<YamlNode> items;                           // sequence only
    std::vector<std::pair<std::string, YamlNode>> entries; // mapping only, in document order
    YamlMark mark;

    bool isScalar() const { return kind == Kind::scalar; }
    bool isSequence() const { return kind == Kind::sequence; }
    bool isMapping() const { return kind == Kind::mapping; }

    // The value under key in a mapping, or nullptr (also for non-mappings).
    const YamlNode* find(std::string_view key) const;

    static YamlNode plainScalar(std::string text);
    static YamlNode quotedScalar(std::string text);
    static YamlNode sequence(std::vector<YamlNode> items = {});
    static YamlNode mapping(std::vector<std::pair<std::string, YamlNode>> entries = {});
};

// Parses text holding a single YAML document. An empty stream gives an empty plain
// scalar. Throws YamlError.
YamlNode parseYaml(std::string_view text);

} // namespace quorlin

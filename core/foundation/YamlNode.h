#pragma once

#include "Error.h"

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

// Where a node starts in its source text, 1-based, for error messages. Line 0 means the
// node has no source text (it was built from JSON or in code).
struct YamlMark {
    std::size_t line = 0;
    std::size_t column = 0;
};

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

class YamlError : public Error {
public:
    enum class Kind {
        syntax,
        multipleDocuments,
        undefinedAlias,
        duplicateKey,
        unsupportedKey,
        invalidMerge,
        tooDeep,
        tooManyAliasNodes,
    };

    // detail: the parser's problem text for syntax, the alias name for undefinedAlias,
    // the key for duplicateKey, the kind of node found ("sequence", "mapping", "scalar")
    // for unsupportedKey and invalidMerge; unused otherwise.
    YamlError(Kind kind, std::string detail, YamlMark mark);

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }
    const YamlMark& mark() const { return mark_; }

private:
    Kind kind_;
    std::string detail_;
    YamlMark mark_;
};

// Parses text holding a single YAML document. An empty stream gives an empty plain
// scalar. Throws YamlError.
YamlNode parseYaml(std::string_view text);

} // namespace quorlin

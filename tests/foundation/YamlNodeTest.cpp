#include "core/foundation/YamlNode.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using ::testing::HasSubstr;

// The keys of a mapping, in the order the tree keeps them.
std::vector<std::string> keysOf(const YamlNode& node) {
    std::vector<std::string> keys;
    for (const auto& entry : node.entries) {
        keys.push_back(entry.first);
    }
    return keys;
}

YamlError::Kind errorKindOf(const std::string& text) {
    try {
        parseYaml(text);
    } catch (const YamlError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "no YamlError for: " << text;
    return YamlError::Kind::syntax;
}

TEST(YamlNodeTest, ScalarsKnowWhetherTheyWereWrittenPlain) {
    struct Case {
        const char* yaml;
        const char* text;
        bool plain;
    };
    const Case cases[] = {
        {"v: abc", "abc", true},
        {"v: 42", "42", true},
        {"v:", "", true},
        {"v: ~", "~", true},
        {"v: 'abc'", "abc", false},
        {"v: \"a\\tb\"", "a\tb", false},
        {"v: ''", "", false},
        {"v: |\n  line\n", "line\n", false},
        {"v: >\n  folded\n  text\n", "folded text\n", false},
        {"v: !!str 42", "42", false},
        {"v: ! 42", "42", false},
        {"v: !custom 42", "42", false},
        {"v: one\n  two", "one two", true},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.yaml);
        const auto root = parseYaml(testCase.yaml);
        const auto* value = root.find("v");
        ASSERT_NE(value, nullptr);
        EXPECT_TRUE(value->isScalar());
        EXPECT_EQ(value->text, testCase.text);
        EXPECT_EQ(value->plain, testCase.plain);
    }
}

TEST(YamlNodeTest, ReadsTreesInDocumentOrderWithMarks) {
    const auto root = parseYaml("zeta: 1\nalpha:\n  - x\n  - {k: v}\nmid: [a, b]\n");
    ASSERT_TRUE(root.isMapping());
    EXPECT_EQ(keysOf(root), (std::vector<std::string>{"zeta", "alpha", "mid"}));
    const auto* alpha = root.find("alpha");
    ASSERT_NE(alpha, nullptr);
    ASSERT_TRUE(alpha->isSequence());
    ASSERT_EQ(alpha->items.size(), 2U);
    EXPECT_EQ(alpha->items[0].text, "x");
    EXPECT_EQ(alpha->items[0].mark.line, 3U);
    EXPECT_EQ(alpha->items[0].mark.column, 5U);
    EXPECT_EQ(alpha->items[1].find("k")->text, "v");
    EXPECT_EQ(root.find("mid")->items.size(), 2U);
    EXPECT_EQ(root.find("missing"), nullptr);
    EXPECT_EQ(alpha->find("x"), nullptr);
}

TEST(YamlNodeTest, EmptyStreamsAreAnEmptyPlainScalar) {
    for (const char* text : {"", "\n\n", "# only a comment\n", "---\n", "--- \n...\n"}) {
        SCOPED_TRACE(text);
        const auto root = parseYaml(text);
        EXPECT_TRUE(root.isScalar());
        EXPECT_TRUE(root.plain);
        EXPECT_EQ(root.text, "");
    }
}

TEST(YamlNodeTest, ErrorsNameTheProblemAndWhereItIs) {
    struct Case {
        const char* yaml;
        YamlError::Kind kind;
        const char* message;
    };
    const Case cases[] = {
        {"a: 1\n---\nb: 2\n", YamlError::Kind::multipleDocuments,
         "expected a single document in the stream (line 2, column 1)"},
        {"a: 1\n...\n--- b\n", YamlError::Kind::multipleDocuments,
         "expected a single document in the stream (line 3, column 1)"},
        {"a: &x 1\nb: *y\n", YamlError::Kind::undefinedAlias,
         "found undefined alias (line 2, column 4)"},
        {"a: &x [1, *x]\n", YamlError::Kind::undefinedAlias,
         "found undefined alias (line 1, column 11)"},
        {"a: 1\nb: 2\na: 3\n", YamlError::Kind::duplicateKey,
         "Duplicate values for key: 'a' (line 3, column 1)"},
        {"top:\n  list:\n    - k: 1\n      other: 2\n      k: 3\n", YamlError::Kind::duplicateKey,
         "Duplicate values for key: 'k' (line 5, column 7)"},
        {"m: {x: 1, x: 1}\n", YamlError::Kind::duplicateKey,
         "Duplicate values for key: 'x' (line 1, column 11)"},
        {"key: 1\n\"key\": 2\n", YamlError::Kind::duplicateKey,
         "Duplicate values for key: 'key' (line 2, column 1)"},
        {"? [a, b]\n: 1\n", YamlError::Kind::unsupportedKey,
         "a mapping key must be a scalar, found a sequence (line 1, column 3)"},
        {"? {a: b}\n: 1\n", YamlError::Kind::unsupportedKey,
         "a mapping key must be a scalar, found a mapping (line 1, column 3)"},
        {"a:\n  <<: 1\n", YamlError::Kind::invalidMerge,
         "the merge key '<<' needs a mapping or a sequence of mappings, found a scalar "
         "(line 2, column 7)"},
        {"a: &a {x: 1}\nb:\n  <<: [*a, 2]\n", YamlError::Kind::invalidMerge,
         "the merge key '<<' needs a mapping or a sequence of mappings, found a scalar "
         "(line 3, column 12)"},
        {"a: &a {x: 1}\nb:\n  <<: *a\n  <<: *a\n", YamlError::Kind::duplicateKey,
         "Duplicate values for key: '<<' (line 4, column 3)"},
        {"a: [1, 2\n", YamlError::Kind::syntax,
         "did not find expected ',' or ']' while parsing a flow sequence (line 2, column 1)"},
        {"a: 'open\n", YamlError::Kind::syntax,
         "found unexpected end of stream while scanning a quoted scalar (line 2, column 1)"},
        {"a: b\n c: d\n", YamlError::Kind::syntax,
         "mapping values are not allowed in this context (line 2, column 3)"},
        {"a: ok\nb: \xff\n", YamlError::Kind::syntax,
         "invalid leading UTF-8 octet (line 2, column 4)"},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.yaml);
        try {
            parseYaml(testCase.yaml);
            ADD_FAILURE() << "parsed without error";
        } catch (const YamlError& error) {
            EXPECT_EQ(error.kind(), testCase.kind);
            EXPECT_STREQ(error.what(), testCase.message);
        }
    }
}

TEST(YamlNodeTest, AliasesAreIndependentCopiesOfTheAnchoredNode) {
    const auto root = parseYaml("base: &b\n  x: 1\n  list: [a, 'b']\nuse: *b\nagain: *b\n"
                                "redefined: &b 2\nlatest: *b\n");
    const auto* base = root.find("base");
    const auto* use = root.find("use");
    ASSERT_NE(base, nullptr);
    ASSERT_NE(use, nullptr);
    ASSERT_TRUE(use->isMapping());
    EXPECT_EQ(keysOf(*use), keysOf(*base));
    EXPECT_EQ(use->find("list")->items[1].text, "b");
    EXPECT_FALSE(use->find("list")->items[1].plain);
    // The copy is reported where the alias stands, so errors point at the use.
    EXPECT_EQ(use->mark.line, 4U);
    EXPECT_EQ(use->mark.column, 6U);
    EXPECT_EQ(root.find("latest")->text, "2");

    // A scalar alias can serve as a key.
    const auto keyed = parseYaml("k: &name title\n*name : value\n");
    EXPECT_EQ(keysOf(keyed), (std::vector<std::string>{"k", "title"}));
}

TEST(YamlNodeTest, MergeKeysFillInOnlyWhatTheMappingLacks) {
    struct Case {
        const char* name;
        const char* yaml;
        std::vector<std::pair<std::string, std::string>> expected;
    };
    const std::string anchors = "a: &a {x: a1, y: a2}\nb: &b {y: b2, z: b3}\n";
    const Case cases[] = {
        {"a merged mapping adds its keys",
         "m:\n  <<: *a\n  w: own\n",
         {{"x", "a1"}, {"y", "a2"}, {"w", "own"}}},
        {"explicit keys win when written after the merge",
         "m:\n  <<: *a\n  x: own\n",
         {{"y", "a2"}, {"x", "own"}}},
        {"explicit keys win when written before the merge",
         "m:\n  x: own\n  <<: *a\n",
         {{"x", "own"}, {"y", "a2"}}},
        {"among several sources the earlier wins",
         "m:\n  <<: [*a, *b]\n",
         {{"x", "a1"}, {"y", "a2"}, {"z", "b3"}}},
        {"the order of sources decides",
         "m:\n  <<: [*b, *a]\n",
         {{"y", "b2"}, {"z", "b3"}, {"x", "a1"}}},
        {"an inline mapping merges too", "m:\n  <<: {q: 1}\n  r: 2\n", {{"q", "1"}, {"r", "2"}}},
        {"a quoted << is an ordinary key", "m:\n  \"<<\": *a\n", {{"<<", ""}}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        const auto root = parseYaml(anchors + testCase.yaml);
        const auto* merged = root.find("m");
        ASSERT_NE(merged, nullptr);
        ASSERT_EQ(merged->entries.size(), testCase.expected.size());
        for (std::size_t index = 0; index < testCase.expected.size(); ++index) {
            EXPECT_EQ(merged->entries[index].first, testCase.expected[index].first);
            if (merged->entries[index].second.isScalar()) {
                EXPECT_EQ(merged->entries[index].second.text, testCase.expected[index].second);
            }
        }
    }
}

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(YamlNodeTest, HostileDocumentsFailInsteadOfExhaustingResources) {
    // Billion laughs: nine levels of ten aliases each.
    std::string laughs = "l0: &l0 [lol, lol, lol, lol, lol, lol, lol, lol, lol, lol]\n";
    for (int level = 1; level <= 9; ++level) {
        const auto previous = "*l" + std::to_string(level - 1);
        laughs += "l" + std::to_string(level) + ": &l" + std::to_string(level) + " [";
        for (int copy = 0; copy < 10; ++copy) {
            laughs += (copy == 0 ? "" : ", ") + previous;
        }
        laughs += "]\n";
    }
    EXPECT_EQ(errorKindOf(laughs), YamlError::Kind::tooManyAliasNodes);

    EXPECT_NO_THROW(parseYaml(nested(yamlMaxDepth)));
    EXPECT_EQ(errorKindOf(nested(yamlMaxDepth + 1)), YamlError::Kind::tooDeep);
    EXPECT_EQ(errorKindOf(nested(100000)), YamlError::Kind::tooDeep);

    // Anchors alone: each nested anchored mapping keeps its own copy of everything below.
    std::string anchors;
    const std::size_t levels = 450;
    for (std::size_t level = 0; level < levels; ++level) {
        anchors += "&a" + std::to_string(level) +
                   " {a: 1, b: 2, c: 3, d: 4, e: 5, f: 6, g: 7, h: 8, i: 9, j: 10, k: 11, next: ";
    }
    anchors += "end" + std::string(levels, '}');
    EXPECT_EQ(errorKindOf(anchors), YamlError::Kind::tooManyAliasNodes);

    // An alias may not carry a deep node deeper than the limit either.
    const auto half = yamlMaxDepth / 2 + 10;
    const auto deepAnchor = "a: &deep " + nested(half) + "\nb: " + std::string(half, '[') +
                            "*deep" + std::string(half, ']') + "\n";
    EXPECT_EQ(errorKindOf(deepAnchor), YamlError::Kind::tooDeep);
}

} // namespace
} // namespace quorlin

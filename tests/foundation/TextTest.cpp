#include "core/foundation/Text.h"

#include "core/foundation/ClosestWord.h"

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

TEST(Text, TrimsUnicodeWhitespaceAndLineEnds) {
    const std::pair<std::string, std::string> cases[] = {
        {"  a b  ", "a b"},
        {"\n\t\r x \n", "x"},
        {"\u00a0\u2003wide\u3000", "wide"}, // no-break, em and ideographic spaces
        {"\u2028line\u2029", "line"},
        {"   ", ""},
        {"", ""},
        {"日本語", "日本語"},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(trimmed(input), expected) << input;
    }
}

TEST(Text, LowercasesBeyondAscii) {
    EXPECT_EQ(lowercased("TRUE"), "true");
    EXPECT_EQ(lowercased("ÄÖÜ Straße"), "äöü straße");
    EXPECT_EQ(lowercased("ΣΟΦΙΑ"), "σοφια");
}

TEST(Text, EscapesWhatWouldDriveATerminal) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain words, é and 日本", "plain words, é and 日本"},
        {"two\nlines\tand a tab", "two\nlines\tand a tab"},
        {"red \x1b[31mtext", "red \\x1B[31mtext"},
        {std::string("nul\0byte", 8), "nul\\x00byte"},
        {"del\x7f", "del\\x7F"},
        {"c1 \xc2\x85", "c1 \\u{0085}"},
        {"raw \xff\xfe bytes", "raw \\xFF\\xFE bytes"},
        {"kept \xef\xbf\xbd", "kept \xef\xbf\xbd"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(escapedControlBytes(text), expected);
    }
}

TEST(Text, ValidatesUtf8) {
    EXPECT_TRUE(isValidUtf8("plain ascii"));
    EXPECT_TRUE(isValidUtf8("日本語 ✓"));
    EXPECT_FALSE(isValidUtf8("\xff\xfe"));
    EXPECT_FALSE(isValidUtf8("cut \xe6\x97"));
}

TEST(Text, ClassifiesLettersAndNumbers) {
    EXPECT_TRUE(isLetter(U'a'));
    EXPECT_TRUE(isLetter(U'語'));
    EXPECT_TRUE(isNumber(U'٣')); // Arabic-Indic three
    EXPECT_FALSE(isLetter(U'-'));
    EXPECT_FALSE(isNumber(U'x'));
}

TEST(ClosestWordTest, SuggestsOnlyWhatLooksLikeATypo) {
    const std::vector<std::string> commands{"run", "history", "validate", "flows", "inspect"};
    struct Case {
        std::string word;
        std::optional<std::string> expected;
    };
    const std::vector<Case> cases{
        {"histroy", "history"}, // neighbours swapped
        {"HISTORY", "history"}, // letter case aside
        {"valdate", "validate"},  {"flow", "flows"},      {"rnu", "run"},
        {"xyz", std::nullopt},                            // nothing close
        {"inspector", "inspect"}, {"insp", std::nullopt}, // three edits is too many for a short
                                                          // word
        {"", std::nullopt},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(closestWord(item.word, commands), item.expected) << item.word;
    }
    EXPECT_EQ(editDistance("entrypiont", "entrypoint"), 1u);
    EXPECT_EQ(editDistance("abc", ""), 3u);
}

} // namespace
} // namespace quorlin

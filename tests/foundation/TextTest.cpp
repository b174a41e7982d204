#include "core/foundation/Text.h"

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

} // namespace
} // namespace quorlin

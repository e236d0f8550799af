#include "CoreKit/UnicodeText.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {
// A woman, a man and a child joined into one family emoji: one character of 18 bytes.
const std::string family = "\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA7";
// "e" and a combining acute accent: one character of 3 bytes.
const std::string decomposedE = "e\xCC\x81";
} // namespace

TEST(UnicodeText, CountsCharactersAsAPersonDoesAndStopsPastTheLimit) {
    struct Case {
        std::string text;
        std::size_t limit;
        std::size_t expected;
    };
    const std::vector<Case> cases = {
        {"", 10, 0},
        {"abc", 10, 3},
        {family + decomposedE + "x", 10, 3},
        {"\r\n", 10, 1},  // a line end of two code points is one character
        {std::string(50, 'a'), 10, 11},
        {std::string(10, 'a'), 10, 10},
        {"caf\xE9", 10, 4},  // an ill-formed byte still counts once
    };
    for (const auto& c : cases) EXPECT_EQ(UnicodeText::characterCount(c.text, c.limit), c.expected) << c.text;
}

TEST(UnicodeText, PrefixNeverSplitsACharacter) {
    const std::string text = "a" + family + decomposedE + "z";
    EXPECT_EQ(UnicodeText::prefix(text, 0), "");
    EXPECT_EQ(UnicodeText::prefix(text, 2), "a" + family);
    EXPECT_EQ(UnicodeText::prefix(text, 3), "a" + family + decomposedE);
    EXPECT_EQ(UnicodeText::prefix(text, 9), text);
}

TEST(UnicodeText, TrimsAndSplitsOnUnicodeWhiteSpace) {
    // A no-break space, an em space and an ideographic space are white space too.
    const std::string spaces = " \t\n\xC2\xA0\xE2\x80\x83\xE3\x80\x80";
    EXPECT_EQ(UnicodeText::trimmed(spaces + "mid dle" + spaces), "mid dle");
    EXPECT_EQ(UnicodeText::trimmed(spaces), "");
    EXPECT_EQ(UnicodeText::trimmed("\xFF x \xFF"), "\xFF x \xFF");
    EXPECT_EQ(UnicodeText::words(spaces + "one" + spaces + "two\nthree" + spaces),
              (std::vector<std::string_view>{"one", "two", "three"}));
    EXPECT_TRUE(UnicodeText::words(spaces).empty());
}

TEST(UnicodeText, FoldingIgnoresCaseAndDiacritics) {
    EXPECT_EQ(UnicodeText::folded("Crème BRÛLÉE"), "creme brulee");
    EXPECT_EQ(UnicodeText::folded("caf" + decomposedE), "cafe");
    EXPECT_EQ(UnicodeText::folded("Straße"), "strasse");
    EXPECT_EQ(UnicodeText::folded("ΆΛΦΑ"), "αλφα");
    EXPECT_EQ(UnicodeText::folded(family), family);
}

TEST(UnicodeText, RepairKeepsEverythingButTheIllFormedBytes) {
    EXPECT_TRUE(UnicodeText::isValidUTF8("plain " + family));
    EXPECT_FALSE(UnicodeText::isValidUTF8("caf\xE9"));
    EXPECT_EQ(UnicodeText::repairedUTF8("caf\xE9 ok"), "caf\xEF\xBF\xBD ok");
    EXPECT_EQ(UnicodeText::repairedUTF8("\xF0\x9F"), "\xEF\xBF\xBD");
}

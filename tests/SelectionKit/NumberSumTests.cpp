#include "SelectionKit/NumberSum.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavrick {
namespace {

TEST(NumberSumTest, SumsExactlyWithSeparatorsSignsAndSuffixes) {
    struct Case {
        std::string text;
        std::optional<std::string> formatted;
        std::size_t count;
    };
    const std::vector<Case> cases{
        {"0.1 0.2", "0.3", 2},
        {"1.5k 2", "1,502", 2},
        {"€1.000,50 €2", "€1,002.5", 2},
        {"$1,234.56 and $0.44.", "$1,235", 2},
        {"1,000 2,000,000", "2,001,000", 2},       // a comma before three digits groups thousands
        {"2,5 0,5", "3", 2},                        // otherwise it is a decimal comma
        {"-5 3", "-2", 2},
        {"$-5 -$3 5$", "-$3", 3},
        {"−2 1", "-1", 2},                          // the typographic minus
        {"(4) [6]", "10", 2},
        {"+7 1m", "1,000,007", 2},
        {"2B 1b", "3,000,000,000", 2},
        {"£1 €1", "2", 2},                          // the symbols differ: no currency
        {"£1 2", "£3", 2},
        {"5 -5", "0", 2},
        {"7 apples", std::nullopt, 0},
        {"no numbers here", std::nullopt, 0},
        {"", std::nullopt, 0},
        {"1.2.3.4 5", "1,239", 2},                  // repeated points group thousands
        {"1,2,3.4 1", "124.4", 2},
        {"1.2,3,4 1", std::nullopt, 0},             // a decimal comma may appear once
        {"12abc 3x 1e5 4", std::nullopt, 0},
        {"0.000000000000000001 0.000000000000000001", "0.000000000000000002", 2},
    };
    for (const auto& c : cases) {
        auto result = NumberSum::sum(c.text);
        ASSERT_EQ(result.has_value(), c.formatted.has_value()) << c.text;
        if (!result) continue;
        EXPECT_EQ(result->formatted(), *c.formatted) << c.text;
        EXPECT_EQ(result->count, c.count) << c.text;
        EXPECT_EQ(result->title(), std::to_string(c.count) + " numbers");
    }
}

TEST(NumberSumTest, TotalsThatDoNotFitAreRefusedRatherThanWrapped) {
    const std::string big = "99999999999999999999999999999999999999";  // 38 digits
    EXPECT_EQ(NumberSum::sum(big + " 0")->formatted().size(), 38u + 12u);
    EXPECT_FALSE(NumberSum::sum(big + " 1"));
    EXPECT_FALSE(NumberSum::number(big + "9"));
    EXPECT_FALSE(NumberSum::number(big + "k"));
}

TEST(NumberSumTest, AHugeSelectionIsReadInOnePass) {
    std::string text;
    for (int i = 0; i < 100000; ++i) text += "0.01 word ";
    auto result = NumberSum::sum(text);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->count, 100000u);
    EXPECT_EQ(result->formatted(), "1,000");
}

TEST(DecimalTest, ParsesOnlyPlainDecimals) {
    EXPECT_EQ(Decimal::parse("1.50")->description(), "1.5");
    EXPECT_EQ(Decimal::parse("-0.30")->description(), "-0.3");
    EXPECT_EQ(Decimal::parse(".5")->description(), "0.5");
    EXPECT_EQ(Decimal::parse("007")->description(), "7");
    for (const char* bad : {"", ".", "-", "1.2.3", "1e5", "1,5", " 1", "0x10"}) EXPECT_FALSE(Decimal::parse(bad)) << bad;
    EXPECT_EQ(Decimal::parse("1234567.25")->grouped(), "1,234,567.25");
    EXPECT_EQ(Decimal::parse("-999")->grouped(), "-999");
    EXPECT_EQ(Decimal::parse("-1000")->grouped(), "-1,000");
    EXPECT_EQ(*Decimal::parse("0.1")->plus(*Decimal::parse("0.2")), *Decimal::parse("0.3"));
}

} // namespace
} // namespace tavrick

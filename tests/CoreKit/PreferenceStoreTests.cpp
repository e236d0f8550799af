#include "CoreKit/PreferenceStore.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace tavrick {
namespace {

using Kind = PreferenceValue::Kind;

TEST(PreferenceValueTest, EveryKindIsDistinctAndComparesByContent) {
    std::vector<PreferenceValue> values{true, 1, 1.0, "YES", PreferenceValue::data("YES"), PreferenceValue::Array{},
                                        PreferenceValue::Dictionary{}};
    std::vector<Kind> kinds{Kind::boolean, Kind::integer, Kind::real,      Kind::string,
                            Kind::data,    Kind::array,   Kind::dictionary};
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(values[i].kind(), kinds[i]) << i;
        for (std::size_t j = 0; j < values.size(); ++j) {
            if (i != j) {
                EXPECT_NE(values[i], values[j]) << i << " vs " << j;
            }
        }
    }
    // A string literal must never decay to a bool, and every integer width is an integer.
    EXPECT_EQ(PreferenceValue("").kind(), Kind::string);
    EXPECT_EQ(PreferenceValue(short{3}).kind(), Kind::integer);
    EXPECT_EQ(PreferenceValue(3u).kind(), Kind::integer);
    EXPECT_EQ(PreferenceValue(2.5f).kind(), Kind::real);
    // Nested values: an integer deep inside is not the equal-looking real.
    PreferenceValue::Dictionary inner{{"a", 1}, {"b", PreferenceValue::Array{"x", false}}};
    PreferenceValue::Dictionary changed = inner;
    changed.insert_or_assign("a", 1.0);
    EXPECT_EQ(PreferenceValue(PreferenceValue::Array{inner, 2.5}), PreferenceValue(PreferenceValue::Array{inner, 2.5}));
    EXPECT_NE(PreferenceValue(PreferenceValue::Array{inner, 2.5}), PreferenceValue(PreferenceValue::Array{changed, 2.5}));
}

TEST(PreferenceValueTest, SummaryTellsSizesButNeverContent) {
    struct Case {
        PreferenceValue value;
        std::string summary;
    };
    std::vector<Case> cases{
        {true, "true"},
        {false, "false"},
        {-42, "-42"},
        {4.5, "4.5"},
        {"secret", "text of 6 bytes"},
        {PreferenceValue::data("secret!"), "data of 7 bytes"},
        {PreferenceValue::Array{1, 2}, "array of 2"},
        {PreferenceValue::Dictionary{{"k", "secret"}}, "dictionary of 1"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.value.summary(), c.summary);
}

TEST(PreferenceStoreTest, TypedReadersAnswerOnlyForTheirType) {
    InMemoryPreferenceStore store({
        {"bool", true},
        {"int", 42},
        {"wholeReal", 50.0},
        {"fractionReal", 42.5},
        {"hugeReal", 1e300},
        {"twoToThe63", 9223372036854775808.0},
        {"text", "42"},
        {"yes", "YES"},
        {"data", PreferenceValue::data("42")},
        {"array", PreferenceValue::Array{"a"}},
        {"dictionary", PreferenceValue::Dictionary{{"a", "b"}}},
    });

    struct Case {
        const char* key;
        std::optional<bool> boolean;
        std::optional<std::int64_t> integer;
        std::optional<double> real;
        std::optional<std::string> string;
    };
    std::vector<Case> cases{
        {"bool", true, std::nullopt, std::nullopt, std::nullopt},
        {"int", std::nullopt, 42, 42.0, std::nullopt},
        {"wholeReal", std::nullopt, 50, 50.0, std::nullopt},
        {"fractionReal", std::nullopt, std::nullopt, 42.5, std::nullopt},
        {"hugeReal", std::nullopt, std::nullopt, 1e300, std::nullopt},
        {"twoToThe63", std::nullopt, std::nullopt, 9223372036854775808.0, std::nullopt},
        {"text", std::nullopt, std::nullopt, std::nullopt, "42"},
        {"yes", std::nullopt, std::nullopt, std::nullopt, "YES"},
        {"data", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
        {"array", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
        {"dictionary", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
        {"absent", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(store.boolean(c.key), c.boolean);
        EXPECT_EQ(store.integer(c.key), c.integer);
        EXPECT_EQ(store.real(c.key), c.real);
        EXPECT_EQ(store.string(c.key), c.string);
    }
    EXPECT_EQ(store.data("data"), (PreferenceValue::Data{'4', '2'}));
    EXPECT_FALSE(store.data("text"));
    EXPECT_EQ(store.array("array")->size(), 1u);
    EXPECT_FALSE(store.array("dictionary"));
    EXPECT_EQ(store.dictionary("dictionary")->size(), 1u);
    EXPECT_FALSE(store.dictionary("array"));
}

TEST(PreferenceStoreTest, InMemoryStoreKeepsKeysSortedAndCountsWrites) {
    InMemoryPreferenceStore store;
    EXPECT_TRUE(store.set("zeta", 1));
    EXPECT_TRUE(store.set("alpha", "a"));
    EXPECT_TRUE(store.set("alpha", "b"));
    EXPECT_EQ(store.allKeys(), (std::vector<std::string>{"alpha", "zeta"}));
    EXPECT_EQ(store.string("alpha"), "b");
    EXPECT_TRUE(store.remove("zeta"));
    EXPECT_TRUE(store.remove("never-there"));
    EXPECT_FALSE(store.object("zeta"));
    EXPECT_EQ(store.writeCount(), 5u);
    EXPECT_EQ(store.dictionaryRepresentation().size(), 1u);
}

TEST(PreferenceStoreTest, AFailingStoreReportsFailureButStillAnswersWithTheValue) {
    InMemoryPreferenceStore store;
    store.setFailsWrites(true);
    EXPECT_FALSE(store.set("k", 7));
    EXPECT_EQ(store.integer("k"), 7);
    EXPECT_FALSE(store.remove("k"));
    store.setFailsWrites(false);
    EXPECT_TRUE(store.set("k", 8));
}

} // namespace
} // namespace tavrick

#include "CoreKit/JSONValue.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

using namespace tavrick;
using nlohmann::json;

TEST(JSONValue, RoundTripsEveryShapeWithSortedKeys) {
    struct Case {
        std::string text;
        std::string written;
    };
    const Case cases[] = {
        {"null", "null"},
        {"true", "true"},
        {"false", "false"},
        {"49", "49"},
        {"49.0", "49"},
        {"-3", "-3"},
        {"1.5", "1.5"},
        {"0.1", "0.1"},
        {"1e3", "1000"},
        {"-2.5e-3", "-0.0025"},
        {"10000000000000000000", "10000000000000000000"},
        {"1e300", "1e+300"},
        {R"("text with “quotes” and \n")", R"("text with “quotes” and \n")"},
        {"[]", "[]"},
        {"{}", "{}"},
        {R"([1,"a",null,[true],{}])", R"([1,"a",null,[true],{}])"},
        {R"({"b":1,"a":{"d":[],"c":2.25}})", R"({"a":{"c":2.25,"d":[]},"b":1})"},
    };
    for (const auto& c : cases) {
        auto value = JSONValue::parse(c.text);
        EXPECT_EQ(value.dump(), c.written) << c.text;
        // Writing and reading again is stable.
        EXPECT_EQ(JSONValue::parse(value.dump()), value) << c.text;
        EXPECT_EQ(JSONValue::fromJSON(value.toJSON()), value) << c.text;
    }
}

TEST(JSONValue, DecodesInTheOrderNullBoolNumberTextArrayObject) {
    EXPECT_TRUE(JSONValue::parse("null").isNull());
    ASSERT_NE(JSONValue::parse("true").asBool(), nullptr);
    EXPECT_EQ(JSONValue::parse("1").asBool(), nullptr) << "a number is never a bool";
    ASSERT_NE(JSONValue::parse("1").asNumber(), nullptr);
    EXPECT_EQ(*JSONValue::parse("-7").asNumber(), -7.0);
    EXPECT_EQ(JSONValue::parse(R"("1")").asNumber(), nullptr) << "text is never a number";
    ASSERT_NE(JSONValue::parse("[1]").asArray(), nullptr);
    ASSERT_NE(JSONValue::parse(R"({"k":[]})").asObject(), nullptr);
    EXPECT_EQ(JSONValue::parse(R"({"k":[]})").asObject()->at("k"), JSONValue(JSONValue::Array{}));
}

TEST(JSONValue, WholeNumbersAreWrittenWithoutAFraction) {
    struct Case {
        double value;
        std::string written;
    };
    const Case cases[] = {
        {49.0, "49"}, {-1.0, "-1"}, {0.0, "0"}, {1.5, "1.5"}, {9007199254740992.0, "9007199254740992"},
        {1e19, "10000000000000000000"}, {1e20, "1e+20"}, {-9223372036854775808.0, "-9223372036854775808"},
    };
    for (const auto& c : cases) EXPECT_EQ(JSONValue(c.value).dump(), c.written) << c.value;
    EXPECT_TRUE(JSONValue(49.0).toJSON().is_number_integer());
}

TEST(JSONValue, WhatJSONTextCannotHoldIsNotAJSONValue) {
    try {
        JSONValue::fromJSON(json::binary({1, 2, 3}));
        FAIL() << "decoded a binary value";
    } catch (const DecodingError& error) {
        EXPECT_STREQ(error.what(), "Not a JSON value");
    }
    // Inside a container too: the whole value fails rather than losing a part of it.
    json array = json::array({1, json::binary({1})});
    EXPECT_THROW(JSONValue::fromJSON(array), DecodingError);
}

TEST(JSONValue, AbsurdNestingFailsInsteadOfExhaustingTheStack) {
    std::string deep(100000, '[');
    deep += std::string(100000, ']');
    EXPECT_THROW(JSONValue::parse(deep), DecodingError);
    std::string fine(200, '[');
    fine += std::string(200, ']');
    EXPECT_EQ(JSONValue::parse(fine).dump(), fine);
}

TEST(JSONValue, ParseErrorsDescribeTheProblemWithoutTheLibraryTag) {
    const char* bad[] = {"", "nul", "{", R"({"a":})", "[1,]", "\"unterminated"};
    for (const char* text : bad) {
        try {
            JSONValue::parse(text);
            ADD_FAILURE() << "parsed " << text;
        } catch (const DecodingError& error) {
            std::string description = error.what();
            EXPECT_FALSE(description.empty());
            EXPECT_NE(description.front(), '[') << description;
            EXPECT_NE(description.find("parse error"), std::string::npos) << description;
        }
    }
}

TEST(JSONValue, EqualityIsStructural) {
    EXPECT_EQ(JSONValue::parse(R"({"a":1,"b":[true,null]})"), JSONValue::parse(R"({"b":[true,null],"a":1.0})"));
    EXPECT_NE(JSONValue::parse("[1,2]"), JSONValue::parse("[2,1]"));
    EXPECT_NE(JSONValue::parse("true"), JSONValue::parse("1"));
    EXPECT_NE(JSONValue::parse(R"("")"), JSONValue::parse("null"));
}

TEST(JSONRead, IntegersAreCheckedAgainstTheirRange) {
    EXPECT_EQ(JSONRead::integer(json(65535), "k", 0, 65535), 65535);
    EXPECT_EQ(JSONRead::integer(json(7.0), "k", 0, 10), 7);
    EXPECT_THROW(JSONRead::integer(json(65536), "k", 0, 65535), DecodingError);
    EXPECT_THROW(JSONRead::integer(json(-1), "k", 0, 65535), DecodingError);
    // Doubles at and beyond 2^63 must fail cleanly, not overflow the conversion.
    EXPECT_THROW(JSONRead::integer(json(9223372036854775808.0), "k", INT64_MIN, INT64_MAX), DecodingError);
    EXPECT_THROW(JSONRead::integer(json(1e300), "k", INT64_MIN, INT64_MAX), DecodingError);
    EXPECT_THROW(JSONRead::integer(json(18446744073709551615ULL), "k", INT64_MIN, INT64_MAX), DecodingError);
    EXPECT_EQ(JSONRead::integer(json(-9223372036854775807LL - 1), "k", INT64_MIN, INT64_MAX), INT64_MIN);
}

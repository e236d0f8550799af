#include "VaultKit/VaultItem.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tavrick {
namespace {

std::string bullets(std::size_t n) {
    std::string out;
    for (std::size_t i = 0; i < n; ++i) out += "\u2022";
    return out;
}

TEST(Masking, TailHidesTheLengthAndGroupedKeepsTheShape) {
    struct Case {
        std::string value;
        Masking::Style style;
        std::string expected;
    } cases[] = {
        {"abc", Masking::Style::tail, bullets(3)},
        {"abcd", Masking::Style::tail, bullets(4)},
        {"abcde", Masking::Style::tail, bullets(1) + "bcde"},
        {"  abcde\n", Masking::Style::tail, bullets(1) + "bcde"},
        {std::string(15, 'x') + "WXYZ", Masking::Style::tail, bullets(15) + "WXYZ"},
        {std::string(16, 'x') + "WXYZ", Masking::Style::tail, bullets(16) + "WXYZ"},
        {std::string(196, 'x') + "WXYZ", Masking::Style::tail, bullets(16) + "WXYZ"},
        // Characters are what a person counts: a flag and an accented letter are one each.
        {"\U0001F1EC\U0001F1E7e\u0301abcd", Masking::Style::tail, bullets(2) + "abcd"},
        {"4111 1111 1111 1234", Masking::Style::grouped, bullets(4) + " " + bullets(4) + " " + bullets(4) + " 1234"},
        {"12-34", Masking::Style::grouped, bullets(2) + "-" + bullets(2)},
        {"12-345", Masking::Style::grouped, bullets(1) + "2-345"},
        {"", Masking::Style::grouped, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(Masking::mask(c.value, c.style), c.expected) << c.value;
}

TEST(Masking, ListHintsCountSignificantCharacters) {
    EXPECT_EQ(Masking::lastFour("1234"), "");
    EXPECT_EQ(Masking::lastFour("12345"), bullets(4) + " 2345");
    EXPECT_EQ(Masking::lastFour("GB29 NWBK"), bullets(4) + " NWBK");
    EXPECT_EQ(Masking::lastFour("1-2-3-4"), "");
    EXPECT_EQ(Masking::bothEnds("123456789012"), "123456789012");
    EXPECT_EQ(Masking::bothEnds("  123456789012  "), "123456789012");
    EXPECT_EQ(Masking::bothEnds("1234567890123"), "123456\u20260123");
    EXPECT_EQ(Masking::bothEnds("bc1qxy2kgdygjrsqtzq2n0yrf2493p83kkfjhx0wlh"), "bc1qxy\u20260wlh");
}

TEST(Masking, FormatsCardNumbersAndExpiries) {
    struct Case {
        std::string value, expected;
    } cards[] = {
        {"378282246310005", "3782 822463 10005"},
        {"4111111111111111", "4111 1111 1111 1111"},
        {"4111-1111 1111.1111", "4111 1111 1111 1111"},
        {"12345678901234567890123", "1234 5678 9012 3456 7890 123"},
        {"3412", "3412"},
        {"34123456", "3412 3456"},
        {"no digits", ""},
        {"\u0664\u0661\u0661\u0661\u0661", "\u0664\u0661\u0661\u0661 \u0661"},
    };
    for (const auto& c : cards) EXPECT_EQ(Masking::formatCardNumber(c.value), c.expected) << c.value;
    Case expiries[] = {{"1", "1"}, {"12", "12"}, {"123", "12/3"}, {"12/2735", "12/27"}, {"ab", ""}, {"1227", "12/27"}};
    for (const auto& c : expiries) EXPECT_EQ(Masking::formatExpiry(c.value), c.expected) << c.value;
}

TEST(Masking, CardBrandsFollowTheFirstMatchingRule) {
    struct Case {
        std::string value;
        std::optional<std::string> brand;
    } cases[] = {
        {"2221", "Mastercard"},   {"2720", "Mastercard"}, {"2220", std::nullopt}, {"2721", std::nullopt},
        {"22", std::nullopt},     {"3", std::nullopt},    {"300", "Diners Club"}, {"305", "Diners Club"},
        {"306", std::nullopt},    {"6011 0000", "Discover"}, {"65", "Discover"}, {"62", "UnionPay"},
        {"3528", "JCB"},          {"3589", "JCB"},        {"3527", std::nullopt}, {"3590", std::nullopt},
        {"36", "Diners Club"},    {"38", "Diners Club"},  {"34", "American Express"}, {"37", "American Express"},
        {"4", std::nullopt},      {"41", "Visa"},         {"51", "Mastercard"},   {"55", "Mastercard"},
        {"56", std::nullopt},     {"", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(Masking::cardBrand(c.value), c.brand) << c.value;
}

TEST(Masking, LuhnNeedsTwelveDigitsAndTheChecksum) {
    EXPECT_TRUE(Masking::passesLuhn("4111 1111 1111 1111"));
    EXPECT_FALSE(Masking::passesLuhn("4111 1111 1111 1112"));
    EXPECT_TRUE(Masking::passesLuhn("378282246310005"));
    EXPECT_FALSE(Masking::passesLuhn("00000000000"));  // 11 digits, sum 0: not judged
    EXPECT_TRUE(Masking::passesLuhn("000000000000"));
    EXPECT_TRUE(Masking::passesLuhn("5555555555554444"));
}

TEST(Masking, GuardedValuesShowThreeToEightBullets) {
    EXPECT_EQ(Masking::guardedBullets("1"), bullets(3));
    EXPECT_EQ(Masking::guardedBullets("1234"), bullets(4));
    EXPECT_EQ(Masking::guardedBullets(std::string(20, '9')), bullets(8));
}

TEST(VaultItem, SubscriptTitleAndTidying) {
    VaultItem item;
    item.kind = VaultKind::wallet;
    item.set("address", "   ");
    EXPECT_FALSE(item.value("address"));
    item.set("label", " x ");
    EXPECT_EQ(item.value("label"), " x ");
    EXPECT_EQ(item.effectiveTitle(), "x");
    item.set("label", "\n");
    EXPECT_EQ(item.effectiveTitle(), "Wallet Address");
    item.title = "  Cold  ";
    EXPECT_EQ(item.effectiveTitle(), "Cold");

    item.values["note"] = "  keep me \n";
    item.values["chain"] = " \t";
    const VaultItem tidy = item.tidied();
    EXPECT_EQ(tidy.title, "Cold");
    EXPECT_EQ(tidy.values, (std::map<std::string, std::string>{{"note", "keep me"}}));

    VaultItem card;
    card.set("number", "4111 1111 1111 1111");
    EXPECT_EQ(card.listHint(), bullets(4) + " 1111");
    EXPECT_EQ(card.entry().title, "Card");
    VaultItem bank;
    bank.kind = VaultKind::bank;
    EXPECT_EQ(bank.listHint(), "");
}

TEST(VaultItem, FieldsSayHowSecretTheyAre) {
    const auto& card = VaultKinds::fields(VaultKind::card);
    ASSERT_EQ(card.size(), 6u);
    EXPECT_EQ(card[3].id, "cvv");
    EXPECT_EQ(card[3].revealSeconds(), 10);
    EXPECT_EQ(card[1].revealSeconds(), 30);
    EXPECT_EQ(card[0].revealSeconds(), 0);
    EXPECT_FALSE(card[0].isSecret());
    EXPECT_EQ(card[2].formatted("1227"), "12/27");
    EXPECT_EQ(card[4].formatted("1227"), "1227");
    const auto& wallet = VaultKinds::fields(VaultKind::wallet);
    EXPECT_FALSE(wallet[2].isSecret());  // an address is public
}

TEST(VaultItem, JSONFormIsExactAndStrict) {
    VaultItem item;
    item.id = *UUID::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
    item.kind = VaultKind::apiKey;
    item.title = "t";
    item.set("key", "k");
    item.updated = VaultItem::referenceDateOffset + 10.25;
    const auto json = toJSON(item);
    EXPECT_EQ(json["id"], "0F8FAD5B-D9CB-469F-A165-70867728950E");
    EXPECT_EQ(json["kind"], "apiKey");
    EXPECT_EQ(json["updated"], 10.25);
    EXPECT_EQ(vaultItemFromJSON(json), item);

    const char* spoilers[] = {"kind", "id", "title", "values", "updated"};
    for (const char* key : spoilers) {
        auto missing = json;
        missing.erase(key);
        EXPECT_THROW(vaultItemFromJSON(missing), std::exception) << key;
    }
    auto unknown = json;
    unknown["kind"] = "seedPhrase";
    EXPECT_THROW(vaultItemFromJSON(unknown), std::exception);
    auto extra = json;
    extra["secretNote"] = "x";
    EXPECT_THROW(vaultItemFromJSON(extra), std::exception);
    EXPECT_THROW(decodeItems(R"({"not": "an array"})"), std::exception);
    EXPECT_EQ(decodeItems(encodeItems({item, item})).size(), 2u);
}

} // namespace
} // namespace tavrick

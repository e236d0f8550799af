#include "CoreKit/MenuBarLayout.h"

#include <gtest/gtest.h>

#include <set>

namespace tavrick {
namespace {

using S = MenuBarSection;

std::vector<S> sectionsOf(const std::vector<MenuBarItem>& items) {
    std::vector<S> sections;
    for (const auto& item : items) sections.push_back(item.section);
    return sections;
}

const std::vector<S> declarationOrder{S::masterToggle, S::windowSnapping, S::clipboard, S::pomodoro,
                                      S::system,       S::fans,           S::network,   S::keepAwake,
                                      S::finder,       S::notepad,        S::vault};

TEST(MenuBarSectionTest, SectionsRoundTripThroughTheirStoredTextAndUnknownTextIsNothing) {
    std::vector<S> all;
    for (auto section : allCases<MenuBarSection>()) {
        all.push_back(section);
        EXPECT_EQ(fromRaw<MenuBarSection>(rawValue(section)), section);
        EXPECT_FALSE(detail(section).empty()) << rawValue(section);
    }
    EXPECT_EQ(all, declarationOrder);
    EXPECT_EQ(rawValue(S::masterToggle), "masterToggle");
    EXPECT_EQ(rawValue(S::keepAwake), "keepAwake");
    for (const char* unknown : {"Vault", "vault ", "", "trash", "fanSpeed"}) {
        EXPECT_FALSE(fromRaw<MenuBarSection>(unknown)) << unknown;
    }
}

TEST(MenuBarLayoutTest, UnreadableDataGivesNothing) {
    for (const char* bytes : {"", "not json", "{\"section\":\"vault\",\"isEnabled\":true}", "42", "\"vault\"",
                              "[{\"section\":\"vault\"}]",                              // no isEnabled
                              "[{\"section\":\"vault\",\"isEnabled\":1}]",              // not a bool
                              "[{\"section\":\"vault\",\"isEnabled\":\"true\"}]",       // text, not a bool
                              "[{\"section\":7,\"isEnabled\":true}]",                   // section not text
                              "[{\"isEnabled\":true}]",                                 // no section
                              "[\"vault\"]",                                            // not an object
                              "[{\"section\":\"vault\",\"isEnabled\":true},]"}) {       // trailing comma
        EXPECT_FALSE(MenuBarLayout::decode(std::string_view(bytes))) << bytes;
    }
}

TEST(MenuBarLayoutTest, DecodingNormalizesTheStoredList) {
    struct Case {
        const char* name;
        std::string bytes;
        std::vector<MenuBarItem> firstItems;
    };
    std::vector<Case> cases{
        {"empty list gains everything, as the default has it", "[]", {}},
        {"vault twice keeps the first",
         R"([{"section":"vault","isEnabled":false},{"section":"vault","isEnabled":true}])",
         {{S::vault, false}}},
        {"three sections come first in their stored order",
         R"([{"section":"notepad","isEnabled":true},{"section":"clipboard","isEnabled":false},)"
         R"({"section":"masterToggle","isEnabled":true}])",
         {{S::notepad, true}, {S::clipboard, false}, {S::masterToggle, true}}},
        {"an unknown section is dropped and the others kept",
         R"([{"section":"fans","isEnabled":false},{"section":"hologram","isEnabled":true},)"
         R"({"section":"pomodoro","isEnabled":false}])",
         {{S::fans, false}, {S::pomodoro, false}}},
        {"extra keys of a newer build are ignored",
         R"([{"section":"system","isEnabled":false,"height":3}])",
         {{S::system, false}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto items = MenuBarLayout::decode(std::string_view(c.bytes));
        ASSERT_TRUE(items);
        ASSERT_EQ(items->size(), 11u);
        if (c.firstItems.empty()) {
            EXPECT_EQ(*items, MenuBarLayout::defaultLayout());
        }
        for (std::size_t i = 0; i < c.firstItems.size(); ++i) EXPECT_EQ((*items)[i], c.firstItems[i]) << i;
        // The rest are the missing sections, enabled, in declaration order.
        std::vector<S> rest;
        for (auto section : declarationOrder) {
            bool listed = false;
            for (const auto& item : c.firstItems) listed = listed || item.section == section;
            if (!listed) rest.push_back(section);
        }
        for (std::size_t i = 0; i < rest.size(); ++i) {
            EXPECT_EQ((*items)[c.firstItems.size() + i], (MenuBarItem{rest[i], true})) << i;
        }
    }
}

TEST(MenuBarLayoutTest, NormalizedNamesEachSectionOnce) {
    std::vector<MenuBarItem> items{{S::finder, false}, {S::finder, true}, {S::vault, false}, {S::finder, false}};
    auto result = MenuBarLayout::normalized(items);
    ASSERT_EQ(result.size(), 11u);
    EXPECT_EQ(result[0], (MenuBarItem{S::finder, false}));
    EXPECT_EQ(result[1], (MenuBarItem{S::vault, false}));
    auto sections = sectionsOf(result);
    std::set<S> seen(sections.begin(), sections.end());
    EXPECT_EQ(seen.size(), 11u);
    EXPECT_EQ(MenuBarLayout::normalized(result), result);
}

TEST(MenuBarLayoutTest, EncodingIsTheStoredFormAndRoundTrips) {
    EXPECT_EQ(MenuBarLayout::encode({{S::vault, false}, {S::keepAwake, true}}),
              R"([{"isEnabled":false,"section":"vault"},{"isEnabled":true,"section":"keepAwake"}])");
    auto layout = MenuBarLayout::normalized({{S::network, false}, {S::masterToggle, false}});
    auto bytes = MenuBarLayout::encode(layout);
    EXPECT_EQ(MenuBarLayout::decode(std::string_view(bytes)), layout);
    std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
    EXPECT_EQ(MenuBarLayout::decode(data), layout);
}

} // namespace
} // namespace tavrick

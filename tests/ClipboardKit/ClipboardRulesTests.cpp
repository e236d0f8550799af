#include "ClipboardKit/ClipboardHistory.h"
#include "ClipboardKit/ClipboardPolicy.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;

namespace {

ClipboardItem item(const std::string& text, bool pinned = false) {
    return ClipboardItem{UUID::random(), text, 1000, std::nullopt, std::nullopt, pinned};
}

std::vector<std::string> texts(const std::vector<ClipboardItem>& items) {
    std::vector<std::string> out;
    for (const auto& i : items) out.push_back(i.text.str());
    return out;
}

std::string describe(const ClipboardPolicy::Decision& decision) {
    if (auto* excluded = std::get_if<ClipboardPolicy::SkipExcludedApp>(&decision)) return "excluded " + excluded->bundleID;
    if (std::holds_alternative<ClipboardPolicy::Record>(decision)) return "record";
    if (std::holds_alternative<ClipboardPolicy::SkipConcealed>(decision)) return "concealed";
    if (std::holds_alternative<ClipboardPolicy::SkipTooLarge>(decision)) return "too large";
    return "empty";
}

} // namespace

TEST(ClipboardPolicy, RulesApplyInTheirOrder) {
    ClipboardPolicy policy;
    const std::vector<std::string> text = {"public.utf8-plain-text"};
    struct Case {
        std::vector<std::string> types;
        std::optional<std::string> source;
        std::int64_t length;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {text, std::nullopt, 5, "record"},
        // A marker wins over everything, even an excluded app and an empty copy.
        {{"public.utf8-plain-text", "org.nspasteboard.ConcealedType"}, "com.bitwarden.desktop", 0, "concealed"},
        {{"org.nspasteboard.TransientType"}, std::nullopt, 5, "concealed"},
        // A password manager's copy with text is skipped for the app, never as empty.
        {text, "com.bitwarden.desktop", 0, "excluded com.bitwarden.desktop"},
        {text, "org.gnome.TextEditor", 0, "empty"},
        {{}, std::nullopt, 0, "empty"},
        {text, std::nullopt, 128000, "record"},
        {text, std::nullopt, 128001, "too large"},
        // Near-misses of a marker are ordinary types.
        {{"org.nspasteboard.concealedtype"}, std::nullopt, 3, "record"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(describe(policy.decide(c.types, c.source, c.length)), c.expected)
            << c.length << " from " << c.source.value_or("nobody");
    }
}

TEST(ClipboardPolicy, JSONRoundTripsAndRefusesWrongTypes) {
    ClipboardPolicy policy;
    policy.excludedBundleIDs = {"a", "b"};
    policy.maximumItems = 42;
    policy.clearOnQuit = true;
    auto json = toJSON(policy);
    EXPECT_EQ(json.dump(), R"({"clearOnQuit":true,"excludedBundleIDs":["a","b"],"maximumItems":42,"maximumTextLength":128000})");
    EXPECT_EQ(clipboardPolicyFromJSON(json), policy);
    EXPECT_EQ(clipboardPolicyFromJSON(nlohmann::json::object()), ClipboardPolicy{});
    EXPECT_FALSE(clipboardPolicyFromJSON(nlohmann::json::parse(R"({"maximumItems":"ten"})")));
    EXPECT_FALSE(clipboardPolicyFromJSON(nlohmann::json::parse(R"({"excludedBundleIDs":[1]})")));
}

TEST(ClipboardHistory, ACopyAlreadyThereMovesUpKeepingItsPin) {
    ClipboardHistory history(10);
    history.insert(item("a"));
    history.insert(item("b"));
    auto a = history.items()[1];
    history.setPinned(true, a.id);
    history.insert(item("c"));
    EXPECT_EQ(texts(history.items()), (std::vector<std::string>{"a", "c", "b"}));

    auto again = item("a");
    again.copiedAt = 2000;
    history.insert(again);
    ASSERT_EQ(texts(history.items()), (std::vector<std::string>{"a", "c", "b"}));
    EXPECT_EQ(history.items()[0].id, again.id);
    EXPECT_EQ(history.items()[0].copiedAt, 2000);
    EXPECT_TRUE(history.items()[0].isPinned);

    history.insert(item("b"));
    EXPECT_EQ(texts(history.items()), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_FALSE(history.items()[1].isPinned);

    // Unknown identifiers change nothing; a known one goes.
    const auto before = history;
    history.setPinned(true, UUID::random());
    history.remove(UUID::random());
    EXPECT_EQ(history, before);
    history.remove(history.items()[1].id);
    EXPECT_EQ(texts(history.items()), (std::vector<std::string>{"a", "c"}));
}

TEST(ClipboardHistory, EvictionSparesPinsAndTakesTheOldest) {
    ClipboardHistory history(3);
    for (auto text : {"1", "2", "3", "4"}) history.insert(item(text));
    EXPECT_EQ(texts(history.items()), (std::vector<std::string>{"4", "3", "2"}));

    // A pin takes a place of its own: two are left for the unpinned, the oldest of which goes.
    history.setPinned(true, history.items()[2].id);  // "2"
    history.insert(item("5"));
    EXPECT_EQ(texts(history.pinned()), (std::vector<std::string>{"2"}));
    EXPECT_EQ(texts(history.unpinned()), (std::vector<std::string>{"5", "4"}));

    // As many pins as the maximum leave no room for anything else, and pins are never evicted.
    history.setPinned(true, history.items()[1].id);  // "5"
    history.setMaximumItems(1);
    EXPECT_EQ(texts(history.items()), (std::vector<std::string>{"2", "5"}));
    history.insert(item("6"));
    EXPECT_EQ(texts(history.items()), (std::vector<std::string>{"2", "5"}));
    history.insert(item("7", true));
    EXPECT_EQ(texts(history.items()), (std::vector<std::string>{"7", "2", "5"}));

    history.setMaximumItems(0);  // counts as 1
    EXPECT_EQ(history.maximumItems(), 1);
    EXPECT_EQ(ClipboardHistory(-5).maximumItems(), 1);
}

TEST(ClipboardHistory, ClearSummariesCountWhatGoes) {
    struct Case {
        int pinned, unpinned;
        bool keeping;
        std::string expected;
        std::size_t left;
    };
    const std::vector<Case> cases = {
        {0, 0, true, "Nothing to clear", 0},
        {2, 0, true, "Kept 2 pinned, nothing else to clear", 2},
        {0, 1, true, "Cleared 1 copy", 0},
        {0, 3, true, "Cleared 3 copies", 0},
        {1, 2, true, "Cleared 2 copies, kept 1 pinned", 1},
        {1, 1, true, "Cleared 1 copy, kept 1 pinned", 1},
        {0, 0, false, "Nothing to clear", 0},
        {2, 3, false, "Cleared 5 copies", 0},
    };
    for (const auto& c : cases) {
        ClipboardHistory history(50);
        for (int i = 0; i < c.unpinned; ++i) history.insert(item("u" + std::to_string(i)));
        for (int i = 0; i < c.pinned; ++i) history.insert(item("p" + std::to_string(i), true));
        EXPECT_EQ(history.clearSummary(c.keeping), c.expected) << c.pinned << "/" << c.unpinned;
        history.clear(c.keeping);
        EXPECT_EQ(history.items().size(), c.left);
    }
}

TEST(ClipboardHistory, SearchIgnoresCaseAndDiacriticsAndKeepsOrder) {
    ClipboardHistory history(10);
    for (auto text : {"Crème Brûlée recipe", "CREME fraiche", "straße", "nothing here", "Ελληνικά"}) history.insert(item(text));
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"creme", {"CREME fraiche", "Crème Brûlée recipe"}},
        {"  BRULEE\n", {"Crème Brûlée recipe"}},
        {"STRASSE", {"straße"}},
        {"ελληνικα", {"Ελληνικά"}},
        {"zzz", {}},
        {" \t\n", {"Ελληνικά", "nothing here", "straße", "CREME fraiche", "Crème Brûlée recipe"}},
    };
    for (const auto& [query, found] : cases) EXPECT_EQ(texts(history.search(query)), found) << query;
}

TEST(ClipboardItem, PreviewFlattensAndCutsAtSixtyCharacters) {
    const std::string sixty(60, 'a');
    std::string sixtyAccented;
    for (int i = 0; i < 60; ++i) sixtyAccented += "é";  // two bytes, one character
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"  one\ttwo\n\nthree  ", "one two three"},
        {sixty, sixty},
        {sixty + "b", std::string(59, 'a') + "…"},
        {sixtyAccented, sixtyAccented},
        {sixtyAccented + "x", sixtyAccented.substr(0, 59 * 2) + "…"},
        {"", ""},
    };
    for (const auto& [text, preview] : cases) EXPECT_EQ(item(text).preview(), preview) << text;
}

TEST(ClipboardItem, FileRecordUsesTheReferenceDateAndLeavesOutAbsentSources) {
    ClipboardItem copy{*UUID::parse("6BA7B810-9DAD-11D1-80B4-00C04FD430C8"), "hi", 978307200.0 + 10.5, "org.x", std::nullopt, true};
    auto json = toJSON(copy);
    EXPECT_EQ(json.dump(),
              R"({"copiedAt":10.5,"id":"6BA7B810-9DAD-11D1-80B4-00C04FD430C8","isPinned":true,"sourceBundleID":"org.x","text":"hi"})");
    EXPECT_EQ(clipboardItemFromJSON(json), copy);
    for (auto broken : {R"({"id":"nope","text":"a","copiedAt":1,"isPinned":false})",
                        R"({"id":"6BA7B810-9DAD-11D1-80B4-00C04FD430C8","text":1,"copiedAt":1,"isPinned":false})",
                        R"({"id":"6BA7B810-9DAD-11D1-80B4-00C04FD430C8","text":"a","isPinned":false})",
                        R"({"id":"6BA7B810-9DAD-11D1-80B4-00C04FD430C8","text":"a","copiedAt":1,"isPinned":false,"sourceAppName":3})"}) {
        EXPECT_FALSE(clipboardItemFromJSON(nlohmann::json::parse(broken))) << broken;
    }
}

#include "CoreKit/KeyCodes.h"
#include "CoreKit/KeyboardLayout.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/Models.h"

#include "Support/USLayout.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

using namespace tavrick;

namespace {

// A layout source that counts its reads and can announce a change of layout.
struct FakeLayout {
    std::map<std::uint16_t, std::string> legends;
    std::atomic<int> reads{0};
    std::function<void()> changed;
    int subscriptions = 0;

    KeyboardLayoutSource source() {
        return {
            [this] {
                ++reads;
                return legends;
            },
            [this](std::function<void()> handler) {
                ++subscriptions;
                changed = std::move(handler);
                return Observation([this] { changed = nullptr; });
            },
        };
    }
};

// An AZERTY keyboard: the keys where US has A, Q, W, Z and M print other letters.
std::map<std::uint16_t, std::string> azerty() {
    return {{0, "q"}, {12, "a"}, {13, "z"}, {6, "w"}, {41, "m"}, {46, ","}, {8, "c"}, {49, " "}, {36, "\r"}};
}

class KeyCodesTest : public ::testing::Test {
protected:
    tavrick::testing::USLayout layout_;
    ManualScheduler scheduler;
};

} // namespace

TEST_F(KeyCodesTest, NoKeyIsInBothNameTables) {
    // A special name always wins, so an overlap would be dead data.
    for (const auto& [code, name] : KeyCodes::ansiNames()) EXPECT_EQ(KeyCodes::specialNames().count(code), 0u) << code;
}

TEST_F(KeyCodesTest, NamesWithoutALayout) {
    struct Case {
        std::uint16_t code;
        std::string name;
    };
    const Case cases[] = {
        {36, "↩"},  {49, "Space"}, {53, "⎋"},   {117, "⌦"},  {115, "↖"},  {123, "←"},  {126, "↑"},
        {122, "F1"}, {111, "F12"}, {90, "F20"}, {0, "A"},    {22, "6"},   {24, "="},  {42, "\\"},  {50, "`"},
        {10, "Key 10"}, {52, "Key 52"}, {127, "Key 127"}, {65535, "Key 65535"},
    };
    for (const auto& c : cases) EXPECT_EQ(KeyCodes::name(c.code), c.name) << c.code;
}

TEST_F(KeyCodesTest, LayoutLegendsComeBetweenSpecialAndUSNames) {
    FakeLayout layout;
    layout.legends = azerty();
    layout.legends[13] = "é";
    layout.legends[14] = "\t";  // nothing printable: falls through to the US name
    auto cache = KeyboardLayoutCache::make(layout.source(), scheduler);
    cache->refresh();

    struct Case {
        std::uint16_t code;
        std::string name;
    };
    const Case cases[] = {
        {0, "Q"}, {12, "A"}, {13, "É"}, {41, "M"}, {46, ","},
        {49, "Space"},  // special names never depend on the layout
        {36, "↩"},
        {14, "E"},  // white space only
        {1, "S"},   // the layout said nothing about it
        {200, "Key 200"},
    };
    for (const auto& c : cases) EXPECT_EQ(KeyCodes::name(c.code, cache.get()), c.name) << c.code;

    // Installed for the process, the same cache names the keys of shortcuts.
    KeyCodes::installLayoutCache(cache);
    EXPECT_EQ(KeyCodes::name(12), "A");
    EXPECT_EQ((HotkeySpec{12, Modifiers::command}).displayString(), "⌘A");
    KeyCodes::installLayoutCache(nullptr);
    EXPECT_EQ((HotkeySpec{12, Modifiers::command}).displayString(), "⌘Q");
}

TEST_F(KeyCodesTest, LegendsAreTrimmedAndUpperCased) {
    struct Case {
        std::string translated;
        std::optional<std::string> legend;
    };
    const Case cases[] = {
        {"a", "A"},       {" a\t", "A"},   {"ü", "Ü"},   {"ж", "Ж"},   {"ω", "Ω"},      {"1", "1"},
        {"", std::nullopt}, {" ", std::nullopt}, {"\r", std::nullopt}, {"\u00a0", std::nullopt},
        {"ab", "AB"},     {"€", "€"},
    };
    for (const auto& c : cases) EXPECT_EQ(KeyboardLayoutCache::legend(c.translated), c.legend) << c.translated;
}

TEST_F(KeyCodesTest, OffTheMainThreadNothingIsReadUntilTheCacheIsLoaded) {
    FakeLayout layout;
    layout.legends = azerty();
    auto cache = KeyboardLayoutCache::make(layout.source(), scheduler);

    std::optional<std::string> before = "unset";
    std::string nameBefore;
    std::thread([&] {
        before = cache->character(0);
        nameBefore = KeyCodes::name(0, cache.get());
    }).join();
    EXPECT_EQ(before, std::nullopt);
    EXPECT_EQ(nameBefore, "A") << "a tap thread falls through to the US name";
    EXPECT_EQ(layout.reads, 0) << "the layout source is main-thread only";
    EXPECT_FALSE(cache->isLoaded());

    // On the main thread the first question loads the whole layout once.
    EXPECT_EQ(cache->character(0), "Q");
    EXPECT_EQ(cache->character(12), "A");
    EXPECT_EQ(cache->character(1), std::nullopt);
    EXPECT_EQ(layout.reads, 1);

    std::optional<std::string> after;
    std::thread([&] { after = cache->character(0); }).join();
    EXPECT_EQ(after, "Q");
}

TEST_F(KeyCodesTest, FollowsLayoutChangesOnTheMainQueueAndStopsWhenGone) {
    FakeLayout layout;
    layout.legends = azerty();
    auto cache = KeyboardLayoutCache::make(layout.source(), scheduler);
    cache->startObserving();
    cache->startObserving();
    EXPECT_EQ(layout.subscriptions, 1);
    EXPECT_EQ(layout.reads, 1);
    EXPECT_EQ(cache->character(0), "Q");

    // The user picks the US layout; the notice may come on any thread.
    layout.legends = {{0, "a"}, {12, "q"}};
    std::thread([&] { layout.changed(); }).join();
    EXPECT_EQ(cache->character(0), "Q") << "read on the main queue, not on the notifying thread";
    scheduler.runUntilIdle();
    EXPECT_EQ(cache->character(0), "A");
    EXPECT_EQ(cache->character(13), std::nullopt) << "legends of the old layout are gone";

    auto changed = layout.changed;
    cache.reset();
    EXPECT_FALSE(layout.changed) << "the subscription ends with the cache";
    changed();
    EXPECT_EQ(scheduler.runUntilIdle(), 1);  // the posted refresh finds nothing to do
}

TEST_F(KeyCodesTest, AnEmptySourceMeansUSNames) {
    auto cache = KeyboardLayoutCache::make({}, scheduler);
    cache->startObserving();
    EXPECT_TRUE(cache->isLoaded());
    EXPECT_EQ(cache->character(0), std::nullopt);
    EXPECT_EQ(KeyCodes::name(0, cache.get()), "A");

    FakeLayout layout;
    layout.legends = {{0, "q"}, {128, "x"}, {300, "y"}};
    auto wide = KeyboardLayoutCache::make(layout.source(), scheduler);
    wide->refresh();
    EXPECT_EQ(wide->character(128), std::nullopt) << "only key codes 0 through 127 are read";
}

// Readers on tap threads and refreshes on the main thread share the dictionary.
TEST_F(KeyCodesTest, ConcurrentReadersSeeOneLayoutOrTheOther) {
    FakeLayout layout;
    layout.legends = azerty();
    auto cache = KeyboardLayoutCache::make(layout.source(), scheduler);
    cache->refresh();
    std::atomic<bool> stop{false};
    std::atomic<int> odd{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                auto c = cache->character(0);
                if (c != "Q" && c != "A") ++odd;
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        layout.legends = i % 2 ? azerty() : std::map<std::uint16_t, std::string>{{0, "a"}};
        cache->refresh();
    }
    stop = true;
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(odd, 0);
}

#include "HotkeyEngine/HotkeyTable.h"

#include "CoreKit/EventSystem.h"

#include "MappingFixtures.h"

#include <gtest/gtest.h>

using namespace tavrick;
using tavrick::testing::hotkeyMapping;

namespace {

const Modifiers commandOption = Modifiers::command | Modifiers::option;
constexpr std::uint16_t keyL = 37;
constexpr std::uint16_t keyH = 4;

std::vector<std::string> names(const std::vector<Mapping>& mappings) {
    std::vector<std::string> out;
    for (auto& mapping : mappings) out.push_back(mapping.name);
    return out;
}

} // namespace

TEST(HotkeyTable, FirstEnabledMappingWinsAndLaterOnesAreShadowedInOrder) {
    auto first = hotkeyMapping("first", keyL, commandOption);
    auto second = hotkeyMapping("second", keyL, commandOption);
    auto third = hotkeyMapping("third", keyL, commandOption);
    auto other = hotkeyMapping("other", keyH, commandOption);
    HotkeyTable table({first, second, other, third});

    EXPECT_EQ(table.count(), 2u);
    ASSERT_TRUE(table.match(keyL, commandOption));
    EXPECT_EQ(table.match(keyL, commandOption)->id, first.id);
    EXPECT_EQ(names(table.shadowed), (std::vector<std::string>{"second", "third"}));
}

TEST(HotkeyTable, DisabledMappingsNeitherWinNorShadow) {
    auto disabledFirst = hotkeyMapping("first", keyL, commandOption, false);
    auto second = hotkeyMapping("second", keyL, commandOption);
    auto disabledThird = hotkeyMapping("third", keyL, commandOption, false);
    HotkeyTable table({disabledFirst, second, disabledThird});

    ASSERT_TRUE(table.match(keyL, commandOption));
    EXPECT_EQ(table.match(keyL, commandOption)->name, "second");
    EXPECT_TRUE(table.shadowed.empty());

    HotkeyTable allDisabled({disabledFirst, disabledThird});
    EXPECT_TRUE(allDisabled.isEmpty());
    EXPECT_FALSE(allDisabled.match(keyL, commandOption));
}

TEST(HotkeyTable, AnEqualDuplicateRecordIsOneMappingNotARival) {
    auto mapping = hotkeyMapping("same", keyL, commandOption);
    HotkeyTable duplicated({mapping, mapping});
    EXPECT_EQ(duplicated.count(), 1u);
    EXPECT_TRUE(duplicated.shadowed.empty());

    // Same id but different content is a rival.
    auto renamed = mapping;
    renamed.name = "renamed";
    HotkeyTable rivals({mapping, renamed});
    EXPECT_EQ(names(rivals.shadowed), (std::vector<std::string>{"renamed"}));
}

TEST(HotkeyTable, OnlyHotkeyTriggersAreWatched) {
    Mapping gesture = hotkeyMapping("gesture", 0, Modifiers());
    gesture.trigger = Trigger::gesture(GestureSpec{3, GestureKind::swipe, GestureDirection::left});
    Mapping mouse = hotkeyMapping("mouse", 0, Modifiers());
    mouse.trigger = Trigger::mouseGesture(MouseGestureSpec{{GestureDirection::up}});
    HotkeyTable table({gesture, mouse, hotkeyMapping("key", keyH, commandOption)});
    EXPECT_EQ(table.count(), 1u);
    EXPECT_TRUE(table.shadowed.empty());
    EXPECT_TRUE(HotkeyTable({gesture, mouse}).isEmpty());
    EXPECT_EQ(HotkeyTable({gesture, mouse}), HotkeyTable());
    EXPECT_FALSE(HotkeyTable().match(keyH, commandOption));
    EXPECT_EQ(HotkeyTable().find(HotkeySpec{keyH, commandOption}), nullptr);
}

TEST(HotkeyTable, MatchingNeedsTheExactModifierSetAndIgnoresOtherFlagBits) {
    const Modifiers controlOption = Modifiers::control | Modifiers::option;
    HotkeyTable table({hotkeyMapping("⌃⌥H", keyH, controlOption)});
    const std::uint64_t ctrlOpt = EventFlags::control | EventFlags::option;
    struct Case {
        const char* what;
        std::uint16_t keyCode;
        std::uint64_t flags;
        bool matches;
    };
    const Case cases[] = {
        {"exact", keyH, ctrlOpt, true},
        {"caps lock on", keyH, ctrlOpt | EventFlags::capsLock, true},
        {"device and keypad bits", keyH, ctrlOpt | 0x200000 | 0x1 | 0x20 | 0x100, true},
        {"shift too", keyH, ctrlOpt | EventFlags::shift, false},
        {"command too", keyH, ctrlOpt | EventFlags::command, false},
        {"function too", keyH, ctrlOpt | EventFlags::function, false},
        {"control only", keyH, EventFlags::control, false},
        {"no modifiers", keyH, 0, false},
        {"another key", keyL, ctrlOpt, false},
    };
    for (auto& c : cases) {
        EXPECT_EQ(table.match(c.keyCode, c.flags).has_value(), c.matches) << c.what;
        EXPECT_EQ(table.match(c.keyCode, Modifiers::fromCGFlags(c.flags)).has_value(), c.matches) << c.what;
    }
    EXPECT_EQ(table.match(keyH, ctrlOpt)->name, "⌃⌥H");
}


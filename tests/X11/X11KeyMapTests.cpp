#include "Platform/X11/X11Geometry.h"
#include "Platform/X11/X11KeyMap.h"

#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <set>

namespace tavrick {
namespace {

TEST(X11KeyMap, KeysBecomeTheProgramsCodesBySymbolWhateverTheCase) {
    struct Case {
        std::uint32_t keysym;
        std::optional<std::uint16_t> code;
    };
    const Case cases[] = {
        {XKB_KEY_a, 0},        {XKB_KEY_A, 0},       {XKB_KEY_q, 12},      {XKB_KEY_Q, 12},
        {XKB_KEY_z, 6},        {XKB_KEY_Left, 123},  {XKB_KEY_Right, 124}, {XKB_KEY_Down, 125},
        {XKB_KEY_Up, 126},     {XKB_KEY_Return, 36}, {XKB_KEY_KP_Enter, 76}, {XKB_KEY_space, 49},
        {XKB_KEY_Escape, 53},  {XKB_KEY_BackSpace, 51}, {XKB_KEY_Delete, 117}, {XKB_KEY_F1, 122},
        {XKB_KEY_F20, 90},     {XKB_KEY_5, 23},      {XKB_KEY_6, 22},      {XKB_KEY_grave, 50},
        {XKB_KEY_Super_L, 55}, {XKB_KEY_Control_R, 62},
        // Symbols of other layouts with no key code of their own.
        {XKB_KEY_eacute, std::nullopt}, {XKB_KEY_ampersand, std::nullopt}, {0, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(X11KeyMap::keyCode(c.keysym), c.code) << std::hex << c.keysym;
    }
}

TEST(X11KeyMap, EveryCodeGoesBackToTheSymbolThatGivesIt) {
    std::set<std::uint16_t> seen;
    for (std::uint16_t code = 0; code < 128; ++code) {
        auto sym = X11KeyMap::keysym(code);
        if (!sym) continue;
        EXPECT_EQ(X11KeyMap::keyCode(*sym), code) << code;
        seen.insert(code);
    }
    // The US letters, digits and punctuation, the arrows, F1 to F20 and the modifiers.
    EXPECT_GE(seen.size(), 90u);
    EXPECT_FALSE(X11KeyMap::keysym(10));  // the ISO section key has no symbol of its own
    EXPECT_FALSE(X11KeyMap::keysym(200));
}

TEST(X11KeyMap, TheModifierMappingDecidesWhereAltSuperAndTheLocksLive) {
    // Protocol order: Shift, Lock, Control, Mod1 .. Mod5.
    std::vector<std::vector<std::uint32_t>> usual{{XKB_KEY_Shift_L}, {XKB_KEY_Caps_Lock}, {XKB_KEY_Control_L},
                                                  {XKB_KEY_Alt_L, XKB_KEY_Meta_L}, {XKB_KEY_Num_Lock}, {},
                                                  {XKB_KEY_Super_L, XKB_KEY_Hyper_L}, {XKB_KEY_ISO_Level3_Shift}};
    EXPECT_EQ(X11KeyMap::masksFromMapping(usual),
              (X11KeyMap::ModifierMasks{.alt = 0x08, .super = 0x40, .numLock = 0x10, .scrollLock = 0}));

    std::vector<std::vector<std::uint32_t>> unusual{{}, {}, {}, {XKB_KEY_Num_Lock}, {XKB_KEY_Super_R},
                                                    {XKB_KEY_Scroll_Lock}, {}, {XKB_KEY_Alt_R}};
    EXPECT_EQ(X11KeyMap::masksFromMapping(unusual),
              (X11KeyMap::ModifierMasks{.alt = 0x80, .super = 0x10, .numLock = 0x08, .scrollLock = 0x20}));

    // Alt on Shift's row is not taken: the first three are fixed.
    std::vector<std::vector<std::uint32_t>> misplaced{{XKB_KEY_Alt_L}, {}, {}, {}, {}, {}, {}, {}};
    EXPECT_EQ(X11KeyMap::masksFromMapping(misplaced).alt, 0);
}

TEST(X11KeyMap, ModifierStatesTranslateBothWaysAndLocksAreDropped) {
    const X11KeyMap::ModifierMasks masks{};
    struct Case {
        std::uint16_t state;
        Modifiers modifiers;
    };
    const Case cases[] = {
        {0x04 | 0x08, Modifiers::control | Modifiers::option},  // the seeded Ctrl+Alt
        {0x40, Modifiers::command},
        {0x01 | 0x40, Modifiers::shift | Modifiers::command},
        {0x02 | 0x10 | 0x04, Modifiers::control},  // Caps Lock and Num Lock on
        {0x80, Modifiers{}},                       // an unassigned modifier
    };
    for (const auto& c : cases) {
        EXPECT_EQ(X11KeyMap::modifiers(c.state, masks), c.modifiers) << c.state;
    }
    EXPECT_EQ(X11KeyMap::state(Modifiers::control | Modifiers::option, masks), 0x0C);
    EXPECT_EQ(X11KeyMap::state(Modifiers::command | Modifiers::shift, masks), 0x41);
    EXPECT_EQ(X11KeyMap::state(Modifiers::function | Modifiers::control, masks), std::nullopt);
    EXPECT_EQ(X11KeyMap::state(Modifiers::command, X11KeyMap::ModifierMasks{.alt = 0x08, .super = 0, .numLock = 0}),
              std::nullopt);
    EXPECT_EQ(X11KeyMap::eventFlags(0x02 | 0x04, masks), EventFlags::capsLock | EventFlags::control);
}

TEST(X11KeyMap, GrabsCoverEveryLockCombinationOnce) {
    struct Case {
        X11KeyMap::ModifierMasks masks;
        std::vector<std::uint16_t> expected;
    };
    const Case cases[] = {
        {{.alt = 8, .super = 64, .numLock = 16, .scrollLock = 0}, {0, 2, 16, 18}},
        {{.alt = 8, .super = 64, .numLock = 16, .scrollLock = 32}, {0, 2, 16, 18, 32, 34, 48, 50}},
        {{.alt = 8, .super = 64, .numLock = 0, .scrollLock = 0}, {0, 2}},
        // Num Lock and Scroll Lock on one modifier count once.
        {{.alt = 8, .super = 64, .numLock = 16, .scrollLock = 16}, {0, 2, 16, 18}},
    };
    for (const auto& c : cases) {
        auto combinations = X11KeyMap::lockCombinations(c.masks);
        EXPECT_EQ(combinations, c.expected);
        EXPECT_EQ(std::set<std::uint16_t>(combinations.begin(), combinations.end()).size(), combinations.size());
    }
}

TEST(X11Geometry, OuterFrameAddsTheExtentsAndTheClientFrameTakesThemOff) {
    const FrameExtents extents{1, 2, 23, 4};
    const XRect client{100, 200, 400, 300};
    const XRect outer = X11Geometry::outerFrame(client, extents);
    EXPECT_EQ(outer, (XRect{99, 177, 403, 327}));
    EXPECT_EQ(X11Geometry::clientFrame(outer, extents), client);
    // An outer frame smaller than its decoration still gives a one-pixel client.
    EXPECT_EQ(X11Geometry::clientFrame(XRect{0, 0, 2, 10}, extents), (XRect{1, 23, 1, 1}));
}

TEST(X11Geometry, StrutsCutOnlyTheMonitorTheyAreOn) {
    const XRect root{0, 0, 1600, 900};
    const XRect left{0, 0, 1000, 900};
    const XRect right{1000, 0, 600, 900};
    auto strut = [&](std::vector<std::uint32_t> values) { return *Strut::fromCardinals(values, root); };
    struct Case {
        const char* name;
        std::vector<Strut> struts;
        XRect monitor;
        XRect expected;
    };
    const Case cases[] = {
        {"none", {}, left, left},
        {"top panel on the right monitor", {strut({0, 0, 30, 0, 0, 0, 0, 0, 1000, 1599, 0, 0})}, right, {1000, 30, 600, 870}},
        {"the same panel leaves the left alone", {strut({0, 0, 30, 0, 0, 0, 0, 0, 1000, 1599, 0, 0})}, left, left},
        {"bottom dock across both", {strut({0, 0, 0, 48, 0, 0, 0, 0, 0, 0, 0, 1599})}, left, {0, 0, 1000, 852}},
        {"left dock", {strut({64, 0, 0, 0, 0, 899, 0, 0, 0, 0, 0, 0})}, left, {64, 0, 936, 900}},
        {"right dock on the right monitor", {strut({0, 40, 0, 0, 0, 0, 0, 899, 0, 0, 0, 0})}, right, {1000, 0, 560, 900}},
        {"the old four-value strut spans the edge", {strut({0, 0, 25, 0})}, right, {1000, 25, 600, 875}},
        {"the larger of two struts wins", {strut({0, 0, 20, 0, 0, 0, 0, 0, 0, 1599, 0, 0}), strut({0, 0, 35, 0, 0, 0, 0, 0, 0, 1599, 0, 0})},
         left, {0, 35, 1000, 865}},
        {"a strut wider than the monitor leaves nothing", {strut({1200, 0, 0, 0, 0, 899, 0, 0, 0, 0, 0, 0})}, left,
         {1000, 0, 0, 900}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(X11Geometry::visibleArea(c.monitor, c.struts, root), c.expected) << c.name;
    }
    EXPECT_FALSE(Strut::fromCardinals({1, 2, 3}, root));
}

TEST(X11Geometry, TheFlipPutsTheOriginAtTheBottomLeftOfTheFirstMonitor) {
    const XRect first{0, 0, 1000, 900};
    EXPECT_EQ(X11Geometry::toScreen(first, first), (Rect{{0, 0}, {1000, 900}}));
    EXPECT_EQ(X11Geometry::toScreen(XRect{1000, 30, 600, 870}, first), (Rect{{1000, 0}, {600, 870}}));
    EXPECT_EQ(X11Geometry::toScreen(XRect{0, 0, 1000, 852}, first), (Rect{{0, 48}, {1000, 852}}));
    // A first monitor that is not at the root's origin.
    const XRect offset{200, 100, 800, 600};
    EXPECT_EQ(X11Geometry::toScreen(offset, offset), (Rect{{0, 0}, {800, 600}}));
    EXPECT_EQ(X11Geometry::toWindowPoint(250, 150, offset), (Point{50, 50}));
    EXPECT_EQ(X11Geometry::rootX(49.6, offset), 250);
    EXPECT_EQ(X11Geometry::rootY(-0.4, offset), 100);
}

} // namespace
} // namespace tavrick

#include "HotkeyEngine/HotkeyValidation.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {
constexpr std::uint16_t keyA = 0, keyQ = 12, tab = 48, space = 49, f5 = 96, f20 = 90, home = 115, pageDown = 121,
                        escape = 53,
                        leftArrow = 123, forwardDelete = 117;
const Modifiers none;
const Modifiers command = Modifiers::command;
} // namespace

TEST(HotkeyValidation, DecidesInTheDocumentedOrder) {
    struct Case {
        const char* what;
        HotkeySpec spec;
        HotkeyPurpose purpose;
        HotkeyValidation expected;
    };
    const Case cases[] = {
        {"F5 alone", {f5, none}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"F20 alone", {f20, none}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"Home alone", {home, none}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"Page Down alone", {pageDown, none}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"← alone", {leftArrow, none}, HotkeyPurpose::trigger, HotkeyValidation::needsModifier},
        {"forward delete alone", {forwardDelete, none}, HotkeyPurpose::trigger, HotkeyValidation::needsModifier},
        {"F5 with ⌘ stays valid", {f5, command}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"A alone", {keyA, none}, HotkeyPurpose::trigger, HotkeyValidation::needsModifier},
        {"⇧A", {keyA, Modifiers::shift}, HotkeyPurpose::trigger, HotkeyValidation::needsModifier},
        {"Escape alone", {escape, none}, HotkeyPurpose::trigger, HotkeyValidation::needsModifier},
        {"fn A is safe", {keyA, Modifiers::function}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"⌃A", {keyA, Modifiers::control}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"⌥⇧A", {keyA, Modifiers::option | Modifiers::shift}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"⌘Q", {keyQ, command}, HotkeyPurpose::trigger, HotkeyValidation::reservedBySystem},
        {"⌘Tab", {tab, command}, HotkeyPurpose::trigger, HotkeyValidation::reservedBySystem},
        {"⌘⇧Tab", {tab, command | Modifiers::shift}, HotkeyPurpose::trigger, HotkeyValidation::reservedBySystem},
        {"⌘Space", {space, command}, HotkeyPurpose::trigger, HotkeyValidation::reservedBySystem},
        {"⌘⌥Tab is not reserved", {tab, command | Modifiers::option}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"⌃Space", {space, Modifiers::control}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"⌘⇧Q", {keyQ, command | Modifiers::shift}, HotkeyPurpose::trigger, HotkeyValidation::valid},
        {"⌘Q as a keystroke", {keyQ, command}, HotkeyPurpose::keystroke, HotkeyValidation::valid},
        {"A as a keystroke", {keyA, none}, HotkeyPurpose::keystroke, HotkeyValidation::valid},
    };
    for (auto& c : cases) EXPECT_EQ(HotkeyRules::validate(c.spec, c.purpose), c.expected) << c.what;
}

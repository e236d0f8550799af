#include "CoreKit/EscapeRule.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {
EscapeRule::Context bareEscapeIn(std::optional<std::string> window) {
    EscapeRule::Context context;
    context.keyCode = 53;
    context.windowIdentifier = std::move(window);
    return context;
}
} // namespace

TEST(EscapeRule, BareEscapeClosesEachListedWindow) {
    for (const char* window :
         {"com_apple_SwiftUI_Settings_window", "tavrick-welcome", "tavrick-notepad", "tavrick-vault"}) {
        EXPECT_TRUE(EscapeRule::shouldClose(bareEscapeIn(window))) << window;
    }
}

TEST(EscapeRule, AnythingElseInTheWindowKeepsItOpen) {
    const struct {
        const char* why;
        void (*change)(EscapeRule::Context&);
    } cases[] = {
        {"another key (Tab)", [](EscapeRule::Context& c) { c.keyCode = 48; }},
        {"key code 0", [](EscapeRule::Context& c) { c.keyCode = 0; }},
        {"with a modifier", [](EscapeRule::Context& c) { c.hasModifiers = true; }},
        {"a sheet is open", [](EscapeRule::Context& c) { c.hasSheet = true; }},
        {"a shortcut is being recorded", [](EscapeRule::Context& c) { c.isRecordingShortcut = true; }},
        {"an input method is composing", [](EscapeRule::Context& c) { c.hasMarkedText = true; }},
        {"no window", [](EscapeRule::Context& c) { c.windowIdentifier.reset(); }},
        {"an unlisted window", [](EscapeRule::Context& c) { c.windowIdentifier = "tavrick-toast"; }},
        {"an empty identifier", [](EscapeRule::Context& c) { c.windowIdentifier = ""; }},
        {"case differs", [](EscapeRule::Context& c) { c.windowIdentifier = "Tavrick-Notepad"; }},
        {"a longer name", [](EscapeRule::Context& c) { c.windowIdentifier = "tavrick-notepad-2"; }},
        {"a shorter name", [](EscapeRule::Context& c) { c.windowIdentifier = "tavrick-"; }},
    };
    for (const auto& c : cases) {
        auto context = bareEscapeIn("tavrick-notepad");
        c.change(context);
        EXPECT_FALSE(EscapeRule::shouldClose(context)) << c.why;
    }
}

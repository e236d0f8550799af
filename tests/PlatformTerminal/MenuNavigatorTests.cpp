#include "Platform/Terminal/MenuNavigator.h"
#include "Platform/Terminal/TerminalMenu.h"

#include <gtest/gtest.h>

namespace tavrick {
namespace {

using Kind = MenuEntry::Kind;
using K = MenuNavigator::KeyKind;
using Key = MenuNavigator::Key;
using Outcome = MenuNavigator::Outcome;

MenuEntry make(std::string id, Kind kind, std::string title, std::vector<MenuEntry> children = {}) {
    MenuEntry e;
    e.id = std::move(id);
    e.kind = kind;
    e.title = std::move(title);
    e.children = std::move(children);
    return e;
}

MenuSnapshot sample() {
    MenuSnapshot s;
    s.label = "gearshape";
    auto secret = make("vault.unlock", Kind::field, "Passphrase");
    secret.isSecret = true;
    secret.value = "hidden";
    auto port = make("settings.port", Kind::field, "Port");
    port.value = "8000";
    auto disabled = make("reset", Kind::command, "Reset");
    disabled.isEnabled = false;
    s.entries = {
        make("status", Kind::label, "Pomodoro stopped"),
        make("start", Kind::command, "Start"),
        disabled,
        make("sep", Kind::separator, ""),
        make("settings", Kind::submenu, "Settings",
             {make("settings.reorder", Kind::submenu, "Reorder Sections", {make("up", Kind::command, "Move Up")}), port,
              secret}),
        make("quit", Kind::command, "Quit"),
    };
    return s;
}

TEST(MenuNavigator, LettersPreferTheModelThenTheTitleThenTheAlphabetAndNeverQ) {
    auto preferred = make("b", Kind::command, "Beta");
    preferred.shortcut = 'S';
    auto label = make("l", Kind::label, "Label");
    auto off = make("o", Kind::command, "Off");
    off.isEnabled = false;
    struct Case {
        std::vector<MenuEntry> entries;
        std::vector<char> expected;
    } cases[] = {
        // The model's preference wins even over an earlier line whose title starts with it.
        {{make("a", Kind::command, "Start"), preferred}, {'t', 's'}},
        // Quit's own letter is never given away; the title's next letter is used.
        {{make("a", Kind::command, "Quiet")}, {'u'}},
        // Labels, separators and greyed-out lines take none.
        {{label, off, make("s", Kind::separator, ""), make("c", Kind::command, "Copy")}, {0, 0, 0, 'c'}},
        // A title without a free letter falls back to the alphabet, then to digits.
        {{make("1", Kind::command, "aa"), make("2", Kind::command, "a")}, {'a', 'b'}},
        {{make("x", Kind::command, "…")}, {'a'}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(MenuNavigator::letters(c.entries), c.expected);
    }
    // Twenty-six lines use up every letter but q, so the rest get digits.
    std::vector<MenuEntry> many;
    for (int i = 0; i < 27; ++i) many.push_back(make(std::to_string(i), Kind::command, "x"));
    const auto marks = MenuNavigator::letters(many);
    EXPECT_EQ(marks[0], 'x');
    EXPECT_EQ(marks[25], '0');
    EXPECT_EQ(marks[26], '1');
    EXPECT_EQ(std::count(marks.begin(), marks.end(), 'q'), 0);
}

TEST(MenuNavigator, ArrowsSkipWhatCannotBeChosenAndWrapAround) {
    const auto s = sample();
    MenuNavigator nav;
    EXPECT_EQ(nav.cursor(s), "start");
    const std::pair<K, std::string> steps[] = {
        {K::down, "settings"}, {K::down, "quit"}, {K::down, "start"}, {K::up, "quit"}, {K::up, "settings"},
    };
    for (const auto& [key, expected] : steps) {
        nav.press(s, Key::of(key));
        EXPECT_EQ(nav.cursor(s), expected);
    }
}

TEST(MenuNavigator, EnterActsOrOpensAndEscapeGoesBackOneLevel) {
    const auto s = sample();
    MenuNavigator nav;
    EXPECT_EQ(nav.press(s, Key::of(K::enter)), (Outcome{Outcome::Kind::activate, "start", ""}));
    // A letter acts on its line at once; the disabled Reset cannot be reached by any key.
    EXPECT_EQ(nav.press(s, Key::letter('r')), Outcome{});
    EXPECT_EQ(nav.press(s, Key::letter('e')), Outcome{});
    EXPECT_EQ(nav.path(s), std::vector<std::string>{"Settings"});
    nav.press(s, Key::of(K::enter));
    EXPECT_EQ(nav.path(s), (std::vector<std::string>{"Settings", "Reorder Sections"}));
    EXPECT_EQ(nav.press(s, Key::of(K::enter)), (Outcome{Outcome::Kind::activate, "up", ""}));
    nav.press(s, Key::of(K::escape));
    nav.press(s, Key::of(K::back));
    EXPECT_TRUE(nav.path(s).empty());
    // The cursor comes back to the submenu that was open.
    EXPECT_EQ(nav.cursor(s), "settings");
    // Escape at the top does nothing; q quits from anywhere.
    nav.press(s, Key::of(K::escape));
    EXPECT_EQ(nav.cursor(s), "settings");
    EXPECT_EQ(nav.press(s, Key::letter('Q')).kind, Outcome::Kind::quit);
    // Right opens a submenu but never acts on a command.
    MenuNavigator other;
    EXPECT_EQ(other.press(s, Key::of(K::forward)), Outcome{});
    EXPECT_TRUE(other.path(s).empty());
}

TEST(MenuNavigator, TheCursorFollowsItsLineAcrossSnapshotsAndAVanishedSubmenuCloses) {
    auto s = sample();
    MenuNavigator nav;
    nav.press(s, Key::of(K::down));
    EXPECT_EQ(nav.cursor(s), "settings");
    // The same lines in another order: the cursor stays on Settings.
    std::swap(s.entries[1], s.entries[5]);
    EXPECT_EQ(nav.cursor(s), "settings");
    nav.press(s, Key::of(K::enter));
    nav.press(s, Key::of(K::enter));
    ASSERT_EQ(nav.path(s).size(), 2u);
    // The inner submenu goes away: the menu falls back to the level that still exists.
    s.entries[4].children.erase(s.entries[4].children.begin());
    EXPECT_EQ(nav.path(s), std::vector<std::string>{"Settings"});
    EXPECT_EQ(nav.cursor(s), "settings.port");
    // The chosen line itself goes away: the first line that can be chosen takes its place.
    s.entries[4].children.erase(s.entries[4].children.begin());
    EXPECT_EQ(nav.cursor(s), "vault.unlock");
}

TEST(MenuNavigator, FieldsAreTypedIntoAndSubmittedOrCancelled) {
    const auto s = sample();
    MenuNavigator nav;
    nav.open({"settings"});
    nav.press(s, Key::of(K::down));
    EXPECT_EQ(nav.cursor(s), "settings.port");
    nav.press(s, Key::of(K::enter));
    ASSERT_TRUE(nav.isEditing());
    // The field starts from its value; keys type instead of moving or quitting.
    EXPECT_EQ(nav.editText(), "8000");
    for (auto key : {Key::of(K::backspace), Key::of(K::backspace), Key::letter('q'), Key::of(K::up), Key::letter('\t')}) {
        EXPECT_EQ(nav.press(s, key), Outcome{});
    }
    EXPECT_EQ(nav.editText(), "80q");
    EXPECT_EQ(nav.press(s, Key::of(K::enter)), (Outcome{Outcome::Kind::submit, "settings.port", "80q"}));
    EXPECT_FALSE(nav.isEditing());
    // Escape leaves the field without submitting; Backspace removes a whole character.
    nav.press(s, Key::of(K::enter));
    for (char c : std::string("é")) nav.press(s, Key::letter(c));
    nav.press(s, Key::of(K::backspace));
    EXPECT_EQ(nav.editText(), "8000");
    EXPECT_EQ(nav.press(s, Key::of(K::escape)), Outcome{});
    EXPECT_FALSE(nav.isEditing());
    EXPECT_EQ(nav.path(s), std::vector<std::string>{"Settings"});
    // A secret starts empty, never showing what is stored.
    nav.press(s, Key::of(K::down));
    nav.press(s, Key::of(K::enter));
    EXPECT_TRUE(nav.editIsSecret());
    EXPECT_EQ(nav.editText(), "");
}

TEST(MenuScreen, DrawsTheLevelWithLettersStateAndStatusLines) {
    const auto s = sample();
    MenuNavigator nav;
    const auto rows = MenuScreen::render(s, nav, 12, 60, {"old", "[core] first", "✓ Copied"});
    ASSERT_EQ(rows.size(), 12u);
    EXPECT_EQ(rows[0].text, " gearshape");
    EXPECT_EQ(rows[1].text, "      Pomodoro stopped");
    EXPECT_TRUE(rows[1].isDim);
    EXPECT_EQ(rows[2].text, " s  Start");
    EXPECT_TRUE(rows[2].isCursor);
    EXPECT_EQ(rows[3].text, "    Reset");
    EXPECT_TRUE(rows[3].isDim);
    EXPECT_EQ(rows[4].text, "  ────────────────");
    EXPECT_EQ(rows[5].text, " e  Settings  ›");
    EXPECT_EQ(rows[6].text, " u  Quit");
    // The last two status lines, then the key help.
    EXPECT_EQ(rows[9].text, " [core] first");
    EXPECT_EQ(rows[10].text, " ✓ Copied");
    EXPECT_EQ(rows[11].text, " ↑↓ move · Enter choose · letter jumps · Esc back · q quit");

    nav.open({"settings"});
    const auto inner = MenuScreen::render(s, nav, 12, 60, {});
    EXPECT_EQ(inner[0].text, " gearshape › Settings");
    EXPECT_EQ(inner[2].text, " p  Port: 8000");
    EXPECT_EQ(inner[3].text, " a  Passphrase: ••••");
}

TEST(MenuScreen, ATooSmallTerminalGetsOneClearLineAndLongMenusScroll) {
    const auto s = sample();
    MenuNavigator nav;
    struct Size {
        int rows, columns;
        bool tooSmall;
    } sizes[] = {{7, 80, true}, {8, 29, true}, {8, 30, false}, {0, 0, true}};
    for (const auto& size : sizes) {
        const auto rows = MenuScreen::render(s, nav, size.rows, size.columns, {});
        if (size.tooSmall) {
            ASSERT_LE(rows.size(), 1u);
            if (size.columns > 0) {
                EXPECT_EQ(rows[0].text, MenuScreen::fitted("Terminal too small — make it at least 30×8", size.columns));
                EXPECT_EQ(rows[0].text.rfind("Terminal too small", 0), 0u);
            }
        } else {
            EXPECT_EQ(rows.size(), 8u);
        }
    }
    // Forty commands in a menu of four rows: the cursor stays in view, with marks for what is cut.
    MenuSnapshot many;
    for (int i = 0; i < 40; ++i) many.entries.push_back(make("c" + std::to_string(i), Kind::command, "Item " + std::to_string(i)));
    for (int i = 0; i < 20; ++i) nav.press(many, Key::of(K::down));
    const auto rows = MenuScreen::render(many, nav, 8, 40, {});
    EXPECT_EQ(rows[1].text, "   ⋯");
    EXPECT_EQ(rows[4].text, "   ⋯");
    EXPECT_TRUE(rows[2].isCursor || rows[3].isCursor);
    const auto& shown = rows[2].isCursor ? rows[2] : rows[3];
    EXPECT_NE(shown.text.find("Item 20"), std::string::npos);
}

TEST(MenuScreen, FittingCountsCharactersNotBytes) {
    const std::tuple<std::string, int, std::string> cases[] = {
        {"abc", 2, "ab"}, {"⚠︎ Not active", 3, "⚠︎ N"}, {"📌 pinned", 1, "📌"}, {"abc", 0, ""}, {"ab", 5, "ab"},
    };
    for (const auto& [text, columns, expected] : cases) {
        EXPECT_EQ(MenuScreen::fitted(text, columns), expected) << text;
    }
}

} // namespace
} // namespace tavrick

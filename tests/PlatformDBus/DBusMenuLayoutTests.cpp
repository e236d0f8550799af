// The menu model as numbered dbusmenu items: properties, stable numbers, and which change a host
// is told about.
#include "Platform/DBus/DBusMenuLayout.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {

MenuEntry command(std::string id, std::string title, bool enabled = true) {
    MenuEntry entry;
    entry.id = std::move(id);
    entry.title = std::move(title);
    entry.isEnabled = enabled;
    return entry;
}

MenuEntry toggle(std::string id, std::string title, bool on) {
    auto entry = command(std::move(id), std::move(title));
    entry.kind = MenuEntry::Kind::toggle;
    entry.isOn = on;
    return entry;
}

MenuEntry label(std::string id, std::string title) {
    auto entry = command(std::move(id), std::move(title));
    entry.kind = MenuEntry::Kind::label;
    return entry;
}

MenuEntry separator() {
    MenuEntry entry;
    entry.kind = MenuEntry::Kind::separator;
    return entry;
}

MenuEntry submenu(std::string id, std::string title, std::vector<MenuEntry> children) {
    auto entry = command(std::move(id), std::move(title));
    entry.kind = MenuEntry::Kind::submenu;
    entry.children = std::move(children);
    return entry;
}

MenuSnapshot baseMenu() {
    return MenuSnapshot{"", {toggle("master", "Shortcuts & Gestures Enabled", true), separator(),
                             label("pomodoro.status", "Pomodoro stopped"), command("pomodoro.start", "Start Focus"),
                             separator(), submenu("snap", "Snap Frontmost Window",
                                                  {command("snap.left", "Left Half"), command("snap.right", "Right Half")}),
                             separator(), command("quit", "Quit")}};
}

std::int32_t idOf(const DBusMenuLayout& layout, const std::string& entryID) {
    std::function<std::int32_t(const DBusMenuItem&)> walk = [&](const DBusMenuItem& item) -> std::int32_t {
        if (auto target = layout.target(item.id); target && target->entryID == entryID) return item.id;
        for (const auto& child : item.children) {
            if (auto found = walk(child)) return found;
        }
        return 0;
    };
    return walk(layout.root());
}

} // namespace

TEST(DBusMenuLayout, PropertiesOfEachKindAsHostsReadThem) {
    struct Case {
        const char* name;
        MenuEntry entry;
        DBusMenuProperties expected;
    };
    const std::vector<Case> cases{
        {"command", command("a", "Relaunch Finder"),
         {{"type", std::string("standard")}, {"label", std::string("Relaunch Finder")}, {"enabled", true}, {"visible", true}}},
        {"disabled command", command("a", "Hand the Fans Back to macOS", false),
         {{"type", std::string("standard")}, {"label", std::string("Hand the Fans Back to macOS")}, {"enabled", false},
          {"visible", true}}},
        {"underscores are doubled so none becomes an access key", command("a", "my_file__name"),
         {{"type", std::string("standard")}, {"label", std::string("my__file____name")}, {"enabled", true}, {"visible", true}}},
        {"switch on", toggle("t", "Watch Connections", true),
         {{"type", std::string("standard")}, {"label", std::string("Watch Connections")}, {"enabled", true},
          {"visible", true}, {"toggle-type", std::string("checkmark")}, {"toggle-state", std::int32_t{1}}}},
        {"switch off", toggle("t", "Watch Connections", false),
         {{"type", std::string("standard")}, {"label", std::string("Watch Connections")}, {"enabled", true},
          {"visible", true}, {"toggle-type", std::string("checkmark")}, {"toggle-state", std::int32_t{0}}}},
        {"text line cannot be chosen", label("l", "Nothing copied yet"),
         {{"type", std::string("standard")}, {"label", std::string("Nothing copied yet")}, {"enabled", false}, {"visible", true}}},
        {"submenu", submenu("s", "Snap Frontmost Window", {}),
         {{"type", std::string("standard")}, {"label", std::string("Snap Frontmost Window")}, {"enabled", true},
          {"visible", true}, {"children-display", std::string("submenu")}}},
        {"separator carries its type only", separator(), {{"type", std::string("separator")}}},
        {"unicode stays as it is", label("l", "⚠︎ Not active — permission needed"),
         {{"type", std::string("standard")}, {"label", std::string("⚠︎ Not active — permission needed")}, {"enabled", false},
          {"visible", true}}},
    };
    for (const auto& c : cases) EXPECT_EQ(DBusMenuLayout::properties(c.entry), c.expected) << c.name;
}

TEST(DBusMenuLayout, TreeFollowsTheModelsOrderAndNesting) {
    DBusMenuLayout layout;
    layout.update(baseMenu());
    const auto& root = layout.root();
    EXPECT_EQ(root.id, 0);
    ASSERT_EQ(root.children.size(), 8u);
    std::vector<std::string> labels;
    for (const auto& child : root.children) {
        auto found = child.properties.find("label");
        labels.push_back(found == child.properties.end() ? "—" : std::get<std::string>(found->second));
    }
    EXPECT_EQ(labels, (std::vector<std::string>{"Shortcuts & Gestures Enabled", "—", "Pomodoro stopped", "Start Focus", "—",
                                                "Snap Frontmost Window", "—", "Quit"}));
    ASSERT_EQ(root.children[5].children.size(), 2u);
    EXPECT_EQ(std::get<std::string>(root.children[5].children[1].properties.at("label")), "Right Half");
    // Every number is distinct and none is the root's.
    std::set<std::int32_t> ids;
    std::function<void(const DBusMenuItem&)> collect = [&](const DBusMenuItem& item) {
        EXPECT_TRUE(ids.insert(item.id).second) << item.id;
        for (const auto& child : item.children) collect(child);
    };
    collect(root);
    EXPECT_EQ(ids.size(), 11u);
}

TEST(DBusMenuLayout, ChangesAreClassifiedAndTheRevisionMovesOnlyWhenSeen) {
    struct Case {
        const char* name;
        std::function<void(MenuSnapshot&)> edit;
        DBusMenuLayout::Change change;
        std::vector<std::string> changedEntries;
    };
    const std::vector<Case> cases{
        {"nothing", [](MenuSnapshot&) {}, DBusMenuLayout::Change::none, {}},
        {"the readout alone", [](MenuSnapshot& m) { m.label = "2,400 rpm"; }, DBusMenuLayout::Change::none, {}},
        {"a switch flips", [](MenuSnapshot& m) { m.entries[0].isOn = false; }, DBusMenuLayout::Change::properties, {"master"}},
        {"a status line and a command change together",
         [](MenuSnapshot& m) {
             m.entries[2].title = "Focus 24:59";
             m.entries[3].isEnabled = false;
         },
         DBusMenuLayout::Change::properties,
         {"pomodoro.status", "pomodoro.start"}},
        {"a nested title", [](MenuSnapshot& m) { m.entries[5].children[0].title = "Left"; },
         DBusMenuLayout::Change::properties, {"snap.left"}},
        {"a line added", [](MenuSnapshot& m) { m.entries.insert(m.entries.begin() + 4, command("pomodoro.skip", "Skip")); },
         DBusMenuLayout::Change::layout, {}},
        {"a line removed", [](MenuSnapshot& m) { m.entries.erase(m.entries.begin() + 3); }, DBusMenuLayout::Change::layout, {}},
        {"two lines swapped", [](MenuSnapshot& m) { std::swap(m.entries[2], m.entries[3]); }, DBusMenuLayout::Change::layout, {}},
        {"a child added", [](MenuSnapshot& m) { m.entries[5].children.push_back(command("snap.max", "Maximise")); },
         DBusMenuLayout::Change::layout, {}},
        {"a command becomes a switch", [](MenuSnapshot& m) { m.entries[3].kind = MenuEntry::Kind::toggle; },
         DBusMenuLayout::Change::properties, {"pomodoro.start"}},
        {"a command becomes a submenu", [](MenuSnapshot& m) { m.entries[3].kind = MenuEntry::Kind::submenu; },
         DBusMenuLayout::Change::layout, {}},
    };
    for (const auto& c : cases) {
        DBusMenuLayout layout;
        layout.update(baseMenu());
        const auto before = layout.revision();
        auto edited = baseMenu();
        c.edit(edited);
        const auto update = layout.update(edited);
        EXPECT_EQ(update.change, c.change) << c.name;
        EXPECT_EQ(layout.revision(), c.change == DBusMenuLayout::Change::none ? before : before + 1) << c.name;
        std::vector<std::string> changed;
        for (auto id : update.changedIDs) changed.push_back(layout.target(id)->entryID);
        EXPECT_EQ(changed, c.changedEntries) << c.name;
    }
}

TEST(DBusMenuLayout, NumbersStayWithTheirLinesAndAreNeverGivenToAnother) {
    DBusMenuLayout layout;
    layout.update(baseMenu());
    const auto start = idOf(layout, "pomodoro.start");
    const auto quit = idOf(layout, "quit");

    auto without = baseMenu();
    without.entries.erase(without.entries.begin() + 3);
    layout.update(without);
    // The line is gone: its number reaches nothing now, and no other line took it.
    EXPECT_FALSE(layout.target(start));
    EXPECT_EQ(layout.find(start), nullptr);
    EXPECT_EQ(idOf(layout, "quit"), quit);

    auto other = without;
    other.entries.push_back(command("clipboard.item.1", "hello"));
    layout.update(other);
    EXPECT_NE(idOf(layout, "clipboard.item.1"), start);

    layout.update(baseMenu());
    EXPECT_EQ(idOf(layout, "pomodoro.start"), start);
    ASSERT_TRUE(layout.target(start));
    EXPECT_EQ(layout.target(start)->kind, MenuEntry::Kind::command);
}

TEST(DBusMenuLayout, RootAndUnknownNumbers) {
    DBusMenuLayout layout;
    // Before any snapshot the root exists and is empty.
    ASSERT_NE(layout.find(0), nullptr);
    EXPECT_TRUE(layout.root().children.empty());
    EXPECT_EQ(std::get<std::string>(layout.root().properties.at("children-display")), "submenu");
    layout.update(baseMenu());
    EXPECT_EQ(layout.find(-1), nullptr);
    EXPECT_EQ(layout.find(9999), nullptr);
    EXPECT_FALSE(layout.target(9999));
    // An empty menu after a full one is a change of layout, and the old numbers reach nothing.
    const auto quit = idOf(layout, "quit");
    EXPECT_EQ(layout.update(MenuSnapshot{}).change, DBusMenuLayout::Change::layout);
    EXPECT_EQ(layout.find(quit), nullptr);
}

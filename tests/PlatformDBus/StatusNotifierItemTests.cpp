// The tray item on a private session bus, with a watcher and a host standing in for a panel:
// registration and registering again, the menu's layout against the model after every change,
// choices through Event and EventGroup, and a host or bus that misbehaves.
#include "Platform/DBus/StatusNotifierItem.h"

#include "CoreKit/ManualScheduler.h"
#include "Platform/DBus/BusLoop.h"
#include "PlatformDBus/Buses.h"
#include "Support/Eventually.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

constexpr const char* watcherInterface = "org.kde.StatusNotifierWatcher";
constexpr const char* menuInterface = "com.canonical.dbusmenu";
using Properties = std::map<std::string, sdbus::Variant>;
using Layout = sdbus::Struct<std::int32_t, Properties, std::vector<sdbus::Variant>>;

// What a panel's watcher does: takes registrations and says whether a host is there.
struct FakeWatcher {
    FakeWatcher(const std::string& address, bool hostThere) : connection(address), hostRegistered(hostThere) {
        object = sdbus::createObject(*connection, "/StatusNotifierWatcher");
        object->registerMethod("RegisterStatusNotifierItem").onInterface(watcherInterface).implementedAs([this](const std::string& name) {
            std::lock_guard lock(mutex);
            registered.push_back(name);
        });
        object->registerProperty("IsStatusNotifierHostRegistered").onInterface(watcherInterface).withGetter([this] {
            return hostRegistered;
        });
        object->registerSignal("StatusNotifierHostRegistered").onInterface(watcherInterface);
        object->finishRegistration();
        connection.run("org.kde.StatusNotifierWatcher");
    }
    ~FakeWatcher() { connection.stop(); }
    std::vector<std::string> registrations() {
        std::lock_guard lock(mutex);
        return registered;
    }

    ServiceConnection connection;
    bool hostRegistered;
    std::unique_ptr<sdbus::IObject> object;
    std::mutex mutex;
    std::vector<std::string> registered;
};

// The menu model a face draws; choosing a switch flips it, choosing a command records it.
class FakeMenu final : public MenuSource {
public:
    MenuSnapshot snapshot() const override { return menu; }
    bool activate(const std::string& id) override {
        auto* entry = find(menu.entries, id);
        if (!entry) return false;
        activated.push_back(id);
        if (entry->kind == MenuEntry::Kind::toggle) {
            entry->isOn = !entry->isOn;
            changed();
        }
        return true;
    }
    int addChangeObserver(std::function<void()> observer) override {
        observers[++next] = std::move(observer);
        return next;
    }
    void removeChangeObserver(int token) override { observers.erase(token); }
    void set(MenuSnapshot snapshot) {
        menu = std::move(snapshot);
        changed();
    }
    void changed() {
        for (auto& [token, observer] : observers) observer();
    }
    static MenuEntry* find(std::vector<MenuEntry>& entries, const std::string& id) {
        for (auto& entry : entries) {
            if (entry.id == id) return &entry;
            if (auto* child = find(entry.children, id)) return child;
        }
        return nullptr;
    }

    MenuSnapshot menu;
    std::vector<std::string> activated;
    std::map<int, std::function<void()>> observers;
    int next = 0;
};

MenuEntry line(std::string id, std::string title, MenuEntry::Kind kind = MenuEntry::Kind::command, bool on = false) {
    MenuEntry entry;
    entry.id = std::move(id);
    entry.title = std::move(title);
    entry.kind = kind;
    entry.isOn = on;
    return entry;
}

MenuSnapshot everydayMenu() {
    auto snap = line("snap", "Snap Frontmost Window", MenuEntry::Kind::submenu);
    snap.children = {line("snap.leftHalf", "Left Half"), line("snap.rightHalf", "Right Half")};
    return MenuSnapshot{"",
                        {line("master", "Shortcuts & Gestures Enabled", MenuEntry::Kind::toggle, true),
                         line("", "", MenuEntry::Kind::separator), snap, line("", "", MenuEntry::Kind::separator),
                         line("pomodoro.status", "Pomodoro stopped", MenuEntry::Kind::label),
                         line("pomodoro.start", "Start Focus"), line("", "", MenuEntry::Kind::separator),
                         line("keepAwake.indefinite", "Until you turn it off"), line("", "", MenuEntry::Kind::separator),
                         line("quit", "Quit")}};
}

// The model as a person reads a menu: one line per entry, nesting by indent.
void renderModel(const std::vector<MenuEntry>& entries, int depth, std::string& out) {
    for (const auto& entry : entries) {
        out += std::string(depth * 2, ' ');
        if (entry.kind == MenuEntry::Kind::separator) {
            out += "---\n";
            continue;
        }
        out += entry.title;
        if (entry.kind == MenuEntry::Kind::toggle) out += entry.isOn ? " [x]" : " [ ]";
        if (entry.kind == MenuEntry::Kind::label || !entry.isEnabled) out += " (inactive)";
        out += "\n";
        renderModel(entry.children, depth + 1, out);
    }
}

std::string renderModel(const MenuSnapshot& snapshot) {
    std::string out;
    renderModel(snapshot.entries, 0, out);
    return out;
}

// The same reading of what the host received, with the host's own rules: "_" before a letter
// marks an access key, "__" is one underscore; absent properties take the protocol's defaults.
void renderLayout(const Layout& layout, int depth, std::string& out, std::map<std::string, std::int32_t>& ids) {
    for (const auto& variant : std::get<2>(layout)) {
        auto child = variant.get<Layout>();
        const auto& properties = std::get<1>(child);
        out += std::string(depth * 2, ' ');
        auto text = [&](const char* name, std::string fallback) {
            auto found = properties.find(name);
            return found == properties.end() ? fallback : found->second.get<std::string>();
        };
        if (text("type", "standard") == "separator") {
            out += "---\n";
            continue;
        }
        std::string label;
        const auto raw = text("label", "");
        for (std::size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] == '_' && i + 1 < raw.size()) ++i;
            label += raw[i];
        }
        ids[label] = std::get<0>(child);
        out += label;
        if (text("toggle-type", "") == "checkmark") {
            out += properties.at("toggle-state").get<std::int32_t>() == 1 ? " [x]" : " [ ]";
        }
        auto enabled = properties.find("enabled");
        if (enabled != properties.end() && !enabled->second.get<bool>()) out += " (inactive)";
        out += "\n";
        renderLayout(child, depth + 1, out, ids);
    }
}

// A panel: reads the layout and sends clicks, and counts the menu's change signals.
struct FakeHost {
    FakeHost(const std::string& address, const std::string& item) : connection(address) {
        menu = sdbus::createProxy(*connection, item, StatusNotifierItem::menuPath);
        menu->uponSignal("LayoutUpdated").onInterface(menuInterface).call([this](std::uint32_t, std::int32_t) { ++layoutUpdates; });
        menu->uponSignal("ItemsPropertiesUpdated")
            .onInterface(menuInterface)
            .call([this](const std::vector<sdbus::Struct<std::int32_t, Properties>>& updated,
                         const std::vector<sdbus::Struct<std::int32_t, std::vector<std::string>>>&) {
                propertyUpdates += static_cast<int>(updated.size());
            });
        menu->finishRegistration();
        itemProxy = sdbus::createProxy(*connection, item, StatusNotifierItem::itemPath);
        connection.run();
    }
    ~FakeHost() { connection.stop(); }
    std::string layout() {
        std::uint32_t revision = 0;
        Layout root;
        menu->callMethod("GetLayout").onInterface(menuInterface).withArguments(std::int32_t{0}, std::int32_t{-1},
                                                                                std::vector<std::string>{}).storeResultsTo(revision, root);
        std::string out;
        ids.clear();
        renderLayout(root, 0, out, ids);
        return out;
    }
    void click(std::int32_t id) {
        menu->callMethod("Event").onInterface(menuInterface).withArguments(id, std::string("clicked"),
                                                                            sdbus::Variant(std::string()), std::uint32_t{0});
    }

    ServiceConnection connection;
    std::unique_ptr<sdbus::IProxy> menu;
    std::unique_ptr<sdbus::IProxy> itemProxy;
    std::atomic<int> layoutUpdates{0};
    std::atomic<int> propertyUpdates{0};
    std::map<std::string, std::int32_t> ids;
};

class StatusNotifierItemTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
        connection = &loop->adopt(sdbus::createSessionBusConnectionWithAddress(bus.address()),
                                  [note = notes.sink()] { note("the session bus went away"); });
        menu.menu = everydayMenu();
    }
    void TearDown() override {
        tray.reset();
        loop.reset();
    }
    void startTray() {
        tray = std::make_unique<StatusNotifierItem>(*loop, *connection, scheduler, notes.sink());
        tray->setSource(&menu);
        tray->start();
    }
    // Waits until the host reads `expected`, running the main queue meanwhile.
    bool hostReads(FakeHost& host, const std::string& expected) {
        return eventually([&] {
            scheduler.runUntilIdle();
            try {
                return host.layout() == expected;
            } catch (const sdbus::Error&) {
                return false;
            }
        });
    }

    PrivateBus bus;
    ManualScheduler scheduler;
    Notes notes;
    std::unique_ptr<BusLoop> loop = std::make_unique<BusLoop>();
    sdbus::IConnection* connection = nullptr;
    FakeMenu menu;
    std::unique_ptr<StatusNotifierItem> tray;
};

} // namespace

TEST_F(StatusNotifierItemTest, RegistersAtLaunchAndAgainEachTimeTheWatcherComesBack) {
    auto watcher = std::make_unique<FakeWatcher>(bus.address(), true);
    startTray();
    ASSERT_TRUE(eventually([&] { return watcher->registrations().size() == 1; }));
    EXPECT_EQ(watcher->registrations()[0], tray->busName());
    EXPECT_EQ(tray->busName().rfind("org.kde.StatusNotifierItem-" + std::to_string(::getpid()) + "-", 0), 0u);
    ASSERT_TRUE(notes.waitFor("the tray item is registered as " + tray->busName() + " (at launch)"));
    EXPECT_FALSE(notes.contains("no tray host"));

    // The panel restarts: its watcher goes and a new one takes the name.
    watcher.reset();
    ASSERT_TRUE(notes.waitFor("the StatusNotifierWatcher went away"));
    EXPECT_TRUE(eventually([&] { return !tray->isRegistered(); }));
    watcher = std::make_unique<FakeWatcher>(bus.address(), true);
    ASSERT_TRUE(eventually([&] { return watcher->registrations().size() == 1; }));
    EXPECT_EQ(watcher->registrations()[0], tray->busName());
    EXPECT_TRUE(notes.waitFor("(the StatusNotifierWatcher came back)"));
    EXPECT_TRUE(tray->isRegistered());
}

TEST_F(StatusNotifierItemTest, WithoutAWatcherOrAHostItSaysSoAndRegistersWhenOneAppears) {
    startTray();
    ASSERT_TRUE(notes.waitFor("no StatusNotifierWatcher on the session bus, so no tray host; the menu stays on the terminal"));
    EXPECT_FALSE(tray->isRegistered());
    // The menu is on the bus all the same.
    FakeHost host(bus.address(), tray->busName());
    EXPECT_TRUE(hostReads(host, renderModel(menu.menu)));

    FakeWatcher watcher(bus.address(), false);
    ASSERT_TRUE(eventually([&] { return watcher.registrations().size() == 1; }));
    EXPECT_TRUE(notes.waitFor("no tray host shows items on this desktop; the menu stays on the terminal"));
}

TEST_F(StatusNotifierItemTest, LayoutMatchesTheModelAfterEveryChange) {
    FakeWatcher watcher(bus.address(), true);
    startTray();
    FakeHost host(bus.address(), tray->busName());
    ASSERT_TRUE(hostReads(host, renderModel(menu.menu))) << host.layout();
    EXPECT_EQ(host.layout(),
              "Shortcuts & Gestures Enabled [x]\n---\nSnap Frontmost Window\n  Left Half\n  Right Half\n---\n"
              "Pomodoro stopped (inactive)\nStart Focus\n---\nUntil you turn it off\n---\nQuit\n");

    struct Step {
        const char* name;
        std::function<void(MenuSnapshot&)> edit;
        bool layoutSignal; // otherwise a properties signal
    };
    const std::vector<Step> steps{
        {"the timer starts", [](MenuSnapshot& m) {
             m.entries[4].title = "Focus — 25:00";
             m.entries[5].title = "Pause";
         }, false},
        {"shortcuts switched off", [](MenuSnapshot& m) { m.entries[0].isOn = false; }, false},
        {"a clipboard section appears",
         [](MenuSnapshot& m) {
             m.entries.insert(m.entries.begin() + 2, line("clipboard.item.1", "snake_case_name"));
             m.entries.insert(m.entries.begin() + 3, line("", "", MenuEntry::Kind::separator));
         },
         true},
        {"a line goes", [](MenuSnapshot& m) { m.entries.erase(m.entries.begin() + 9); }, true},
        {"a command is greyed", [](MenuSnapshot& m) { m.entries.back().isEnabled = false; }, false},
    };
    auto current = menu.menu;
    for (const auto& step : steps) {
        const int layoutsBefore = host.layoutUpdates, propertiesBefore = host.propertyUpdates;
        step.edit(current);
        menu.set(current);
        EXPECT_TRUE(hostReads(host, renderModel(current))) << step.name << "\n" << host.layout();
        if (step.layoutSignal) {
            EXPECT_TRUE(eventually([&] { return host.layoutUpdates > layoutsBefore; })) << step.name;
            EXPECT_EQ(host.propertyUpdates, propertiesBefore) << step.name;
        } else {
            EXPECT_TRUE(eventually([&] { return host.propertyUpdates > propertiesBefore; })) << step.name;
            EXPECT_EQ(host.layoutUpdates, layoutsBefore) << step.name;
        }
    }
    EXPECT_NE(host.layout().find("snake_case_name\n"), std::string::npos);
}

TEST_F(StatusNotifierItemTest, AClickThroughEventRunsTheCommandOnTheMainQueue) {
    FakeWatcher watcher(bus.address(), true);
    startTray();
    FakeHost host(bus.address(), tray->busName());
    ASSERT_TRUE(hostReads(host, renderModel(menu.menu)));

    host.click(host.ids.at("Start Focus"));
    // Nothing runs off the main queue.
    EXPECT_TRUE(menu.activated.empty());
    ASSERT_TRUE(eventually([&] {
        scheduler.runUntilIdle();
        return menu.activated.size() == 1;
    }));
    EXPECT_EQ(menu.activated, (std::vector<std::string>{"pomodoro.start"}));

    // A switch flips and the host sees its new state.
    host.click(host.ids.at("Shortcuts & Gestures Enabled"));
    auto expected = menu.menu;
    expected.entries[0].isOn = false;
    EXPECT_TRUE(hostReads(host, renderModel(expected)));

    // Lines that are not commands do nothing when clicked: a text line, a submenu, a divider.
    const auto before = menu.activated.size();
    host.click(host.ids.at("Pomodoro stopped"));
    host.click(host.ids.at("Snap Frontmost Window"));
    scheduler.runUntilIdle();
    EXPECT_EQ(menu.activated.size(), before);

    // Nested commands run too.
    host.click(host.ids.at("Right Half"));
    ASSERT_TRUE(eventually([&] {
        scheduler.runUntilIdle();
        return menu.activated.size() == before + 1;
    }));
    EXPECT_EQ(menu.activated.back(), "snap.rightHalf");
}

TEST_F(StatusNotifierItemTest, AHostAskingForAnItemThatIsGoneGetsAnErrorAndNothingRuns) {
    FakeWatcher watcher(bus.address(), true);
    startTray();
    FakeHost host(bus.address(), tray->busName());
    ASSERT_TRUE(hostReads(host, renderModel(menu.menu)));
    const auto stale = host.ids.at("Start Focus");

    auto shorter = menu.menu;
    shorter.entries.erase(shorter.entries.begin() + 5);
    menu.set(shorter);
    ASSERT_TRUE(hostReads(host, renderModel(shorter)));

    try {
        host.click(stale);
        FAIL() << "a stale id was accepted";
    } catch (const sdbus::Error& failure) {
        EXPECT_EQ(failure.getName(), "com.canonical.dbusmenu.Error.UnknownId");
    }
    EXPECT_TRUE(notes.waitFor("the tray host chose item " + std::to_string(stale) + ", which the menu no longer has; nothing ran"));
    // EventGroup: the good click runs, the stale one comes back as an error.
    std::vector<sdbus::Struct<std::int32_t, std::string, sdbus::Variant, std::uint32_t>> events{
        {stale, std::string("clicked"), sdbus::Variant(std::string()), 0u},
        {host.ids.at("Quit"), std::string("clicked"), sdbus::Variant(std::string()), 0u}};
    std::vector<std::int32_t> errors;
    host.menu->callMethod("EventGroup").onInterface(menuInterface).withArguments(events).storeResultsTo(errors);
    EXPECT_EQ(errors, (std::vector<std::int32_t>{stale}));
    ASSERT_TRUE(eventually([&] {
        scheduler.runUntilIdle();
        return !menu.activated.empty();
    }));
    EXPECT_EQ(menu.activated, (std::vector<std::string>{"quit"}));
    // Every event of a group stale: the whole call is an error.
    events.pop_back();
    EXPECT_THROW(host.menu->callMethod("EventGroup").onInterface(menuInterface).withArguments(events), sdbus::Error);

    // AboutToShow and layouts below a missing parent are refused the same way; known ids answer.
    EXPECT_THROW(host.menu->callMethod("AboutToShow").onInterface(menuInterface).withArguments(stale), sdbus::Error);
    bool needUpdate = true;
    host.menu->callMethod("AboutToShow").onInterface(menuInterface).withArguments(std::int32_t{0}).storeResultsTo(needUpdate);
    EXPECT_FALSE(needUpdate);
    std::vector<std::int32_t> updates, idErrors;
    host.menu->callMethod("AboutToShowGroup").onInterface(menuInterface).withArguments(std::vector<std::int32_t>{0, stale})
        .storeResultsTo(updates, idErrors);
    EXPECT_EQ(idErrors, (std::vector<std::int32_t>{stale}));
    EXPECT_THROW(host.menu->callMethod("GetLayout").onInterface(menuInterface).withArguments(stale, std::int32_t{-1},
                                                                                           std::vector<std::string>{}),
                 sdbus::Error);
    // The menu is whole after all of it.
    EXPECT_TRUE(hostReads(host, renderModel(shorter)));
}

TEST_F(StatusNotifierItemTest, PropertiesGroupsDepthAndTheItemsOwnProperties) {
    FakeWatcher watcher(bus.address(), true);
    menu.menu.label = "2,400 rpm";
    startTray();
    FakeHost host(bus.address(), tray->busName());
    ASSERT_TRUE(hostReads(host, renderModel(menu.menu)));

    // Depth 0: the root alone; depth 1: the top lines without their children.
    std::uint32_t revision = 0;
    Layout root;
    host.menu->callMethod("GetLayout").onInterface(menuInterface).withArguments(std::int32_t{0}, std::int32_t{0},
                                                                                 std::vector<std::string>{}).storeResultsTo(revision, root);
    EXPECT_TRUE(std::get<2>(root).empty());
    host.menu->callMethod("GetLayout").onInterface(menuInterface).withArguments(std::int32_t{0}, std::int32_t{1},
                                                                                 std::vector<std::string>{"label"}).storeResultsTo(revision, root);
    ASSERT_EQ(std::get<2>(root).size(), menu.menu.entries.size());
    auto snap = std::get<2>(root)[2].get<Layout>();
    EXPECT_TRUE(std::get<2>(snap).empty());
    // Only the property asked for comes back.
    EXPECT_EQ(std::get<1>(snap).size(), 1u);
    EXPECT_EQ(std::get<1>(snap).at("label").get<std::string>(), "Snap Frontmost Window");

    std::vector<sdbus::Struct<std::int32_t, Properties>> group;
    host.menu->callMethod("GetGroupProperties").onInterface(menuInterface)
        .withArguments(std::vector<std::int32_t>{host.ids.at("Quit"), 987654}, std::vector<std::string>{"label", "enabled"})
        .storeResultsTo(group);
    ASSERT_EQ(group.size(), 1u);
    EXPECT_EQ(std::get<1>(group[0]).at("label").get<std::string>(), "Quit");
    EXPECT_TRUE(std::get<1>(group[0]).at("enabled").get<bool>());

    auto property = [&](const char* name) { return host.itemProxy->getProperty(name).onInterface("org.kde.StatusNotifierItem"); };
    EXPECT_EQ(property("Title").get<std::string>(), "Tavrick — 2,400 rpm");
    EXPECT_EQ(property("Id").get<std::string>(), "tavrick");
    EXPECT_EQ(property("Status").get<std::string>(), "Active");
    EXPECT_TRUE(property("ItemIsMenu").get<bool>());
    EXPECT_EQ(std::string(property("Menu").get<sdbus::ObjectPath>()), "/MenuBar");
    auto pixmaps = property("IconPixmap").get<std::vector<sdbus::Struct<std::int32_t, std::int32_t, std::vector<std::uint8_t>>>>();
    ASSERT_FALSE(pixmaps.empty());
    for (const auto& pixmap : pixmaps) {
        EXPECT_EQ(std::get<2>(pixmap).size(), static_cast<std::size_t>(std::get<0>(pixmap)) * std::get<1>(pixmap) * 4);
    }
    EXPECT_EQ(host.menu->getProperty("Version").onInterface(menuInterface).get<std::uint32_t>(), 3u);

    // A new readout changes the title.
    auto changed = menu.menu;
    changed.label = "Focus 12:00";
    menu.set(changed);
    EXPECT_TRUE(eventually([&] { return property("Title").get<std::string>() == "Tavrick — Focus 12:00"; }));
}

TEST_F(StatusNotifierItemTest, ABusThatGoesAwayLeavesTheMenuWorkingOnTheTerminal) {
    FakeWatcher watcher(bus.address(), true);
    startTray();
    ASSERT_TRUE(eventually([&] { return watcher.registrations().size() == 1; }));
    watcher.connection.stop();
    bus.stop();
    ASSERT_TRUE(notes.waitFor("the session bus went away"));
    // The terminal face keeps choosing through the same source; the tray's updates go nowhere
    // and nothing fails.
    auto changed = menu.menu;
    changed.entries[0].isOn = false;
    menu.set(changed);
    EXPECT_TRUE(menu.activate("pomodoro.start"));
    loop->sync([] {});
    scheduler.runUntilIdle();
    EXPECT_EQ(menu.activated, (std::vector<std::string>{"pomodoro.start"}));
    tray.reset();
    // The source has no observer left from the tray.
    EXPECT_TRUE(menu.observers.empty());
}

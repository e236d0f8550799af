// The tray's costs: turning a menu snapshot into the host's layout, drawing the icon, and a
// host's GetLayout round trip over a private bus.
#include "CoreKit/ManualScheduler.h"
#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/DBusMenuLayout.h"
#include "Platform/DBus/StatusNotifierItem.h"
#include "Platform/DBus/TrayIcon.h"

#include <benchmark/benchmark.h>
#include <sdbus-c++/sdbus-c++.h>

#include <csignal>
#include <cstdio>

using namespace tavrick;

namespace {

// A full menu: every section, twenty clipboard items, a dozen network apps, a submenu of window
// commands.
MenuSnapshot bigMenu(int variant) {
    MenuSnapshot menu;
    auto add = [&](std::string id, std::string title, MenuEntry::Kind kind = MenuEntry::Kind::command) {
        MenuEntry entry;
        entry.id = std::move(id);
        entry.title = std::move(title);
        entry.kind = kind;
        menu.entries.push_back(std::move(entry));
    };
    add("master", "Shortcuts & Gestures Enabled", MenuEntry::Kind::toggle);
    MenuEntry snap;
    snap.id = "snap";
    snap.title = "Snap Frontmost Window";
    snap.kind = MenuEntry::Kind::submenu;
    for (int i = 0; i < 16; ++i) {
        MenuEntry child;
        child.id = "snap." + std::to_string(i);
        child.title = "Command " + std::to_string(i);
        snap.children.push_back(child);
    }
    menu.entries.push_back(snap);
    for (int i = 0; i < 20; ++i) add("clipboard.item." + std::to_string(i), "copied text number " + std::to_string(i));
    add("pomodoro.status", "Focus " + std::to_string(25 - variant % 25) + ":00", MenuEntry::Kind::label);
    for (int i = 0; i < 12; ++i) add("network.app." + std::to_string(i), "App " + std::to_string(i) + " · 3 connections");
    for (int i = 0; i < 40; ++i) add("misc." + std::to_string(i), "Line " + std::to_string(i));
    add("quit", "Quit");
    return menu;
}

void LayoutUpdateOfAFullMenu(benchmark::State& state) {
    DBusMenuLayout layout;
    int variant = 0;
    for (auto _ : state) {
        auto update = layout.update(bigMenu(++variant));
        benchmark::DoNotOptimize(update);
    }
}
BENCHMARK(LayoutUpdateOfAFullMenu);

void IconDraw(benchmark::State& state) {
    for (auto _ : state) {
        auto pixmap = TrayIcon::draw(static_cast<std::int32_t>(state.range(0)));
        benchmark::DoNotOptimize(pixmap.argb.data());
    }
}
BENCHMARK(IconDraw)->Arg(22)->Arg(64);

class StaticMenu final : public MenuSource {
public:
    MenuSnapshot snapshot() const override { return bigMenu(0); }
    bool activate(const std::string&) override { return true; }
    int addChangeObserver(std::function<void()>) override { return 1; }
    void removeChangeObserver(int) override {}
};

void HostGetLayoutRoundTrip(benchmark::State& state) {
    FILE* daemon = ::popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
    char address[512] = {0};
    long pid = 0;
    if (!daemon || !std::fgets(address, sizeof address, daemon) || std::fscanf(daemon, "%ld", &pid) != 1) {
        state.SkipWithError("dbus-daemon did not start");
        return;
    }
    ::pclose(daemon);
    std::string bus(address);
    bus.erase(bus.find_last_not_of('\n') + 1);
    {
        BusLoop loop;
        auto& connection = loop.adopt(sdbus::createSessionBusConnectionWithAddress(bus));
        ManualScheduler scheduler;
        StaticMenu menu;
        StatusNotifierItem tray(loop, connection, scheduler, [](const std::string&) {});
        tray.setSource(&menu);
        tray.start();
        auto host = sdbus::createSessionBusConnectionWithAddress(bus);
        auto proxy = sdbus::createProxy(*host, tray.busName(), StatusNotifierItem::menuPath);
        loop.sync([] {});
        for (auto _ : state) {
            std::uint32_t revision = 0;
            sdbus::Struct<std::int32_t, std::map<std::string, sdbus::Variant>, std::vector<sdbus::Variant>> root;
            proxy->callMethod("GetLayout").onInterface("com.canonical.dbusmenu")
                .withArguments(std::int32_t{0}, std::int32_t{-1}, std::vector<std::string>{}).storeResultsTo(revision, root);
            benchmark::DoNotOptimize(root);
        }
    }
    ::kill(static_cast<pid_t>(pid), SIGTERM);
}
BENCHMARK(HostGetLayoutRoundTrip)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();

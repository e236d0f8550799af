#include "CoreKit/EventTap.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace tavrick;
using namespace tavrick::testing;

TEST(SessionBridge, RequestsAreCheckedBeforeAnythingIsPosted) {
    SimulatedSession session;
    struct Case {
        const char* request;
        const char* answer;
    };
    const Case cases[] = {
        {"hello", "error unknown request\n"},
        {"key", "error expected: key <keyCode 0-65535> <modifiers>\n"},
        {"key 12", "error expected: key <keyCode 0-65535> <modifiers>\n"},
        {"key 70000 0", "error expected: key <keyCode 0-65535> <modifiers>\n"},
        {"key -1 0", "error expected: key <keyCode 0-65535> <modifiers>\n"},
        {"key 12 x", "error expected: key <keyCode 0-65535> <modifiers>\n"},
        {"key 12 1 2", "error too many arguments\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(SessionBridge::handle(session, c.request), c.answer) << c.request;
    ASSERT_TRUE(session.drain());
    EXPECT_TRUE(session.delivered().empty());

    session.setEventCreationAllowed(false);
    EXPECT_EQ(SessionBridge::handle(session, "key 12 1"), "error could not synthesise the event\n");
}

TEST(SessionBridge, AKeyFromAnotherProcessTravelsThroughTheTaps) {
    TempDir dir;
    SimulatedSession session;
    std::atomic<int> seen{0};
    std::atomic<std::uint64_t> flags{0};
    EventTap tap(session, "bridge-test", eventMaskBit(EventType::keyDown), TapOptions::active,
                 [&](EventType, const Event& event) -> std::optional<Event> {
                     ++seen;
                     flags = event.flags;
                     return std::nullopt;  // swallow the key-down
                 });
    tap.start();
    auto bridge = SessionBridge::listen(session, dir / "session.sock");
    ASSERT_TRUE(bridge);

    EXPECT_EQ(SessionBridge::sendKey(dir / "session.sock", 123, 12), std::nullopt);
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(seen.load(), 1);
    EXPECT_EQ(flags.load(), 0x40000u | 0x80000u);  // control and option
    ASSERT_EQ(session.delivered().size(), 1u);
    EXPECT_EQ(session.delivered()[0].type, EventType::keyUp);

    // A second listener on the same path stands aside for the live one.
    EXPECT_EQ(SessionBridge::listen(session, dir / "session.sock"), nullptr);
    bridge.reset();
    EXPECT_FALSE(std::filesystem::exists(dir / "session.sock"));
    EXPECT_EQ(SessionBridge::sendKey(dir / "session.sock", 1, 0), "no Tavrick is listening");
    tap.stop();
}

TEST(SessionBridge, ASocketLeftByAKilledRunIsReplaced) {
    TempDir dir;
    SimulatedSession session;
    // A killed run leaves its socket's name behind with nobody listening.
    writeFile(dir / "session.sock", "");
    auto bridge = SessionBridge::listen(session, dir / "session.sock");
    ASSERT_TRUE(bridge);
    EXPECT_EQ(SessionBridge::sendKey(dir / "session.sock", 1, 4), std::nullopt);
}

TEST(SessionBridge, PermissionAndActivateRequestsScriptTheDesktop) {
    SimulatedSession session;
    SimulatedDesktop desktop;
    const auto editor = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Text Editor"});
    desktop.addApplication({.pid = 502, .bundleID = "com.orvell.tavrick", .name = "Tavrick"});
    desktop.activate(editor);
    int changes = 0;
    desktop.setOnPermissionsChange([&] { ++changes; });

    const std::string usage =
        "error expected: permission <accessibility|inputMonitoring> <granted|denied|notDetermined>\n";
    struct Case {
        const char* request;
        std::string answer;
    };
    const Case cases[] = {
        {"permission accessibility denied", "ok\n"},
        {"permission inputMonitoring notDetermined", "ok\n"},
        {"permission accessibility maybe", usage},
        {"permission camera granted", usage},
        {"permission accessibility", usage},
        {"permission accessibility granted now", "error too many arguments\n"},
        {"activate com.orvell.tavrick", "ok\n"},
        {"activate com.example.Gone", "error no running application has the bundle id com.example.Gone\n"},
        {"activate", "error expected: activate <bundle id>\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(SessionBridge::handle(session, &desktop, c.request), c.answer) << c.request;
    EXPECT_EQ(desktop.accessibilityPermission(), SimulatedPermission::denied);
    EXPECT_EQ(desktop.listenAccess(), 2);
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(desktop.frontmostApplication()->bundleIdentifier, "com.orvell.tavrick");

    // A bridge without a desktop says so rather than pretending.
    EXPECT_EQ(SessionBridge::handle(session, "permission accessibility granted"),
              "error this session has no simulated desktop\n");
}

TEST(SessionBridge, APermissionSetFromAnotherProcessReachesTheDesktop) {
    TempDir dir;
    SimulatedSession session;
    SimulatedDesktop desktop;
    auto bridge = SessionBridge::listen(session, &desktop, dir / "s.sock");
    ASSERT_TRUE(bridge);
    EXPECT_EQ(SessionBridge::send(dir / "s.sock", "permission accessibility denied"), std::nullopt);
    EXPECT_FALSE(desktop.isAccessibilityTrusted());
    EXPECT_EQ(SessionBridge::send(dir / "s.sock", "permission accessibility sometimes"),
              "expected: permission <accessibility|inputMonitoring> <granted|denied|notDetermined>");
}

TEST(SessionBridge, ADragOnTheTitleBarMovesTheWindowWithThePointerAndMalformedDragsPostNothing) {
    SimulatedSession session;
    SimulatedDesktop desktop;
    const auto editor = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Text Editor"});
    const auto window = desktop.addWindow(editor, "Untitled", {{200, 120}, {800, 600}});
    desktop.activate(editor);
    desktop.setScreens({ScreenInfo{{{0, 0}, {1440, 900}}, {{0, 70}, {1440, 805}}}});

    const std::string usage = "error expected: drag <fromX> <fromY> <toX> <toY>\n";
    struct Case {
        const char* request;
        std::string answer;
    };
    const Case refused[] = {
        {"drag", usage},
        {"drag 1 2 3", usage},
        {"drag 1 2 3 4 5", usage},
        {"drag 1 2 x 4", usage},
        {"drag 1 2 3 nan", usage},
        {"drag 1 2 3 4px", usage},
    };
    for (const auto& c : refused) EXPECT_EQ(SessionBridge::handle(session, &desktop, c.request), c.answer) << c.request;
    EXPECT_EQ(SessionBridge::handle(session, "drag 1 2 3 4"), "error this session has no simulated desktop\n");
    ASSERT_TRUE(session.drain());
    EXPECT_TRUE(session.delivered().empty());

    // Requests count from the bottom-left, as the state file does: the title bar is y 752…780.
    // Pressed on content: the pointer moves, the window stays.
    EXPECT_EQ(SessionBridge::handle(session, &desktop, "drag 600 500 2 450"), "ok\n");
    EXPECT_EQ(desktop.windowFrame(window), (Rect{{200, 120}, {800, 600}}));
    // The last row of the title bar still takes the window along; the row below it does not.
    EXPECT_EQ(SessionBridge::handle(session, &desktop, "drag 600 752 700 752"), "ok\n");
    EXPECT_EQ(desktop.windowFrame(window), (Rect{{200, 120}, {800, 600}}));
    EXPECT_EQ(SessionBridge::handle(session, &desktop, "drag 600 752.5 0 452.5"), "ok\n");
    EXPECT_EQ(desktop.windowFrame(window), (Rect{{-400, 420}, {800, 600}}));
    EXPECT_TRUE(desktop.accessibilityWrites().empty()) << "the window manager's move is not the program's write";

    ASSERT_TRUE(session.drain());
    const auto delivered = session.delivered();
    ASSERT_EQ(delivered.size(), 3u * 14u);
    const auto& last = std::vector<Event>(delivered.end() - 14, delivered.end());
    EXPECT_EQ(last.front().type, EventType::leftMouseDown);
    EXPECT_EQ(last.front().location, (Point{600, 147.5}));
    for (std::size_t i = 1; i < 13; ++i) EXPECT_EQ(last[i].type, EventType::leftMouseDragged) << i;
    EXPECT_EQ(last[12].location, (Point{0, 447.5}));
    EXPECT_EQ(last.back().type, EventType::leftMouseUp);
    EXPECT_EQ(last.back().location, (Point{0, 447.5}));
}

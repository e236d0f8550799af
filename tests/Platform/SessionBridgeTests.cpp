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

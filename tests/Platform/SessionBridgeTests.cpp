#include "CoreKit/EventTap.h"
#include "Platform/Simulated/SessionBridge.h"
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

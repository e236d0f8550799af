// The watcher on a real tap thread of the simulated session: what it hears and what it says.
#include "Platform/Simulated/SimulatedSession.h"
#include "SelectionKit/SelectionWatcher.h"

#include <gtest/gtest.h>

#include <mutex>

namespace tavrick {
namespace {

TEST(SelectionWatcherTapTest, DragsShorterThanFourPointsAreClicksAndEverySignalIsDescribed) {
    SimulatedSession session;
    SelectionWatcher watcher(session);
    std::mutex lock;
    std::vector<std::string> heard;
    watcher.onPossibleSelection = [&](std::string description) {
        std::lock_guard guard(lock);
        heard.push_back("look " + description);
    };
    watcher.onDismiss = [&] {
        std::lock_guard guard(lock);
        heard.push_back("dismiss");
    };
    watcher.start();
    ASSERT_TRUE(watcher.isRunning());

    auto mouse = [&](EventType type, Point at, std::int64_t clicks = 1) {
        auto event = Event::mouse(type, at, 0);
        event.clickState = clicks;
        session.post(event);
    };
    mouse(EventType::leftMouseDown, {10, 10});
    mouse(EventType::leftMouseUp, {13, 10});  // 3 points: a click
    mouse(EventType::leftMouseDown, {10, 10});
    mouse(EventType::leftMouseUp, {10, 14});  // 4 points: a drag
    mouse(EventType::leftMouseUp, {10, 14}, 2);
    session.post(Event::keyboard(124, true, SelectionWatcher::shiftFlag));
    session.post(Event::keyboard(0, true, SelectionWatcher::commandFlag));
    session.post(Event::keyboard(8, true, SelectionWatcher::commandFlag));
    Event scroll;
    scroll.type = EventType::scrollWheel;
    session.post(scroll);
    ASSERT_TRUE(session.drain());

    std::lock_guard guard(lock);
    EXPECT_EQ(heard, (std::vector<std::string>{"dismiss", "dismiss", "look drag=4", "look drag=4", "look key=124 shift",
                                               "look key=0 cmd", "dismiss", "dismiss"}));
    // Listening only: every event reached the application.
    EXPECT_EQ(session.swallowedCount(), 0u);
}

TEST(SelectionWatcherTapTest, ARefusedTapFailsToStartAndCanStartLater) {
    SimulatedSession session;
    session.setTapCreationAllowed(false);
    SelectionWatcher watcher(session);
    EXPECT_THROW(watcher.start(), EventTapError);
    EXPECT_FALSE(watcher.isRunning());
    session.setTapCreationAllowed(true);
    watcher.start();
    EXPECT_TRUE(watcher.isRunning());
    watcher.stop();
    EXPECT_FALSE(watcher.isRunning());
}

} // namespace
} // namespace tavrick

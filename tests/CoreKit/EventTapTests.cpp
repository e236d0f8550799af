// An event tap lives on a real thread of its own, so these tests run real threads and wait for
// them with short, bounded waits.
#include "CoreKit/EventTap.h"
#include "CoreKit/SyntheticEvents.h"
#include "Platform/Simulated/SimulatedSession.h"

#include "Support/Eventually.h"
#include "Support/LogCapture.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <pthread.h>

#include <atomic>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <vector>

using namespace tavrick;
using tavrick::testing::eventually;
using tavrick::testing::LogCapture;

namespace {

constexpr EventMask keyMask = eventMaskBit(EventType::keyDown) | eventMaskBit(EventType::keyUp);

// Threads of this process whose system name is `name`.
int threadsNamed(const std::string& name) {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return -1;
    while (auto* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string line;
        std::getline(comm, line);
        if (line == name) ++count;
    }
    closedir(dir);
    return count;
}

// What the system shows for a tap thread's name: Linux keeps 15 characters, and we keep the tail.
std::string systemThreadName(const std::string& label) {
    auto full = "com.orvell.tavrick.eventtap." + label;
    return full.size() > 15 ? full.substr(full.size() - 15) : full;
}

std::string currentThreadName() {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

EventTap::Handler passThrough() {
    return [](EventType, const Event& event) -> std::optional<Event> { return event; };
}

} // namespace

TEST(EventTap, StartTwiceMakesOneThreadAndOneTap) {
    LogCapture log;
    SimulatedSession session;
    EventTap tap(session, "twice", keyMask, TapOptions::active, passThrough());
    tap.start();
    tap.start();
    EXPECT_TRUE(tap.isRunning());
    EXPECT_EQ(session.taps().size(), 1u);
    EXPECT_EQ(threadsNamed(systemThreadName("twice")), 1);
    EXPECT_EQ(log.count("core", "Event tap 'twice' started"), 1u);

    tap.stop();
    EXPECT_FALSE(tap.isRunning());
    EXPECT_TRUE(session.taps().empty());
    EXPECT_TRUE(eventually([] { return threadsNamed(systemThreadName("twice")) == 0; }));
    EXPECT_TRUE(eventually([&] { return log.contains("core", "Event tap 'twice' run loop exited"); }));
    EXPECT_TRUE(log.contains("core", "Event tap 'twice' stopped"));
}

TEST(EventTap, FailedStartThrowsTheUserFacingTextAndMayBeTriedAgain) {
    LogCapture log;
    SimulatedSession session;
    session.setTapCreationAllowed(false);
    EventTap tap(session, "refused", keyMask, TapOptions::active, passThrough());

    try {
        tap.start();
        FAIL() << "start() should have thrown";
    } catch (const EventTapError& error) {
        EXPECT_EQ(error.code(), EventTapError::Code::creationFailed);
        EXPECT_STREQ(error.what(), "Could not create the event tap. This usually means Input Monitoring or "
                                   "Accessibility permission has not been granted.");
    }
    EXPECT_FALSE(tap.isRunning());
    EXPECT_TRUE(session.taps().empty());
    EXPECT_TRUE(log.contains("core", "tapCreate failed for 'refused' — missing permission?"));
    EXPECT_FALSE(log.contains("core", "Event tap 'refused' started"));
    EXPECT_TRUE(eventually([] { return threadsNamed(systemThreadName("refused")) == 0; }));

    // The permission arrives; the same tap starts.
    session.setTapCreationAllowed(true);
    tap.start();
    EXPECT_TRUE(tap.isRunning());
    ASSERT_EQ(session.taps().size(), 1u);
    EXPECT_TRUE(session.taps()[0].enabled);
    EXPECT_TRUE(session.taps()[0].attached);
    EXPECT_TRUE(log.contains("core", "Event tap 'refused' started"));
}

TEST(EventTap, HandlerRunsOnTheTapThreadAndNothingSwallows) {
    SimulatedSession session;
    std::mutex mutex;
    std::vector<std::string> threadNames;
    std::vector<EventType> seen;
    EventTap tap(session, "swallow", keyMask, TapOptions::active, [&](EventType type, const Event& event) -> std::optional<Event> {
        std::lock_guard lock(mutex);
        threadNames.push_back(currentThreadName());
        seen.push_back(type);
        if (type == EventType::keyDown && event.keyCode == 1) return std::nullopt;
        return event;
    });
    tap.start();

    session.post(Event::keyboard(1, true));   // swallowed
    session.post(Event::keyboard(1, false));  // passes
    session.post(Event::keyboard(2, true));   // passes
    ASSERT_TRUE(session.drain());

    auto delivered = session.delivered();
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(delivered[0], Event::keyboard(1, false));
    EXPECT_EQ(delivered[1], Event::keyboard(2, true));
    EXPECT_EQ(session.swallowedCount(), 1u);
    EXPECT_EQ(tap.eventCount(), 3);

    std::lock_guard lock(mutex);
    EXPECT_EQ(seen, (std::vector<EventType>{EventType::keyDown, EventType::keyUp, EventType::keyDown}));
    for (auto& name : threadNames) EXPECT_EQ(name, systemThreadName("swallow"));
}

TEST(EventTap, SystemNoticesReEnableWithoutReachingTheHandler) {
    struct Case {
        SimulatedSession::TapNotice notice;
        const char* line;
    };
    const Case cases[] = {
        {SimulatedSession::TapNotice::timeout, "Event tap 'notice' disabled by timeout; re-enabling"},
        {SimulatedSession::TapNotice::userInput, "Event tap 'notice' disabled by user input; re-enabling"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.line);
        LogCapture log;
        SimulatedSession session;
        std::atomic<int> handled{0};
        EventTap tap(session, "notice", keyMask, TapOptions::active, [&](EventType, const Event& event) -> std::optional<Event> {
            ++handled;
            return event;
        });
        tap.start();
        auto handle = session.taps().at(0).handle;

        session.disableTap(handle, c.notice);
        ASSERT_TRUE(session.drain());
        EXPECT_TRUE(session.isEnabled(handle));
        EXPECT_EQ(handled.load(), 0);
        EXPECT_EQ(tap.eventCount(), 1);  // the notice is counted
        EXPECT_TRUE(log.contains("core", c.line));
        EXPECT_TRUE(log.contains("core", "Watchdog: tap 'notice' enabled=false events=1"));
        EXPECT_TRUE(log.contains("core", "Event tap 'notice' found disabled; re-enabling"));
    }
}

TEST(EventTap, WatchdogReEnablesATapDisabledWithoutANotice) {
    LogCapture log;
    SimulatedSession session;
    std::atomic<int> handled{0};
    EventTap tap(session, "watchdog", keyMask, TapOptions::active,
                 [&](EventType, const Event& event) -> std::optional<Event> {
                     ++handled;
                     return event;
                 },
                 0.02);
    tap.start();
    session.post(Event::keyboard(4, true));
    ASSERT_TRUE(session.drain());
    auto handle = session.taps().at(0).handle;

    // No notice reaches the tap, so only its watchdog can bring it back; wait for that to happen.
    session.disableTap(handle, SimulatedSession::TapNotice::none);
    ASSERT_TRUE(eventually([&] { return log.contains("core", "Event tap 'watchdog' found disabled; re-enabling"); }));
    ASSERT_TRUE(eventually([&] { return session.isEnabled(handle); }));
    EXPECT_TRUE(log.contains("core", "Watchdog: tap 'watchdog' enabled=false events=1"));
    EXPECT_FALSE(log.contains("core", "Event tap 'watchdog' disabled by timeout; re-enabling"));

    session.post(Event::keyboard(6, true));
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(handled.load(), 2);
    EXPECT_EQ(tap.eventCount(), 2);
}

TEST(EventTap, SlowHandlerIsDisabledByTheSessionAndComesBack) {
    LogCapture log;
    SimulatedSession session;
    session.setCallbackTimeout(0.05);
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<int> handled{0};
    EventTap tap(session, "slow", keyMask, TapOptions::active, [&, released](EventType, const Event&) -> std::optional<Event> {
        if (++handled == 1) released.wait();
        return std::nullopt;
    });
    tap.start();
    auto handle = session.taps().at(0).handle;

    session.post(Event::keyboard(7, true));
    // The session gives up on the tap and the key reaches the application after all.
    ASSERT_TRUE(eventually([&] { return session.delivered().size() == 1; }));

    release.set_value();
    ASSERT_TRUE(session.drain());
    EXPECT_TRUE(session.isEnabled(handle));
    EXPECT_TRUE(log.contains("core", "Event tap 'slow' disabled by timeout; re-enabling"));
    EXPECT_EQ(handled.load(), 1);

    // Back in the stream, the tap swallows again.
    session.post(Event::keyboard(8, true));
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(session.delivered().size(), 1u);
    EXPECT_EQ(handled.load(), 2);
}

TEST(EventTap, HandlerMayStopItsOwnTap) {
    LogCapture log;
    SimulatedSession session;
    EventTap* self = nullptr;
    std::atomic<bool> runningInside{true};
    EventTap tap(session, "selfstop", keyMask, TapOptions::active, [&](EventType, const Event&) -> std::optional<Event> {
        self->stop();
        runningInside = self->isRunning();
        return std::nullopt;
    });
    self = &tap;
    tap.start();

    session.post(Event::keyboard(9, true));
    ASSERT_TRUE(session.drain());
    EXPECT_FALSE(runningInside.load());
    EXPECT_FALSE(tap.isRunning());
    EXPECT_EQ(session.swallowedCount(), 1u);  // the answer it gave still counts
    EXPECT_TRUE(session.taps().empty());
    EXPECT_TRUE(eventually([&] { return log.contains("core", "Event tap 'selfstop' run loop exited"); }));
    EXPECT_TRUE(log.contains("core", "Event tap 'selfstop' stopped"));

    // Gone from the stream: the next key reaches the application.
    session.post(Event::keyboard(10, true));
    ASSERT_TRUE(session.drain());
    ASSERT_EQ(session.delivered().size(), 1u);
    EXPECT_EQ(session.delivered()[0].keyCode, 10);
}

TEST(EventTap, DroppingARunningTapTakesItOutOfTheStream) {
    SimulatedSession session;
    {
        EventTap tap(session, "dropped", keyMask, TapOptions::active,
                     [](EventType, const Event&) -> std::optional<Event> { return std::nullopt; });
        tap.start();
        EXPECT_EQ(session.taps().size(), 1u);
    }
    EXPECT_TRUE(session.taps().empty());
    session.post(Event::keyboard(11, true));
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(session.delivered().size(), 1u);
    EXPECT_TRUE(eventually([] { return threadsNamed(systemThreadName("dropped")) == 0; }));
}

TEST(SyntheticEvents, OnlyOurMarkIsOurs) {
    Event event = Event::keyboard(1, true);
    EXPECT_FALSE(SyntheticEvents::isOurs(event));
    SyntheticEvents::mark(event);
    EXPECT_TRUE(SyntheticEvents::isOurs(event));
    EXPECT_EQ(event.integerValueField(EventField::eventSourceUserData), 0x54415652);
    for (std::int64_t other : std::initializer_list<std::int64_t>{0, 0x54415651, 0x54415653, -0x54415652}) {
        event.setIntegerValueField(EventField::eventSourceUserData, other);
        EXPECT_FALSE(SyntheticEvents::isOurs(event)) << other;
    }
}

TEST(EventSystem, MaskBitsFollowTheEventTypeNumbers) {
    EXPECT_EQ(eventMaskBit(EventType::keyDown) | eventMaskBit(EventType::flagsChanged), 5120u);
    EXPECT_TRUE(eventMaskContains(5120, EventType::keyDown));
    EXPECT_FALSE(eventMaskContains(5120, EventType::keyUp));
    EXPECT_EQ(eventMaskBit(EventType::tapDisabledByTimeout), 0u);
    EXPECT_EQ(eventMaskBit(EventType::rightMouseDragged), 1u << 7);
}

TEST(EventSystem, IntegerFieldsReadWhatTheyWrite) {
    Event event;
    event.setIntegerValueField(EventField::keyboardEventKeycode, 0x10031);  // wider than 16 bits
    EXPECT_EQ(event.keyCode, 0x31);
    EXPECT_EQ(event.integerValueField(EventField::keyboardEventKeycode), 0x31);
    event.setIntegerValueField(EventField::keyboardEventAutorepeat, 1);
    EXPECT_TRUE(event.autorepeat);
    event.setIntegerValueField(EventField::mouseEventClickState, 2);
    EXPECT_EQ(event.integerValueField(EventField::mouseEventClickState), 2);
}

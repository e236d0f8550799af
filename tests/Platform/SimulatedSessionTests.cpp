// The simulated session delivers to taps on their own run-loop threads, so these tests run real
// threads; every wait is bounded and ends as soon as the threads are done.
#include "Platform/Simulated/SimulatedKeyboardLayout.h"
#include "Platform/Simulated/SimulatedSession.h"

#include "CoreKit/KeyCodes.h"
#include "CoreKit/ManualScheduler.h"

#include "Support/Eventually.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace tavrick;
using tavrick::testing::eventually;

namespace {

constexpr EventMask allKeys =
    eventMaskBit(EventType::keyDown) | eventMaskBit(EventType::keyUp) | eventMaskBit(EventType::flagsChanged);

// A run loop on a thread of its own, as a tap's thread has.
class LoopThread {
public:
    LoopThread() : loop_(std::make_shared<RunLoop>()), thread_([this] { loop_->run(); }) {}
    ~LoopThread() {
        loop_->stop();
        thread_.join();
    }
    const std::shared_ptr<RunLoop>& loop() const { return loop_; }
    std::thread::id id() const { return thread_.get_id(); }

private:
    std::shared_ptr<RunLoop> loop_;
    std::thread thread_;
};

// Records, across threads, what each named tap saw.
struct Journal {
    std::mutex mutex;
    std::vector<std::string> entries;
    void add(std::string entry) {
        std::lock_guard lock(mutex);
        entries.push_back(std::move(entry));
    }
    std::vector<std::string> all() {
        std::lock_guard lock(mutex);
        return entries;
    }
};

EventSystem::TapCallback recording(Journal& journal, std::string name,
                                   std::function<std::optional<Event>(const Event&)> answer = nullptr) {
    return [&journal, name, answer](EventType type, const Event& event) -> std::optional<Event> {
        journal.add(name + ":" + std::to_string(static_cast<std::uint32_t>(type)) + ":" + std::to_string(event.keyCode));
        return answer ? answer(event) : std::optional<Event>(event);
    };
}

TapHandle makeTap(SimulatedSession& session, TapOptions options, EventMask mask, EventSystem::TapCallback callback,
                  const LoopThread& thread) {
    auto handle = session.createTap(options, mask, std::move(callback));
    EXPECT_TRUE(handle.has_value());
    session.attach(*handle, thread.loop());
    return *handle;
}

} // namespace

TEST(SimulatedSession, NewestTapMeetsEventsFirstOnItsLoopsThreadAndTheApplicationLast) {
    SimulatedSession session;
    LoopThread first, second;
    Journal journal;
    std::atomic<bool> offItsThread{false};
    makeTap(session, TapOptions::active, allKeys, recording(journal, "older"), first);
    makeTap(session, TapOptions::active, allKeys, recording(journal, "newer", [&](const Event& event) {
        if (std::this_thread::get_id() != second.id()) offItsThread = true;
        return std::optional<Event>(event);
    }), second);
    std::vector<std::uint16_t> reached;
    session.setOnDeliver([&](const Event& event) { reached.push_back(event.keyCode); });

    session.post(Event::keyboard(1, true));
    session.post(Event::keyboard(1, false));
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(journal.all(), (std::vector<std::string>{"newer:10:1", "older:10:1", "newer:11:1", "older:11:1"}));
    EXPECT_EQ(reached, (std::vector<std::uint16_t>{1, 1}));
    ASSERT_EQ(session.delivered().size(), 2u);
    EXPECT_EQ(session.delivered()[1].type, EventType::keyUp);
    EXPECT_FALSE(offItsThread.load());
    auto taps = session.taps();
    ASSERT_EQ(taps.size(), 2u);
    EXPECT_GT(taps[0].handle.id, taps[1].handle.id);

    // Many posts keep their order, and clearing the record forgets them.
    for (std::uint16_t i = 0; i < 200; ++i) session.post(Event::keyboard(i, true));
    ASSERT_TRUE(session.drain());
    auto delivered = session.delivered();
    ASSERT_EQ(delivered.size(), 202u);
    for (std::uint16_t i = 0; i < 200; ++i) EXPECT_EQ(delivered[i + 2u].keyCode, i);
    session.clearDelivered();
    EXPECT_TRUE(session.delivered().empty());
    EXPECT_EQ(session.swallowedCount(), 0u);
}

TEST(SimulatedSession, WhatATapAnswersIsWhatTheNextOneSees) {
    struct Case {
        const char* name;
        TapOptions newerOptions;
        std::function<std::optional<Event>(const Event&)> newerAnswer;
        std::vector<std::string> expectedJournal;
        std::vector<std::uint16_t> expectedDelivered;
    };
    auto swallow = [](const Event&) -> std::optional<Event> { return std::nullopt; };
    auto remap = [](const Event& event) -> std::optional<Event> {
        Event changed = event;
        changed.keyCode = 42;
        return changed;
    };
    const Case cases[] = {
        {"active swallow stops it", TapOptions::active, swallow, {"newer:10:5"}, {}},
        {"active change travels on", TapOptions::active, remap, {"newer:10:5", "older:10:42"}, {42}},
        {"listen-only cannot swallow", TapOptions::listenOnly, swallow, {"newer:10:5", "older:10:5"}, {5}},
        {"listen-only cannot change", TapOptions::listenOnly, remap, {"newer:10:5", "older:10:5"}, {5}},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        SimulatedSession session;
        LoopThread first, second;
        Journal journal;
        makeTap(session, TapOptions::active, allKeys, recording(journal, "older"), first);
        makeTap(session, c.newerOptions, allKeys, recording(journal, "newer", c.newerAnswer), second);
        session.post(Event::keyboard(5, true));
        ASSERT_TRUE(session.drain());
        EXPECT_EQ(journal.all(), c.expectedJournal);
        std::vector<std::uint16_t> delivered;
        for (auto& event : session.delivered()) delivered.push_back(event.keyCode);
        EXPECT_EQ(delivered, c.expectedDelivered);
        EXPECT_EQ(session.swallowedCount(), c.expectedDelivered.empty() ? 1u : 0u);
    }
}

TEST(SimulatedSession, TapsOutsideTheStreamAreSkipped) {
    SimulatedSession session;
    LoopThread thread;
    Journal journal;
    auto swallow = [](const Event&) -> std::optional<Event> { return std::nullopt; };
    // Not interested in key-ups.
    makeTap(session, TapOptions::active, eventMaskBit(EventType::keyDown), recording(journal, "downs", swallow), thread);
    // Disabled.
    auto disabled = makeTap(session, TapOptions::active, allKeys, recording(journal, "disabled", swallow), thread);
    session.setEnabled(disabled, false);
    // Never attached to a run loop.
    ASSERT_TRUE(session.createTap(TapOptions::active, allKeys, recording(journal, "unattached", swallow)));
    // Attached, then detached.
    auto detached = makeTap(session, TapOptions::active, allKeys, recording(journal, "detached", swallow), thread);
    session.detach(detached);
    // Removed.
    auto removed = makeTap(session, TapOptions::active, allKeys, recording(journal, "removed", swallow), thread);
    session.removeTap(removed);

    session.post(Event::keyboard(6, false));
    session.post(Event::keyboard(6, true));
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(journal.all(), (std::vector<std::string>{"downs:10:6"}));
    ASSERT_EQ(session.delivered().size(), 1u);
    EXPECT_EQ(session.delivered()[0].type, EventType::keyUp);
    EXPECT_FALSE(session.isEnabled(removed));
    EXPECT_EQ(session.taps().size(), 4u);
}

TEST(SimulatedSession, RefusalsAreScriptable) {
    SimulatedSession session;
    session.setTapCreationAllowed(false);
    EXPECT_FALSE(session.createTap(TapOptions::active, allKeys, nullptr).has_value());
    EXPECT_TRUE(session.taps().empty());
    session.setTapCreationAllowed(true);
    EXPECT_TRUE(session.createTap(TapOptions::listenOnly, allKeys, nullptr).has_value());

    auto made = session.makeKeyboardEvent(1, true);
    ASSERT_TRUE(made.has_value());
    EXPECT_EQ(*made, Event::keyboard(1, true));
    EXPECT_EQ(session.makeKeyboardEvent(1, false)->type, EventType::keyUp);
    session.setEventCreationAllowed(false);
    EXPECT_FALSE(session.makeKeyboardEvent(1, true).has_value());
}

TEST(SimulatedSession, SlowTapIsDisabledToldAndPassedOver) {
    SimulatedSession session;
    session.setCallbackTimeout(0.05);
    LoopThread slowThread, fastThread;
    Journal journal;
    std::promise<void> release;
    auto released = release.get_future().share();
    // The older tap answers at once; the newer one hangs on its first key.
    makeTap(session, TapOptions::active, allKeys, recording(journal, "fast"), fastThread);
    std::atomic<int> calls{0};
    auto slow = makeTap(session, TapOptions::active, allKeys, [&, released](EventType type, const Event& event) -> std::optional<Event> {
        journal.add("slow:" + std::to_string(static_cast<std::uint32_t>(type)) + ":" + std::to_string(event.keyCode));
        if (++calls == 1) released.wait();
        return std::nullopt;
    }, slowThread);

    session.post(Event::keyboard(8, true));
    ASSERT_TRUE(eventually([&] { return session.delivered().size() == 1; }));
    EXPECT_FALSE(session.isEnabled(slow));
    EXPECT_EQ(session.delivered()[0].keyCode, 8);  // the late "swallow" does not count

    // The notice waits behind the slow callback on the tap's own thread.
    EXPECT_FALSE(session.drain(0.01));
    release.set_value();
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(journal.all(), (std::vector<std::string>{"slow:10:8", "fast:10:8", "slow:4294967294:0"}));
    EXPECT_EQ(session.swallowedCount(), 0u);
    EXPECT_FALSE(session.isEnabled(slow));  // nobody re-enabled it
}

TEST(SimulatedSession, DisablingOnDemandSendsTheAskedForNotice) {
    struct Case {
        SimulatedSession::TapNotice notice;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {SimulatedSession::TapNotice::none, {}},
        {SimulatedSession::TapNotice::timeout, {"t:4294967294:0"}},
        {SimulatedSession::TapNotice::userInput, {"t:4294967295:0"}},
    };
    for (auto& c : cases) {
        SimulatedSession session;
        LoopThread thread;
        Journal journal;
        auto tap = makeTap(session, TapOptions::active, eventMaskBit(EventType::keyDown), recording(journal, "t"), thread);
        session.disableTap(tap, c.notice);
        ASSERT_TRUE(session.drain());
        EXPECT_FALSE(session.isEnabled(tap));
        EXPECT_EQ(journal.all(), c.expected);
        session.setEnabled(tap, true);
        EXPECT_TRUE(session.isEnabled(tap));
    }
}

TEST(SimulatedSession, ATapThatLeavesBeforeItsCallbackRunsDoesNotHoldTheStream) {
    SimulatedSession session;
    session.setCallbackTimeout(30);  // the test would hang here if the session waited it out
    // A loop nobody runs yet: the callback cannot start.
    auto idle = std::make_shared<RunLoop>();
    Journal journal;
    auto tap = session.createTap(TapOptions::active, allKeys, recording(journal, "idle"));
    ASSERT_TRUE(tap);
    session.attach(*tap, idle);
    session.post(Event::keyboard(9, true));
    // The session is stuck waiting for a callback that cannot start...
    EXPECT_FALSE(session.drain(0.05));
    // ...until the tap leaves the stream.
    session.removeTap(*tap);
    ASSERT_TRUE(session.drain());
    ASSERT_EQ(session.delivered().size(), 1u);
    EXPECT_EQ(session.delivered()[0].keyCode, 9);
    EXPECT_TRUE(journal.all().empty());
}

TEST(SimulatedKeyboardLayout, FeedsTheLayoutCacheAndTellsOfChanges) {
    ManualScheduler scheduler;
    SimulatedKeyboardLayout layout;
    auto cache = KeyboardLayoutCache::make(layout.source(), scheduler);
    cache->startObserving();
    // No layout at all: nothing is known, and names fall through to the US ones.
    EXPECT_TRUE(cache->isLoaded());
    EXPECT_EQ(cache->character(0), std::nullopt);
    EXPECT_EQ(KeyCodes::name(0, cache.get()), "A");

    layout.select(SimulatedKeyboardLayout::frenchAZERTY());
    scheduler.runUntilIdle();
    EXPECT_EQ(cache->character(0), "Q");
    EXPECT_EQ(cache->character(19), "É");
    EXPECT_EQ(KeyCodes::name(12, cache.get()), "A");
    EXPECT_EQ(KeyCodes::name(49, cache.get()), "Space");

    layout.select(SimulatedKeyboardLayout::us());
    scheduler.runUntilIdle();
    EXPECT_EQ(cache->character(0), "A");
    EXPECT_EQ(cache->character(50), "`");
    EXPECT_EQ(layout.readCount(), 3u);

    layout.select(std::nullopt);
    scheduler.runUntilIdle();
    EXPECT_EQ(cache->character(0), std::nullopt);
}

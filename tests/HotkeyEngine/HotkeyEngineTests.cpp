#include "HotkeyEngine/HotkeyEngine.h"

#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/SyntheticEvents.h"
#include "Platform/Simulated/SimulatedSession.h"

#include "MappingFixtures.h"
#include "Support/Eventually.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <tuple>

using namespace tavrick;
using tavrick::testing::eventually;
using tavrick::testing::hotkeyMapping;
using tavrick::testing::LogCapture;
using tavrick::testing::TempDir;

namespace {

constexpr std::uint16_t keyS = 1, keyH = 4, keyL = 37;
const Modifiers option = Modifiers::option;

Event keyDown(std::uint16_t keyCode, std::uint64_t flags) {
    return Event::keyboard(keyCode, true, flags);
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The engine's handler driven directly, on virtual time.
class HotkeyEngineHandler : public ::testing::Test {
protected:
    TempDir temp;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(temp / "support", scheduler);
    SimulatedSession session;
    HotkeyEngine engine{session, scheduler, *log};
    std::vector<Mapping> fired;

    void SetUp() override {
        engine.setOnTrigger([this](const Mapping& mapping) { fired.push_back(mapping); });
    }
};

} // namespace

TEST_F(HotkeyEngineHandler, AMatchIsSwallowedAndFiresOnTheGlobalQueueUnderItsEffectiveName) {
    LogCapture lines;
    auto save = hotkeyMapping("Save", keyS, option);
    auto unnamed = hotkeyMapping("", keyL, Modifiers::command | Modifiers::option);
    engine.update({save, unnamed});

    EXPECT_EQ(engine.handle(EventType::keyDown, keyDown(keyS, EventFlags::option)), std::nullopt);
    // Not on the tap's thread: nothing has run until the queue runs.
    EXPECT_TRUE(fired.empty());
    scheduler.runUntilIdle();
    ASSERT_EQ(fired.size(), 1u);
    EXPECT_EQ(fired[0], save);
    EXPECT_TRUE(endsWith(log->contents(), " [hotkey] ⌥S fired 'Save'\n")) << log->contents();

    engine.handle(EventType::keyDown, keyDown(keyL, EventFlags::command | EventFlags::option));
    scheduler.runUntilIdle();
    EXPECT_TRUE(endsWith(log->contents(), " [hotkey] ⌥⌘L fired 'Left Half'\n")) << log->contents();
    EXPECT_TRUE(lines.contains("hotkey", "Fired 'Left Half'"));
}

TEST_F(HotkeyEngineHandler, EverythingElsePassesUntouched) {
    auto beforeAnyUpdate = keyDown(keyS, EventFlags::option);
    EXPECT_EQ(engine.handle(EventType::keyDown, beforeAnyUpdate), beforeAnyUpdate) << "an empty table lets keys by";
    engine.update({hotkeyMapping("Save", keyS, option)});
    Event marked = keyDown(keyS, EventFlags::option);
    SyntheticEvents::mark(marked);
    Event repeat = keyDown(keyS, EventFlags::option);
    repeat.autorepeat = true;
    struct Case {
        const char* what;
        EventType type;
        Event event;
    };
    const Case cases[] = {
        {"another key", EventType::keyDown, keyDown(keyH, EventFlags::option)},
        {"extra shift", EventType::keyDown, keyDown(keyS, EventFlags::option | EventFlags::shift)},
        {"no modifier", EventType::keyDown, keyDown(keyS, 0)},
        {"the key-up", EventType::keyUp, Event::keyboard(keyS, false, EventFlags::option)},
        {"flags changed", EventType::flagsChanged, keyDown(keyS, EventFlags::option)},
        {"our own keystroke", EventType::keyDown, marked},
    };
    for (auto& c : cases) EXPECT_EQ(engine.handle(c.type, c.event), c.event) << c.what;
    scheduler.runUntilIdle();
    EXPECT_TRUE(fired.empty());

    // Auto-repeat is not filtered: each repeat fires and is swallowed.
    EXPECT_EQ(engine.handle(EventType::keyDown, repeat), std::nullopt);
    EXPECT_EQ(engine.handle(EventType::keyDown, repeat), std::nullopt);
    scheduler.runUntilIdle();
    EXPECT_EQ(fired.size(), 2u);
}

TEST_F(HotkeyEngineHandler, ObserveKeysHearsEveryKeyDownButNotOurOwn) {
    engine.update({hotkeyMapping("Save", keyS, option)});
    std::vector<std::tuple<std::uint16_t, std::int64_t, bool>> heard;
    engine.setObserveKeys([&](std::uint16_t keyCode, Modifiers modifiers, bool matched) {
        heard.emplace_back(keyCode, modifiers.rawValue, matched);
    });
    Event marked = keyDown(keyS, EventFlags::option);
    SyntheticEvents::mark(marked);
    engine.handle(EventType::keyDown, keyDown(keyS, EventFlags::option | EventFlags::capsLock));
    engine.handle(EventType::keyDown, keyDown(keyH, EventFlags::shift));
    engine.handle(EventType::keyDown, marked);
    engine.handle(EventType::keyUp, Event::keyboard(keyS, false, EventFlags::option));
    EXPECT_EQ(heard, (std::vector<std::tuple<std::uint16_t, std::int64_t, bool>>{{keyS, 4, true}, {keyH, 2, false}}));

    engine.setObserveKeys(nullptr);
    engine.handle(EventType::keyDown, keyDown(keyH, 0));
    EXPECT_EQ(heard.size(), 2u);
}

TEST_F(HotkeyEngineHandler, UpdateSwapsTheTableAndLogsOneShadowLinePerUpdate) {
    LogCapture lines;
    auto first = hotkeyMapping("First", keyL, Modifiers::command | Modifiers::option);
    auto second = hotkeyMapping("Second", keyL, Modifiers::command | Modifiers::option);
    auto save = hotkeyMapping("Save", keyS, option);
    engine.update({first, second, save});
    engine.update({first, second, save});

    EXPECT_EQ(lines.count("hotkey", "Watching 2 hotkeys"), 2u);
    EXPECT_EQ(lines.count("hotkey", "Mapping 'Second' is shadowed by an earlier one on the same trigger"), 2u);
    EXPECT_EQ(lines.messages("hotkey").size(), 4u);
    EXPECT_EQ(engine.table().shadowed, (std::vector<Mapping>{second}));

    engine.handle(EventType::keyDown, keyDown(keyL, EventFlags::command | EventFlags::option));
    scheduler.runUntilIdle();
    ASSERT_EQ(fired.size(), 1u);
    EXPECT_EQ(fired[0].name, "First");

    // The first one disabled: the second takes over and nothing is shadowed.
    first.isEnabled = false;
    engine.update({first, second});
    EXPECT_TRUE(engine.table().shadowed.empty());
    EXPECT_TRUE(lines.contains("hotkey", "Watching 1 hotkeys"));
    EXPECT_EQ(engine.handle(EventType::keyDown, keyDown(keyS, EventFlags::option)), keyDown(keyS, EventFlags::option));
    engine.handle(EventType::keyDown, keyDown(keyL, EventFlags::command | EventFlags::option));
    scheduler.runUntilIdle();
    ASSERT_EQ(fired.size(), 2u);
    EXPECT_EQ(fired[1].name, "Second");
}

TEST_F(HotkeyEngineHandler, DebugLineIsWrittenOnlyWhenDebugIsOn) {
    engine.update({hotkeyMapping("Save", keyS, option)});
    {
        LogCapture lines(LogLevel::info);
        engine.handle(EventType::keyDown, keyDown(keyH, 0));
        EXPECT_TRUE(lines.messages("hotkey").empty());
    }
    LogCapture lines(LogLevel::debug);
    engine.handle(EventType::keyDown, keyDown(keyH, EventFlags::command));
    engine.handle(EventType::keyDown, keyDown(keyS, EventFlags::option));
    EXPECT_TRUE(lines.contains("hotkey", "key 4 modifiers=1 table=1 match=false"));
    EXPECT_TRUE(lines.contains("hotkey", "key 1 modifiers=4 table=1 match=true"));
}

TEST_F(HotkeyEngineHandler, UpdatesFromAnotherThreadNeverTearTheTable) {
    auto a = hotkeyMapping("A", keyS, option);
    auto b = hotkeyMapping("B", keyS, option);
    engine.update({a});
    std::atomic<bool> done{false};
    std::thread updater([&] {
        for (int i = 0; i < 300; ++i) engine.update({i % 2 ? a : b, hotkeyMapping("filler", keyH, option)});
        done = true;
    });
    int swallowed = 0, handled = 0;
    while (!done || handled < 300) {
        ++handled;
        if (!engine.handle(EventType::keyDown, keyDown(keyS, EventFlags::option))) ++swallowed;
    }
    updater.join();
    EXPECT_EQ(swallowed, handled);
    scheduler.runUntilIdle();
    for (auto& mapping : fired) EXPECT_TRUE(mapping.name == "A" || mapping.name == "B");
    EXPECT_EQ(fired.size(), static_cast<std::size_t>(handled));
}

// End to end through the simulated session, on real threads: the tap's own thread, the global
// queue's workers and the session's delivery thread.
class HotkeyEngineSession : public ::testing::Test {
protected:
    TempDir temp;
    DispatchScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(temp / "support", scheduler);
    SimulatedSession session;

    // Notes are written on the log's own thread; let them land before the scheduler goes away.
    void TearDown() override { log->flush(); }

    static std::string threadName() {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        return name;
    }
};

TEST_F(HotkeyEngineSession, APostedShortcutFiresOnTheGlobalQueueAndOnlyItsKeyUpReachesTheApplication) {
    HotkeyEngine engine(session, scheduler, *log);
    auto save = hotkeyMapping("Save", keyS, option);
    engine.update({save});
    std::promise<std::pair<Mapping, std::string>> firedOn;
    engine.setOnTrigger([&](const Mapping& mapping) { firedOn.set_value({mapping, threadName()}); });
    std::mutex seenMutex;
    std::vector<std::pair<std::uint16_t, std::string>> seen;
    engine.setObserveKeys([&](std::uint16_t keyCode, Modifiers, bool) {
        std::lock_guard lock(seenMutex);
        seen.emplace_back(keyCode, threadName());
    });
    engine.start();
    ASSERT_TRUE(engine.isRunning());

    auto down = session.makeKeyboardEvent(keyS, true);
    auto up = session.makeKeyboardEvent(keyS, false);
    ASSERT_TRUE(down && up);
    down->flags = up->flags = EventFlags::option;
    session.post(*down);
    session.post(*up);
    ASSERT_TRUE(session.drain());

    EXPECT_EQ(session.delivered(), (std::vector<Event>{*up}));
    EXPECT_EQ(session.swallowedCount(), 1u);
    auto result = firedOn.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    auto [mapping, firedThread] = result.get();
    EXPECT_EQ(mapping, save);
    EXPECT_EQ(firedThread, "tavrick.global");
    std::lock_guard lock(seenMutex);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].first, keyS);
    EXPECT_EQ(seen[0].second, "venttap.hotkeys");  // the tail of "com.orvell.tavrick.eventtap.hotkeys"
}

TEST_F(HotkeyEngineSession, TheEngineTapsKeyDownsAndModifierChangesActively) {
    HotkeyEngine engine(session, scheduler, *log);
    session.setTapCreationAllowed(false);
    EXPECT_THROW(engine.start(), EventTapError);
    EXPECT_FALSE(engine.isRunning());
    session.setTapCreationAllowed(true);
    engine.start();
    ASSERT_EQ(session.taps().size(), 1u);
    EXPECT_EQ(session.taps()[0].mask, 5120u);
    EXPECT_EQ(session.taps()[0].options, TapOptions::active);
}

TEST_F(HotkeyEngineSession, StoppedKeysFlowThroughAndTheTableSurvivesARestart) {
    HotkeyEngine engine(session, scheduler, *log);
    engine.update({hotkeyMapping("Save", keyS, option)});
    engine.start();
    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    EXPECT_TRUE(session.taps().empty());
    session.post(keyDown(keyS, EventFlags::option));
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(session.delivered().size(), 1u);

    engine.start();
    session.post(keyDown(keyS, EventFlags::option));
    ASSERT_TRUE(session.drain());
    EXPECT_EQ(session.delivered().size(), 1u);
    EXPECT_EQ(session.swallowedCount(), 1u);
}

TEST_F(HotkeyEngineSession, AHandlerThatStopsTheEngineDoesNotDeadlock) {
    HotkeyEngine engine(session, scheduler, *log);
    engine.update({hotkeyMapping("Save", keyS, option)});
    engine.setObserveKeys([&](std::uint16_t, Modifiers, bool) { engine.stop(); });
    engine.start();
    session.post(keyDown(keyS, EventFlags::option));
    session.post(keyDown(keyS, EventFlags::option));
    ASSERT_TRUE(session.drain());
    EXPECT_FALSE(engine.isRunning());
    // The first was matched (and swallowed) as the engine stopped; the second found no tap.
    EXPECT_EQ(session.swallowedCount(), 1u);
    EXPECT_EQ(session.delivered().size(), 1u);
}

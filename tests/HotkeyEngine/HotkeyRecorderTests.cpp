#include "HotkeyEngine/HotkeyRecorder.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

using namespace tavrick;

namespace {

constexpr std::uint16_t keyA = 0, keyK = 40, keyQ = 12, escape = 53, f5 = 96;

// A local event monitor that keeps its handlers so a test can feed them.
struct FakeMonitor {
    std::map<LocalEventMonitor::Token, LocalEventMonitor::Handler> handlers;
    std::vector<EventMask> masks;
    LocalEventMonitor::Token next = 1;
    int removed = 0;

    LocalEventMonitor port() {
        return LocalEventMonitor{
            [this](EventMask mask, LocalEventMonitor::Handler handler) {
                masks.push_back(mask);
                handlers.emplace(next, std::move(handler));
                return next++;
            },
            [this](LocalEventMonitor::Token token) {
                ++removed;
                handlers.erase(token);
            },
        };
    }
};

Event keyDown(std::uint16_t keyCode, std::uint64_t flags = 0) {
    return Event::keyboard(keyCode, true, flags);
}

Event flagsChanged(std::uint64_t flags) {
    Event event;
    event.type = EventType::flagsChanged;
    event.flags = flags;
    return event;
}

const HotkeySpec initial{keyK, Modifiers::command | Modifiers::option};

} // namespace

TEST(HotkeyRecorder, BeginInstallsOneMonitorAndAnyRecordingCountsEveryRecorder) {
    FakeMonitor monitor;
    HotkeyRecorder recorder(monitor.port(), std::nullopt, HotkeyPurpose::trigger);
    HotkeyRecorder second(monitor.port(), std::nullopt, HotkeyPurpose::keystroke);
    EXPECT_FALSE(HotkeyRecorder::isAnyRecording());
    recorder.begin();
    recorder.begin();
    second.begin();
    EXPECT_TRUE(recorder.isRecording());
    EXPECT_EQ(monitor.masks, (std::vector<EventMask>{5120, 5120}));
    recorder.cancel();
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_TRUE(HotkeyRecorder::isAnyRecording());
    second.consume(keyDown(keyA));  // captured, which ends it
    EXPECT_FALSE(HotkeyRecorder::isAnyRecording());
    EXPECT_TRUE(monitor.handlers.empty());
}

TEST(HotkeyRecorder, EscapeAloneCancelsAndKeepsWhatWasCaptured) {
    // Caps lock is not a modifier: Escape with it on still cancels.
    for (std::uint64_t flags : {std::uint64_t{0}, EventFlags::capsLock}) {
        FakeMonitor monitor;
        HotkeyRecorder recorder(monitor.port(), initial, HotkeyPurpose::trigger);
        int captures = 0;
        recorder.onCapture = [&](const HotkeySpec&) { ++captures; };
        recorder.begin();
        EXPECT_EQ(recorder.consume(keyDown(escape, flags)), std::nullopt);
        EXPECT_FALSE(recorder.isRecording());
        EXPECT_EQ(recorder.captured(), initial);
        EXPECT_EQ(captures, 0);
        EXPECT_EQ(monitor.removed, 1);
    }
}

TEST(HotkeyRecorder, EscapeWithAModifierIsACandidate) {
    FakeMonitor monitor;
    HotkeyRecorder recorder(monitor.port(), initial, HotkeyPurpose::trigger);
    std::vector<HotkeySpec> captures;
    recorder.onCapture = [&](const HotkeySpec& spec) {
        // Told after the recording has ended.
        EXPECT_FALSE(recorder.isRecording());
        captures.push_back(spec);
    };
    recorder.begin();
    EXPECT_EQ(recorder.consume(keyDown(escape, EventFlags::command)), std::nullopt);
    const HotkeySpec commandEscape{escape, Modifiers::command};
    EXPECT_EQ(recorder.captured(), commandEscape);
    EXPECT_EQ(captures, (std::vector<HotkeySpec>{commandEscape}));
    EXPECT_FALSE(recorder.isRecording());
}

TEST(HotkeyRecorder, AnInvalidCombinationKeepsRecordingUntilAValidOne) {
    FakeMonitor monitor;
    HotkeyRecorder recorder(monitor.port(), initial, HotkeyPurpose::trigger);
    std::vector<HotkeyValidation> told;
    auto observation = recorder.observeValidation([&](HotkeyValidation v) { told.push_back(v); });
    int captures = 0;
    recorder.onCapture = [&](const HotkeySpec&) { ++captures; };
    recorder.begin();

    EXPECT_EQ(recorder.consume(keyDown(keyA)), std::nullopt);
    EXPECT_EQ(recorder.validation(), HotkeyValidation::needsModifier);
    EXPECT_TRUE(recorder.isRecording());
    EXPECT_EQ(recorder.captured(), initial);

    EXPECT_EQ(recorder.consume(keyDown(keyQ, EventFlags::command)), std::nullopt);
    EXPECT_EQ(recorder.validation(), HotkeyValidation::reservedBySystem);
    EXPECT_TRUE(recorder.isRecording());
    EXPECT_EQ(captures, 0);

    EXPECT_EQ(recorder.consume(keyDown(keyA, EventFlags::control | EventFlags::shift | EventFlags::capsLock)),
              std::nullopt);
    EXPECT_EQ(recorder.validation(), HotkeyValidation::valid);
    EXPECT_EQ(recorder.captured(), (HotkeySpec{keyA, Modifiers::control | Modifiers::shift}));
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_EQ(captures, 1);
    EXPECT_EQ(told, (std::vector<HotkeyValidation>{HotkeyValidation::needsModifier,
                                                   HotkeyValidation::reservedBySystem, HotkeyValidation::valid}));
}

TEST(HotkeyRecorder, ModifierPressesAndKeyUpsNeverEndARecording) {
    FakeMonitor monitor;
    HotkeyRecorder recorder(monitor.port(), std::nullopt, HotkeyPurpose::trigger);
    recorder.begin();
    const Event events[] = {
        flagsChanged(EventFlags::command),
        flagsChanged(EventFlags::command | EventFlags::shift),
        Event::keyboard(keyA, false, EventFlags::command),
        flagsChanged(0),
    };
    for (auto& event : events) EXPECT_EQ(recorder.consume(event), std::nullopt);
    EXPECT_TRUE(recorder.isRecording());
    EXPECT_EQ(recorder.captured(), std::nullopt);
    EXPECT_EQ(recorder.validation(), HotkeyValidation::valid);
}

TEST(HotkeyRecorder, AKeystrokeMayBeAnyKeyAndAStandaloneTriggerNeedsNoModifier) {
    for (auto [purpose, key] : {std::pair{HotkeyPurpose::keystroke, keyA}, std::pair{HotkeyPurpose::trigger, f5}}) {
        FakeMonitor monitor;
        HotkeyRecorder recorder(monitor.port(), std::nullopt, purpose);
        EXPECT_EQ(recorder.consume(keyDown(key, EventFlags::command)), keyDown(key, EventFlags::command))
            << "not recording yet";
        recorder.begin();
        recorder.consume(keyDown(key));
        EXPECT_EQ(recorder.captured(), (HotkeySpec{key, Modifiers()}));
        EXPECT_FALSE(recorder.isRecording());
    }
}

TEST(HotkeyRecorder, TheMonitorFeedsConsumeAndLetsEventsByOnceTheRecorderIsGone) {
    FakeMonitor monitor;
    LocalEventMonitor::Handler handler;
    {
        HotkeyRecorder recorder(monitor.port(), std::nullopt, HotkeyPurpose::trigger);
        recorder.begin();
        ASSERT_EQ(monitor.handlers.size(), 1u);
        handler = monitor.handlers.begin()->second;
        EXPECT_EQ(handler(keyDown(keyA)), std::nullopt);
        EXPECT_EQ(recorder.validation(), HotkeyValidation::needsModifier);
        EXPECT_TRUE(HotkeyRecorder::isAnyRecording());
    }
    // Dropped while recording: the monitor was removed and the flag cleared.
    EXPECT_EQ(monitor.removed, 1);
    EXPECT_FALSE(HotkeyRecorder::isAnyRecording());
    EXPECT_EQ(handler(keyDown(keyA)), keyDown(keyA));
}

TEST(HotkeyRecorder, ClearForgetsTheCaptureAndTheVerdict) {
    FakeMonitor monitor;
    HotkeyRecorder recorder(monitor.port(), initial, HotkeyPurpose::trigger);
    recorder.begin();
    recorder.consume(keyDown(keyA));
    ASSERT_EQ(recorder.validation(), HotkeyValidation::needsModifier);
    recorder.clear();
    EXPECT_EQ(recorder.captured(), std::nullopt);
    EXPECT_EQ(recorder.validation(), HotkeyValidation::valid);
    EXPECT_TRUE(recorder.isRecording());  // clearing is not cancelling
}


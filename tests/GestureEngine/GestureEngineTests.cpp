#include "EngineFixture.h"
#include "TouchFixtures.h"

#include "Support/LogCapture.h"

#include <cmath>
#include <limits>
#include <atomic>
#include <thread>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// Three fingers held, then moved an eighth of the pad left in a quarter second, then lifted.
std::vector<TouchFrame> exactSwipeLeft() {
    return {fingers(0, 3), fingers(0.0625, 3), fingers(0.25, 3, 0.375), lifted(0.3125)};
}

const GestureSpec left3 = swipe(3, GestureDirection::left);

} // namespace

TEST_F(GestureEngineTest, TheFirstEnabledBindingFiresOnTheMainQueueAndLaterOnesAreShadowed) {
    LogCapture lines;
    const auto disabled = gestureMapping("Off", left3, false);
    const auto first = gestureMapping("First", left3);
    const auto second = gestureMapping("Second", left3, true, ActionSpec::toggleAwake());
    const auto tap = gestureMapping("", GestureSpec{4, GestureKind::tap, std::nullopt}, true, ActionSpec::toggleAwake());
    engine.update({disabled, first, second, tap});
    EXPECT_EQ(lines.count("gesture", "Gesture mapping 'Second' is shadowed by an earlier one"), 1u);
    EXPECT_TRUE(lines.contains("gesture", "Watching 2 gestures"));
    EXPECT_EQ(notes(), std::vector<std::string>{"watching 2: 3-finger swipe left -> Left Half; 4-finger tap -> Toggle Keep Awake"});

    for (const auto& frame : exactSwipeLeft()) engine.handle(frame);
    EXPECT_TRUE(fired.empty()) << "not before the main queue runs";
    scheduler.runUntilIdle();
    ASSERT_EQ(fired.size(), 1u);
    EXPECT_EQ(fired[0].name, "First");
    EXPECT_EQ(recognised, std::vector<GestureSpec>{left3});
    EXPECT_EQ(sessionLines(),
              std::vector<std::string>{"session counts=3x3 peak=3 dx=-0.125 dy=+0.000 dist=0.125 dur=0.250s vel=0.50 "
                                       "-> 3-finger swipe left -> ran 'First' (Left Half)"});
    EXPECT_TRUE(lines.contains("gesture", "Gesture fired 'First'"));

    engine.update({});
    EXPECT_EQ(notes().back(), "watching 0: none");
    EXPECT_EQ(lines.count("gesture", "Gesture mapping 'Second' is shadowed by an earlier one"), 1u);
}

TEST_F(GestureEngineTest, WhileSuspendedAGestureIsSeenRecognisedAndSuppressedButNotRun) {
    std::vector<double> seen;
    engine.setOnFrame([&](const TouchFrame& frame) { seen.push_back(frame.timestamp); });
    engine.update({gestureMapping("Back", left3)});
    engine.setSuspended(true);
    engine.setSuspended(true);
    for (const auto& frame : {fingers(0, 3), fingers(0.0625, 3), fingers(0.25, 3, 0.375)}) engine.handle(frame);
    EXPECT_TRUE(engine.isSuppressing()) << "an editor open on a bound gesture keeps the system out too";
    engine.handle(lifted(0.3125));
    scheduler.runUntilIdle();
    EXPECT_TRUE(fired.empty());
    EXPECT_EQ(recognised, std::vector<GestureSpec>{left3});
    EXPECT_EQ(seen, (std::vector<double>{0, 0.0625, 0.25, 0.3125})) << "the inspector sees every frame";
    engine.setSuspended(false);
    const auto all = notes();
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[1], "the gesture editor is open — still watching, not running");
    EXPECT_TRUE(all[2].ends_with("-> 3-finger swipe left -> matched 'Back' (Left Half), not run — the gesture editor is open"))
        << all[2];
    EXPECT_EQ(all[3], "running gestures again");
}

TEST_F(GestureEngineTest, TheSessionLineSaysWhatCameOfTheHand) {
    struct Case {
        const char* name;
        std::vector<TouchFrame> frames;
        std::optional<std::string> ending;  // nothing: no line at all
        std::vector<Mapping> mappings = {};
    };
    const Case cases[] = {
        {"an untitled mapping is named by its action alone", exactSwipeLeft(),
         "dur=0.250s vel=0.50 -> 3-finger swipe left -> ran 'Left Half'", {gestureMapping("", left3)}},
        {"a recognised gesture with no binding", exactSwipeLeft(), "-> 3-finger swipe left -> no mapping bound"},
        {"a two-finger scroll stays out of the log",
         {fingers(0, 2), fingers(0.1, 2), fingers(0.2, 2, 0.5, 0.3), fingers(0.3, 2, 0.5, 0.1), lifted(0.4)},
         std::nullopt},
        {"a hand that never held a count for two frames stays out",
         {fingers(0, 1), fingers(0.01, 3), fingers(0.02, 4), lifted(0.03)},
         std::nullopt},
        {"a four-finger hand that settles at three",
         {fingers(0, 4), fingers(0.01, 4), fingers(0.02, 4), fingers(0.03, 3), fingers(0.04, 3), fingers(0.1, 3),
          lifted(0.3)},
         "nothing recognised - hand held 4 fingers, then dropped to 3 — fingers lifting are the end of a gesture, not "
         "the start of one"},
        {"a hand that grows a finger",
         {fingers(0, 3), fingers(0.01, 3), fingers(0.02, 4), fingers(0.03, 4), lifted(0.04)},
         "nothing recognised - finger count changed 3->4 mid-gesture, which cancels"},
        {"a hand resting without moving",
         {fingers(0, 3), fingers(0.05, 3), fingers(0.6, 3), lifted(0.7)},
         "nothing recognised - moved 0.000, needs 0.080"},
        {"the recogniser's own reason comes first",
         {fingers(0, 3), fingers(0.0625, 3), fingers(1.0, 3, 0.375), lifted(1.1)},
         "nothing recognised - too slow — 0.12 of the pad per second"},
    };
    for (const auto& c : cases) {
        engine.update(c.mappings);
        const auto before = sessionLines().size();
        play(c.frames);
        const auto after = sessionLines();
        if (!c.ending) {
            EXPECT_EQ(after.size(), before) << c.name;
            continue;
        }
        ASSERT_EQ(after.size(), before + 1) << c.name;
        EXPECT_TRUE(after.back().ends_with(*c.ending)) << c.name << "\n" << after.back();
    }
    EXPECT_EQ(fired.size(), 1u);
}

TEST_F(GestureEngineTest, TheCountHistoryStopsAtTwelveChanges) {
    std::vector<TouchFrame> frames;
    double t = 0;
    for (int run = 0; run < 14; ++run) {
        const int count = run % 2 == 0 ? 3 : 4;
        frames.push_back(fingers(t += 0.01, count));
        frames.push_back(fingers(t += 0.01, count));
    }
    frames.push_back(fingers(t += 0.01, 5));
    frames.push_back(lifted(t += 0.01));
    play(frames);
    ASSERT_EQ(sessionLines().size(), 1u);
    EXPECT_TRUE(sessionLines()[0].starts_with(
        "session counts=3x2,4x2,3x2,4x2,3x2,4x2,3x2,4x2,3x2,4x2,3x2,4x4 peak=5 "))
        << sessionLines()[0];
}

TEST_F(GestureEngineTest, StartFailsWithoutATrackpadARestartWorksAndARefusedTapIsNoError) {
    LogCapture lines(LogLevel::notice);
    pad->setConnected(false);
    EXPECT_EQ(thrown([&] { engine.start(); }), "No trackpad was found.");
    EXPECT_FALSE(engine.isRunning());
    EXPECT_TRUE(session.taps().empty()) << "no suppression tap after a failed start";

    pad->setConnected(true);
    engine.restart();
    EXPECT_TRUE(engine.isRunning());
    engine.start();
    EXPECT_EQ(pad->startCount(), 1) << "a second start does not register again";
    ASSERT_EQ(session.taps().size(), 1u);
    EXPECT_EQ(session.taps()[0].mask, GestureEngine::suppressionMask);

    engine.stop();
    EXPECT_FALSE(engine.isRunning());
    EXPECT_TRUE(session.taps().empty());

    // A refused suppression tap is not an error: the pad is read all the same.
    session.setTapCreationAllowed(false);
    engine.start();
    EXPECT_TRUE(engine.isRunning());
    EXPECT_TRUE(lines.contains(
        "gesture",
        "Gesture suppression unavailable (Could not create the event tap. This usually means Input Monitoring or "
        "Accessibility permission has not been granted.); system gestures may also fire"));
}

TEST_F(GestureEngineTest, TheSuppressionTapSwallowsSystemGesturesFromAMatchUntilTheHandLifts) {
    engine.update({gestureMapping("Back", left3),
                   gestureMapping("Tap", GestureSpec{3, GestureKind::tap, std::nullopt}, true, ActionSpec::toggleAwake())});
    engine.start();
    Event swipeEvent;
    swipeEvent.type = static_cast<EventType>(31);
    auto systemGesture = [&] {
        session.clearDelivered();
        session.post(swipeEvent);
        EXPECT_TRUE(session.drain());
        return session.delivered().size();
    };

    EXPECT_EQ(systemGesture(), 1u) << "nothing matched yet";
    pad->play({fingers(0, 3), fingers(0.0625, 3), fingers(0.25, 3, 0.375)});
    EXPECT_TRUE(engine.isSuppressing());
    EXPECT_EQ(systemGesture(), 0u);
    pad->play({lifted(0.3125)});
    EXPECT_FALSE(engine.isSuppressing());
    EXPECT_EQ(systemGesture(), 1u);

    // A tap is recognised on the empty frame, just after that frame cleared the flag: it stays
    // set until the next empty frame, so the system does not act on the lift either.
    pad->play({fingers(1, 3), fingers(1.0625, 3), lifted(1.125)});
    EXPECT_TRUE(engine.isSuppressing());
    EXPECT_EQ(systemGesture(), 0u);
    pad->play({lifted(1.2)});
    EXPECT_FALSE(engine.isSuppressing());

    pad->play({fingers(2, 3), fingers(2.0625, 3), fingers(2.25, 3, 0.375)});
    ASSERT_TRUE(engine.isSuppressing());
    engine.stop();
    EXPECT_FALSE(engine.isSuppressing()) << "stopping never leaves the system's gestures swallowed";
    scheduler.runUntilIdle();
    EXPECT_EQ(fired.size(), 3u);
}

TEST_F(GestureEngineTest, BadFramesAreToldOnceAndNeverCrashOrHoldTheHand) {
    LogCapture lines(LogLevel::error);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    engine.update({gestureMapping("Back", left3)});

    auto poisoned = fingers(0.26, 3);
    poisoned.touches[1].x = nan;
    auto infinite = fingers(0.27, 3);
    infinite.touches[0].y = inf;
    // The swipe fires, then one finger's position turns unusable on two frames: the finger
    // counts as lifted, it is told once, and the lift still ends the suppression.
    play({fingers(0, 3), fingers(0.0625, 3), fingers(0.25, 3, 0.375), poisoned, infinite});
    EXPECT_TRUE(engine.isSuppressing());
    play({lifted(0.3)});
    EXPECT_EQ(lines.count("gesture", "The trackpad reported a contact with no usable position; it counts as lifted"), 1u);
    EXPECT_FALSE(engine.isSuppressing());
    EXPECT_EQ(fired.size(), 1u);

    // A frame whose time is not a number is dropped whole.
    engine.handle(fingers(nan, 3));
    EXPECT_TRUE(lines.contains("gesture", "Dropped a touch frame whose time is not a number"));

    // Time running backwards starts the contact over, with a line that says so.
    play({fingers(5, 3), fingers(5.0625, 3), fingers(4, 3), lifted(4.1)});
    EXPECT_TRUE(lines.contains("gesture", "Touch frames went back in time (4.000 after 5.062); the contact starts over"));

    // Zero fingers, over and over, cost nothing and say nothing.
    const auto before = notes().size();
    play({lifted(6), lifted(6.1), lifted(6.2)});
    EXPECT_EQ(notes().size(), before);
    EXPECT_FALSE(engine.isSuppressing());
}

TEST_F(GestureEngineTest, FramesBindingsAndTheSuppressionTapMeetOnlyUnderTheLock) {
    // The driver's thread, the main thread changing bindings, and the tap's reads, all at once.
    engine.start();
    const auto back = gestureMapping("Back", left3);
    std::atomic<bool> done{false};
    std::thread driver([&] {
        double t = 0;
        for (int hand = 0; hand < 300; ++hand) {
            for (const auto& frame : {fingers(t, 3), fingers(t + 0.0625, 3), fingers(t + 0.25, 3, 0.375), lifted(t + 0.3125)}) {
                pad->play({frame});
            }
            t += 0.5;
        }
        done = true;
    });
    std::thread binder([&] {
        for (int i = 0; !done; ++i) engine.update(i % 2 ? std::vector<Mapping>{back} : std::vector<Mapping>{});
    });
    Event systemSwipe;
    systemSwipe.type = static_cast<EventType>(31);
    while (!done) {
        session.post(systemSwipe);
        ASSERT_TRUE(session.drain());
    }
    driver.join();
    binder.join();
    // Every hand ended in a lift, so nothing is left swallowed whatever the bindings were.
    EXPECT_FALSE(engine.isSuppressing());
    scheduler.runUntilIdle();
    EXPECT_LE(fired.size(), 300u);
    EXPECT_EQ(sessionLines().size(), 300u) << "one line a hand, fired or not";
}

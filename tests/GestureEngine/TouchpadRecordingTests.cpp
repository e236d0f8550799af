#include "Platform/Linux/EvdevTouchAssembler.h"
#include "Platform/Linux/EvdevTouchpadSource.h"

#include "EngineFixture.h"
#include "TouchFixtures.h"

#include <linux/input-event-codes.h>

#include <fstream>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

TouchpadGeometry pad() {
    return TouchpadGeometry{{0, 1000}, {0, 500}, AxisRange{0, 100}, 3};
}

InputEvent abs(double t, std::uint16_t code, std::int32_t value) {
    return {t, EV_ABS, code, value};
}
InputEvent report(double t) {
    return {t, EV_SYN, SYN_REPORT, 0};
}

} // namespace

TEST(EvdevTouchAssembler, SlotsBecomeTouchesInPadUnitsWithYUp) {
    EvdevTouchAssembler assembler(pad());
    EXPECT_FALSE(assembler.feed(abs(1, ABS_MT_TRACKING_ID, 40)));
    assembler.feed(abs(1, ABS_MT_POSITION_X, 250));
    assembler.feed(abs(1, ABS_MT_POSITION_Y, 125));
    assembler.feed(abs(1, ABS_MT_PRESSURE, 50));
    assembler.feed(abs(1, ABS_MT_SLOT, 2));
    assembler.feed(abs(1, ABS_MT_TRACKING_ID, 41));
    assembler.feed(abs(1, ABS_MT_POSITION_X, 1000));
    assembler.feed(abs(1, ABS_MT_POSITION_Y, 500));
    assembler.feed({1, EV_KEY, BTN_TOUCH, 1});
    auto frame = assembler.feed(report(1.5));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->timestamp, 1.5);
    EXPECT_EQ(frame->touches, (std::vector<Touch>{{40, 0.25, 0.75, 0.5, true}, {41, 1.0, 0.0, 0.0, true}}));

    // A slot that lets go disappears; the others keep their last values.
    assembler.feed(abs(2, ABS_MT_SLOT, 0));
    assembler.feed(abs(2, ABS_MT_TRACKING_ID, -1));
    frame = assembler.feed(report(2));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->touches, (std::vector<Touch>{{41, 1.0, 0.0, 0.0, true}}));
}

TEST(EvdevTouchAssembler, DroppedEventsAreIgnoredUntilTheNextReportAndBadSlotsAreCounted) {
    EvdevTouchAssembler assembler(pad());
    assembler.feed(abs(1, ABS_MT_TRACKING_ID, 1));
    assembler.feed(abs(1, ABS_MT_POSITION_X, 100));
    assembler.feed(report(1));
    assembler.feed({2, EV_SYN, SYN_DROPPED, 0});
    assembler.feed(abs(2, ABS_MT_POSITION_X, 900));
    EXPECT_FALSE(assembler.feed(report(2))) << "the report that closes a drop makes no frame";
    auto frame = assembler.feed(report(3));
    ASSERT_TRUE(frame);
    EXPECT_DOUBLE_EQ(frame->touches.at(0).x, 0.1);

    for (int slot : {-1, 3, 64}) {
        assembler.feed(abs(4, ABS_MT_SLOT, slot));
        assembler.feed(abs(4, ABS_MT_TRACKING_ID, 9));
    }
    EXPECT_EQ(assembler.ignoredSlotEvents(), 3u);
    EXPECT_EQ(assembler.feed(report(4))->touches.size(), 1u);

    // A device that goes away mid-contact ends with an empty frame, so nothing stays held.
    const auto last = assembler.liftAll(5);
    EXPECT_TRUE(last.touches.empty());
    EXPECT_EQ(last.timestamp, 5);
    EXPECT_TRUE(assembler.feed(report(6))->touches.empty());
}

TEST(EvdevTouchAssembler, AnAxisWithNoSpanReadsAsZeroRatherThanDividingByIt) {
    EvdevTouchAssembler assembler(TouchpadGeometry{{5, 5}, {0, 0}, std::nullopt, 1});
    assembler.feed(abs(1, ABS_MT_TRACKING_ID, 1));
    assembler.feed(abs(1, ABS_MT_POSITION_X, 5));
    auto frame = assembler.feed(report(1));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->touches.at(0), (Touch{1, 0.0, 1.0, 1.0, true}));
}

TEST(TouchpadRecording, UnreadableLinesAreNamed) {
    const std::pair<const char*, const char*> cases[] = {
        {"E: 1.0 0003", "line 1 of the touchpad recording: expected time, type, code and value"},
        {"# geometry x 0\n", "line 1 of the touchpad recording: the x axis needs a minimum and a maximum"},
        {"# geometry z 0 1\n", "line 1 of the touchpad recording: unknown axis “z”"},
        {"# fine\nX: 1 2 3 4\n", "line 2 of the touchpad recording: expected “E:” or “#”"},
        {"E: 1.0 00g3 0000 0\n", "line 1 of the touchpad recording: the type is not hexadecimal"},
        {"E: 1.0 zz 0000 0\n", "line 1 of the touchpad recording: type and code must be hexadecimal"},
        {"# geometry slots 0\n", "line 1 of the touchpad recording: slots must be a count"},
    };
    for (const auto& [text, message] : cases) EXPECT_EQ(thrown([&] { TouchpadRecording::parse(text); }), message) << text;
}

TEST_F(GestureEngineTest, EachRecordedHandFiresItsMappingThroughTheTrackpad) {
    engine.update({
        gestureMapping("Back", swipe(3, GestureDirection::left)),
        gestureMapping("Mission", GestureSpec{4, GestureKind::tap, std::nullopt}),
        gestureMapping("Zoom", GestureSpec{3, GestureKind::pinch, GestureDirection::expand}),
        gestureMapping("Turn", GestureSpec{3, GestureKind::rotate, GestureDirection::expand}),
    });
    engine.start();
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"three-finger-swipe-left.txt", "-> 3-finger swipe left -> ran 'Back' (Left Half)"},
        {"four-finger-tap.txt", "-> 4-finger tap -> ran 'Mission' (Left Half)"},
        {"three-finger-pinch-out.txt", "-> 3-finger pinch expand -> ran 'Zoom' (Left Half)"},
        {"three-finger-rotate.txt", "-> 3-finger rotate expand -> ran 'Turn' (Left Half)"},
        {"two-finger-scroll.txt", std::nullopt},  // a scroll stays out of the log
    };
    double offset = 0;
    for (const auto& [file, line] : cases) {
        const auto before = sessionLines().size();
        auto frames = TouchpadRecording::parse(readFile(std::string(RECORDINGS_DIR) + "/" + file)).frames();
        // One after another on the same clock, as a user would make them.
        for (auto& frame : frames) frame.timestamp += offset;
        offset += 10;
        ASSERT_GT(frames.size(), 10u) << file;
        EXPECT_EQ(pad->play(frames), frames.size());
        const auto after = sessionLines();
        ASSERT_EQ(after.size(), before + (line ? 1 : 0)) << file;
        EXPECT_TRUE(!line || after.back().ends_with(*line)) << after.back();
        // A bound tap keeps the system's gestures out until the next empty frame.
        pad->play({lifted(frames.back().timestamp + 0.01)});
        EXPECT_FALSE(engine.isSuppressing()) << file;
    }
    EXPECT_EQ(fired.size(), 4u);
}

TEST(EvdevTouchpadSource, NoTouchpadAmongTheDevicesSaysWhy) {
    TempDir empty;
    std::string why;
    EXPECT_FALSE(EvdevTouchpadSource::find(why, empty.path()));
    EXPECT_EQ(why, "no input devices under " + empty.path().string());

    EXPECT_FALSE(EvdevTouchpadSource::find(why, empty / "missing"));
    EXPECT_TRUE(why.starts_with("cannot list " + (empty / "missing").string())) << why;

    // A file named like a device that is not one.
    std::ofstream(empty / "event0") << "not a device";
    EXPECT_FALSE(EvdevTouchpadSource::find(why, empty.path()));
    EXPECT_EQ(why, "no touchpad among 1 input device(s)");

    EvdevTouchpadSource source(empty / "event0");
    EXPECT_THROW(source.start(), TouchpadError);
    EXPECT_FALSE(source.isRunning());
}

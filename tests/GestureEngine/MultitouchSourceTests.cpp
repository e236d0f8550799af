#include "GestureEngine/MultitouchSource.h"

#include "EngineFixture.h"
#include "Platform/Linux/EvdevTouchAssembler.h"
#include "TouchFixtures.h"

#include "Support/LogCapture.h"

#include <dlfcn.h>

#include <cstring>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// One contact record as the trackpad service lays it out; every reserved byte is filled with
// noise so that a read at a wrong offset shows.
std::vector<std::byte> record(std::int32_t id, std::int32_t state, float x, float y, float pressure) {
    std::vector<std::byte> bytes(MultitouchSource::recordSize, std::byte{0xA5});
    auto put = [&](std::size_t offset, const auto& value) { std::memcpy(bytes.data() + offset, &value, sizeof value); };
    put(16, id);
    put(20, state);
    put(32, x);
    put(36, y);
    put(48, pressure);
    return bytes;
}

// The script of the stand-in library, found in it by name as the source finds its five.
struct FakeLibrary {
    void* handle = dlopen(FAKE_MT_LIBRARY, RTLD_NOW);
    template <class F>
    F get(const char* name) {
        return reinterpret_cast<F>(dlsym(handle, name));
    }
    void setDeviceCount(int count) { get<void (*)(int)>("fakeMTSetDeviceCount")(count); }
    void setRecording(const std::vector<TouchFrame>& frames) {
        std::vector<unsigned char> records;
        std::vector<std::int32_t> counts;
        std::vector<double> times;
        for (const auto& frame : frames) {
            for (const auto& touch : frame.touches) {
                auto bytes = record(touch.id, touch.isTouching ? 4 : 7, static_cast<float>(touch.x),
                                    static_cast<float>(touch.y), static_cast<float>(touch.pressure));
                for (auto b : bytes) records.push_back(static_cast<unsigned char>(b));
            }
            counts.push_back(static_cast<std::int32_t>(frame.touches.size()));
            times.push_back(frame.timestamp);
        }
        get<void (*)(const unsigned char*, const std::int32_t*, const double*, std::int32_t)>("fakeMTSetRecording")(
            records.data(), counts.data(), times.data(), static_cast<std::int32_t>(frames.size()));
    }
    void appendNullFrame(std::int32_t count, double time) {
        get<void (*)(std::int32_t, double)>("fakeMTAppendNullFrame")(count, time);
    }
    void wait() { get<void (*)()>("fakeMTWait")(); }
    int registrations() { return get<int (*)()>("fakeMTRegistrations")(); }
};

} // namespace

TEST(MultitouchRecord, FieldsAreReadAtTheirOffsetsAndOnlyStatesOneThreeAndFourAreTouching) {
    const auto bytes = record(7, 4, 0.25f, 0.75f, 0.5f);
    EXPECT_EQ(MultitouchSource::touch(bytes.data()), (Touch{7, 0.25, 0.75, 0.5, true}));
    for (std::int32_t state = -2; state <= 8; ++state) {
        const bool expected = state == 1 || state == 3 || state == 4;
        EXPECT_EQ(MultitouchSource::isTouchingState(state), expected) << state;
    }
    EXPECT_FALSE(MultitouchSource::isTouchingState(33));  // bit 1 of the mask again, but out of range
}

TEST(MultitouchRecord, ACountTheBufferCannotHoldReadsOnlyWholeRecords) {
    std::vector<std::byte> buffer;
    for (int i = 0; i < 3; ++i) {
        auto one = record(i, 4, 0.1f * i, 0.2f, 0.3f);
        buffer.insert(buffer.end(), one.begin(), one.end());
    }
    struct Case {
        std::size_t bytes;
        std::int32_t count;
        std::size_t touches;
        bool truncated;
    };
    const Case cases[] = {
        {buffer.size(), 3, 3, false}, {buffer.size(), 2, 2, false}, {buffer.size() - 1, 3, 2, true},
        {buffer.size(), 9, 3, true},  {95, 1, 0, true},              {buffer.size(), -4, 0, false},
    };
    for (const auto& c : cases) {
        bool truncated = false;
        auto touches = MultitouchSource::touches(std::span(buffer.data(), c.bytes), c.count, &truncated);
        EXPECT_EQ(touches.size(), c.touches) << c.bytes << " bytes, count " << c.count;
        EXPECT_EQ(truncated, c.truncated) << c.bytes << " bytes, count " << c.count;
        for (std::size_t i = 0; i < touches.size(); ++i) EXPECT_EQ(touches[i].id, static_cast<std::int32_t>(i));
    }
}

// The loader keeps its answer for a path as long as the process lives, so each run of these
// tests opens its library under a fresh path.
TEST(MultitouchLoader, AMissingLibraryIsFrameworkUnavailable) {
    LogCapture lines(LogLevel::error);
    TempDir dir;
    auto source = std::make_shared<MultitouchSource>(dir / "MultitouchSupport");
    EXPECT_EQ(thrown([&] { source->start(); }), "The system multitouch service could not be opened.");
    EXPECT_TRUE(lines.contains("gesture", "Could not open MultitouchSupport"));
    EXPECT_FALSE(source->isRunning());
}

TEST(MultitouchLoader, AMissingSymbolIsNamedAndTheSourceDoesNotStart) {
    LogCapture lines(LogLevel::error);
    TempDir dir;
    std::filesystem::create_symlink(FAKE_MT_LIBRARY_WITHOUT_STOP, dir / "MultitouchSupport");
    auto source = std::make_shared<MultitouchSource>(dir / "MultitouchSupport");
    EXPECT_THROW(source->start(), MultitouchError);
    EXPECT_TRUE(lines.contains("gesture", "MultitouchSupport is missing MTDeviceStop"));
    // The answer is kept: a second try does not look again.
    EXPECT_THROW(source->start(), MultitouchError);
    EXPECT_EQ(lines.count("gesture", "MultitouchSupport is missing MTDeviceStop"), 1u);
}

TEST(MultitouchLoader, AChangedLayoutIsTheUsersWords) {
    EXPECT_STREQ(MultitouchError(MultitouchError::Code::layoutChanged).what(),
                 "This version of macOS reports trackpad data in an unexpected format. Gestures are disabled; "
                 "keyboard shortcuts are unaffected.");
}

// The stand-in library is process-wide state, so its tests share one fixture that resets it.
class MultitouchPlayback : public GestureEngineTest {
protected:
    void SetUp() override {
        GestureEngineTest::SetUp();
        ASSERT_NE(fake.handle, nullptr) << dlerror();
        fake.setDeviceCount(1);
        fake.setRecording({});
    }
    void TearDown() override {
        fake.wait();
        fake.setDeviceCount(1);
    }
    FakeLibrary fake;
};

TEST_F(MultitouchPlayback, NoDevicesFailsUntilATrackpadIsAttached) {
    auto source = std::make_shared<MultitouchSource>(FAKE_MT_LIBRARY);
    for (int count : {-1, 0}) {  // no list at all, and an empty one
        fake.setDeviceCount(count);
        EXPECT_EQ(thrown([&] { source->start(); }), "No trackpad was found.") << count;
        EXPECT_FALSE(source->isRunning());
    }
    fake.setDeviceCount(1);
    const int before = fake.registrations();
    source->start();
    EXPECT_TRUE(source->isRunning());
    EXPECT_EQ(fake.registrations(), before + 1);
    source->stop();
    EXPECT_FALSE(source->isRunning());
}

TEST_F(MultitouchPlayback, RecordedContactsPlayedByTheLibraryFireTheirMapping) {
    const auto frames = TouchpadRecording::parse(readFile(RECORDINGS_DIR "/three-finger-swipe-left.txt")).frames();
    // Through the library's thread, its 96-byte records and the loader.
    auto source = std::make_shared<MultitouchSource>(FAKE_MT_LIBRARY);
    GestureEngine loaded(source, *log, session, scheduler);
    loaded.setOnTrigger([this](const Mapping& mapping) { fired.push_back(mapping); });
    loaded.update({gestureMapping("Back", swipe(3, GestureDirection::left))});
    fake.setRecording(frames);
    // An empty frame carried as a null pointer is still a lift.
    fake.appendNullFrame(3, frames.back().timestamp + 0.01);
    loaded.start();
    fake.wait();
    scheduler.runUntilIdle();
    ASSERT_EQ(fired.size(), 1u);
    EXPECT_EQ(fired[0].name, "Back");
    EXPECT_FALSE(loaded.isSuppressing());
    loaded.stop();
}

TEST_F(MultitouchPlayback, AFrameClaimingMoreContactsThanAnyPadIsCutAndToldOnce) {
    LogCapture lines(LogLevel::error);
    auto source = std::make_shared<MultitouchSource>(FAKE_MT_LIBRARY);
    std::vector<std::size_t> sizes;  // read only after the player is joined
    source->setOnFrame([&](const TouchFrame& frame) { sizes.push_back(frame.touches.size()); });
    TouchFrame crowded;
    crowded.timestamp = 1;
    for (int i = 0; i < 70; ++i) crowded.touches.push_back(Touch{i, 0.5, 0.5, 0.1, true});
    TouchFrame again = crowded;
    again.timestamp = 1.01;
    fake.setRecording({crowded, again, lifted(1.02)});
    fake.appendNullFrame(0, 1.03);
    source->start();
    fake.wait();
    source->stop();
    EXPECT_EQ(sizes, (std::vector<std::size_t>{64, 64, 0, 0}));
    EXPECT_EQ(lines.count("gesture", "Multitouch frame claims 70 contacts; reading the first 64"), 1u);
}

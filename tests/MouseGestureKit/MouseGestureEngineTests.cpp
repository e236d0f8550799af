#include "MouseGestureKit/MouseGestureEngine.h"

#include "CoreKit/ManualScheduler.h"
#include "CoreKit/SyntheticEvents.h"
#include "Platform/Simulated/SessionBridge.h"
#include "Platform/Simulated/SimulatedSession.h"

#include <gtest/gtest.h>

#include <mutex>

using namespace tavrick;

namespace {

using D = GestureDirection;

Mapping shape(std::string name, std::vector<D> strokes, std::optional<std::string> app = std::nullopt,
              bool enabled = true) {
    Mapping mapping;
    mapping.id = UUID::random();
    mapping.name = std::move(name);
    mapping.trigger = Trigger::mouseGesture(MouseGestureSpec{std::move(strokes)});
    mapping.action = ActionSpec::window(WindowCommand::leftHalf);
    mapping.isEnabled = enabled;
    if (app) mapping.scope = GestureScope::app(*app, *app);
    return mapping;
}

Event mouse(EventType type, double x, double y) {
    return Event::mouse(type, {x, y}, 1);
}

class MouseGestureEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine.setOnGesture([this](const Mapping& mapping) { fired.push_back(mapping.name); });
        engine.setOnNote([this](const std::string& note) {
            std::lock_guard lock(mutex);
            notes.push_back(note);
        });
    }

    // Drives the handler as the tap would, collecting what it passes on.
    std::vector<std::optional<Event>> draw(std::vector<Point> corners) {
        std::vector<std::optional<Event>> passed;
        passed.push_back(engine.handle(EventType::rightMouseDown, mouse(EventType::rightMouseDown, corners[0].x, corners[0].y)));
        for (std::size_t i = 1; i < corners.size(); ++i) {
            const Point a = corners[i - 1], b = corners[i];
            for (int s = 1; s <= 10; ++s) {
                const double t = s / 10.0;
                passed.push_back(engine.handle(EventType::rightMouseDragged,
                                               mouse(EventType::rightMouseDragged, a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t)));
            }
        }
        const Point end = corners.back();
        passed.push_back(engine.handle(EventType::rightMouseUp, mouse(EventType::rightMouseUp, end.x, end.y)));
        EXPECT_TRUE(session.drain());
        scheduler.runUntilIdle();
        return passed;
    }

    std::vector<std::string> takeNotes() {
        std::lock_guard lock(mutex);
        return std::exchange(notes, {});
    }

    ManualScheduler scheduler;
    SimulatedSession session;
    MouseGestureEngine engine{session, scheduler};
    std::vector<std::string> fired;
    std::mutex mutex;
    std::vector<std::string> notes;
};

} // namespace

TEST(MouseGestureMatch, AnApplicationsOwnBindingWinsOverTheSameShapeEverywhere) {
    const auto everywhere = shape("Everywhere", {D::left});
    const auto safari = shape("Safari back", {D::left}, "com.apple.Safari");
    const auto laterEverywhere = shape("Later", {D::left});
    const auto off = shape("Off", {D::left}, "com.apple.Safari", false);
    const std::vector<Mapping> mappings{off, everywhere, safari, laterEverywhere};
    struct Case {
        std::vector<D> strokes;
        std::optional<std::string> frontmost;
        std::optional<std::string> expected;
    };
    const Case cases[] = {
        {{D::left}, "com.apple.Safari", "Safari back"},
        {{D::left}, "org.mozilla.firefox", "Everywhere"},
        {{D::left}, std::nullopt, "Everywhere"},
        {{D::right}, "com.apple.Safari", std::nullopt},
        {{D::left, D::right}, "com.apple.Safari", std::nullopt},
    };
    for (const auto& c : cases) {
        auto found = MouseGestureEngine::match(c.strokes, mappings, c.frontmost);
        EXPECT_EQ(found ? std::optional(found->name) : std::nullopt, c.expected) << c.frontmost.value_or("none");
    }
    EXPECT_FALSE(MouseGestureEngine::match({D::left}, {safari}, std::nullopt)) << "no front app, no app scope";
}

TEST_F(MouseGestureEngineTest, ABoundShapeFiresOnTheMainQueueAndTheClickIsSwallowed) {
    engine.update({shape("Back", {D::up, D::left})});
    const auto passed = draw({{200, 200}, {200, 140}, {140, 140}});
    EXPECT_FALSE(passed.front()) << "the press is held";
    EXPECT_FALSE(passed.back()) << "the release of a bound shape is swallowed";
    for (std::size_t i = 1; i + 1 < passed.size(); ++i) EXPECT_TRUE(passed[i]) << "drags always pass";
    EXPECT_EQ(fired, std::vector<std::string>{"Back"});
    EXPECT_TRUE(session.delivered().empty()) << "no click put back";
    EXPECT_EQ(takeNotes(), std::vector<std::string>{"mouse gesture ↑← -> ran 'Back'"});
}

TEST_F(MouseGestureEngineTest, AnythingElseIsPutBackAsAClickAtThePress) {
    engine.update({shape("Back", {D::up, D::left})});
    const std::pair<const char*, std::vector<Point>> cases[] = {
        {"a click that did not move", {{300, 300}, {300, 300}}},
        {"a shape nobody bound", {{300, 300}, {300, 380}}},
    };
    for (const auto& [name, corners] : cases) {
        session.clearDelivered();
        const auto passed = draw(corners);
        EXPECT_FALSE(passed.back()) << name << ": the original release is swallowed";
        const auto delivered = session.delivered();
        ASSERT_EQ(delivered.size(), 2u) << name;
        EXPECT_EQ(delivered[0].type, EventType::rightMouseDown) << name;
        EXPECT_EQ(delivered[1].type, EventType::rightMouseUp) << name;
        for (const auto& event : delivered) {
            EXPECT_EQ(event.location, (Point{300, 300})) << name << ": where the user pressed";
            EXPECT_TRUE(SyntheticEvents::isOurs(event)) << name;
            EXPECT_EQ(event.buttonNumber, 1) << name;
            // The tap passes its own replay untouched, without tracking it.
            EXPECT_EQ(engine.handle(event.type, event), event) << name;
        }
        EXPECT_FALSE(engine.isHoldingPress()) << name;
    }
    EXPECT_TRUE(fired.empty());
}

TEST_F(MouseGestureEngineTest, AReplayThatCannotBeMadePassesTheReleaseOn) {
    engine.update({shape("Back", {D::left})});
    session.setEventCreationAllowed(false);
    const auto passed = draw({{50, 50}, {50, 50}});
    ASSERT_TRUE(passed.back());
    EXPECT_EQ(passed.back()->type, EventType::rightMouseUp);
    EXPECT_TRUE(session.delivered().empty()) << "neither half is posted";
    EXPECT_EQ(takeNotes(), std::vector<std::string>{"could not replay the right-click; passing it through"});
}

TEST_F(MouseGestureEngineTest, ASuspendedEngineTakesNothing) {
    engine.update({shape("Back", {D::left})});
    engine.setSuspended(true);
    engine.setSuspended(true);
    for (const auto& passed : draw({{100, 100}, {20, 100}})) EXPECT_TRUE(passed);
    EXPECT_TRUE(fired.empty());
    EXPECT_TRUE(engine.isSuspended());
    engine.setSuspended(false);
    EXPECT_EQ(takeNotes(), (std::vector<std::string>{"standing down while a gesture is recorded", "watching again"}));
}

TEST_F(MouseGestureEngineTest, AReleaseWhosePressWasNotTakenPassesUntouched) {
    engine.update({shape("Back", {D::left})});
    const Event up = mouse(EventType::rightMouseUp, 5, 5);
    EXPECT_EQ(engine.handle(EventType::rightMouseUp, up), up);
    // Stopped between press and release: the held press is dropped and its release passes.
    EXPECT_FALSE(engine.handle(EventType::rightMouseDown, mouse(EventType::rightMouseDown, 5, 5)));
    EXPECT_TRUE(engine.isHoldingPress());
    engine.stop();
    EXPECT_FALSE(engine.isHoldingPress()) << "stopping mid-press drops it";
    EXPECT_EQ(engine.handle(EventType::rightMouseUp, up), up) << "and the release passes as an unmatched up";
    const Event other = mouse(EventType::leftMouseDown, 1, 1);
    EXPECT_EQ(engine.handle(EventType::leftMouseDown, other), other);
}

TEST_F(MouseGestureEngineTest, TheTapExistsOnlyWhileSwitchedOnWithABinding) {
    EXPECT_FALSE(engine.isRunning());
    engine.update({shape("Back", {D::left})});
    EXPECT_FALSE(engine.isRunning()) << "the master switch is off";
    engine.setMasterEnabled(true);
    EXPECT_TRUE(engine.isRunning());
    ASSERT_EQ(session.taps().size(), 1u);
    EXPECT_EQ(session.taps()[0].mask, EventMask{152});
    engine.update({shape("Off", {D::left}, std::nullopt, false)});
    EXPECT_FALSE(engine.isRunning()) << "no enabled binding, no tap";
    engine.update({shape("Back", {D::left})});
    engine.setMasterEnabled(false);
    EXPECT_FALSE(engine.isRunning());
    EXPECT_TRUE(session.taps().empty());
    EXPECT_EQ(takeNotes(), (std::vector<std::string>{"mouse gestures watching", "mouse gestures stopped",
                                                      "mouse gestures watching", "mouse gestures stopped"}));

    session.setTapCreationAllowed(false);
    engine.setMasterEnabled(true);
    EXPECT_FALSE(engine.isRunning());
    EXPECT_EQ(takeNotes(), std::vector<std::string>{
                               "mouse gestures could not start: Could not create the event tap. This usually means "
                               "Input Monitoring or Accessibility permission has not been granted."});
}

TEST_F(MouseGestureEngineTest, ATapDisabledMidStrokeLeavesNothingStuck) {
    engine.setMasterEnabled(true);
    engine.update({shape("Back", {D::left})});
    ASSERT_EQ(session.taps().size(), 1u);
    const auto handle = session.taps()[0].handle;
    session.post(mouse(EventType::rightMouseDown, 100, 100));
    ASSERT_TRUE(session.drain());
    EXPECT_TRUE(engine.isHoldingPress());
    // The session turns the tap off; the release goes by unseen.
    session.disableTap(handle, SimulatedSession::TapNotice::timeout);
    session.post(mouse(EventType::rightMouseUp, 100, 100));
    ASSERT_TRUE(session.drain());
    // The tap re-enabled itself on the notice; the next press starts afresh and a click still
    // comes out as a click.
    session.clearDelivered();
    session.post(mouse(EventType::rightMouseDown, 30, 30));
    session.post(mouse(EventType::rightMouseUp, 30, 30));
    ASSERT_TRUE(session.drain());
    EXPECT_FALSE(engine.isHoldingPress());
    ASSERT_EQ(session.delivered().size(), 2u);
    EXPECT_EQ(session.delivered()[0].location, (Point{30, 30}));
}

// Through the session's real tap thread, as strokes from another process reach it.
TEST_F(MouseGestureEngineTest, StrokesFromAnotherProcessAreDrawnThroughTheTap) {
    engine.setMasterEnabled(true);
    engine.update({shape("Back", {D::up, D::left})});
    for (const char* request : {"stroke", "stroke up,sideways", "stroke up,down,left,right"}) {
        EXPECT_EQ(SessionBridge::handle(session, request),
                  "error expected: stroke <up|down|left|right,… at most three> or stroke click\n")
            << request;
    }
    EXPECT_EQ(SessionBridge::handle(session, "stroke up left"), "error too many arguments\n");
    ASSERT_TRUE(session.drain());
    EXPECT_TRUE(session.delivered().empty()) << "a refused request posts nothing";

    EXPECT_EQ(SessionBridge::handle(session, "stroke up,left"), "ok\n");
    ASSERT_TRUE(session.drain());
    scheduler.runUntilIdle();
    EXPECT_EQ(fired, std::vector<std::string>{"Back"});
    ASSERT_FALSE(session.delivered().empty());
    for (const auto& event : session.delivered()) EXPECT_EQ(event.type, EventType::rightMouseDragged) << "press and release taken";

    session.clearDelivered();
    EXPECT_EQ(SessionBridge::handle(session, "stroke click"), "ok\n");
    ASSERT_TRUE(session.drain());
    ASSERT_EQ(session.delivered().size(), 2u);
    EXPECT_EQ(session.delivered()[0].type, EventType::rightMouseDown);
    EXPECT_EQ(session.delivered()[1].type, EventType::rightMouseUp);
}

#include "CoreKit/ManualScheduler.h"
#include "PomodoroKit/PomodoroController.h"
#include "Support/LogCapture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

std::string name(PomodoroPhase phase) { return std::string(displayName(phase)); }

class PomodoroTest : public ::testing::Test {
protected:
    std::unique_ptr<PomodoroController> make(PomodoroConfig config = {}) {
        auto controller = std::make_unique<PomodoroController>(config, scheduler);
        controller->onPhaseEnded = [this](PomodoroPhase finished, PomodoroPhase next) {
            events.push_back("ended " + name(finished) + " → " + name(next));
        };
        controller->onRunStateChanged = [this](PomodoroPhase phase, bool running) {
            events.push_back(name(phase) + (running ? " running" : " stopped"));
        };
        return controller;
    }

    ManualScheduler scheduler;
    std::vector<std::string> events;
};

} // namespace

TEST(PomodoroCycle, BreaksFollowTheSessionCount) {
    struct Case {
        int sessionsBeforeLongBreak;
        std::vector<PomodoroPhase> breaks;
    };
    using enum PomodoroPhase;
    const std::vector<Case> cases = {
        {4, {shortBreak, shortBreak, shortBreak, longBreak, shortBreak, shortBreak, shortBreak, longBreak}},
        {0, {longBreak, longBreak, longBreak}},
        {-3, {longBreak, longBreak}},
        {1, {longBreak, longBreak}},
        {2, {shortBreak, longBreak, shortBreak, longBreak}},
    };
    for (const auto& c : cases) {
        PomodoroConfig config;
        config.sessionsBeforeLongBreak = c.sessionsBeforeLongBreak;
        int completed = 0;
        for (std::size_t i = 0; i < c.breaks.size(); ++i) {
            auto transition = PomodoroCycle::next(focus, completed, config);
            EXPECT_EQ(transition.phase, c.breaks[i]) << c.sessionsBeforeLongBreak << " after focus " << i + 1;
            EXPECT_EQ(transition.completedFocusSessions, completed + 1);
            completed = transition.completedFocusSessions;
            // A break always leads back to focus and counts nothing.
            EXPECT_EQ(PomodoroCycle::next(transition.phase, completed, config),
                      (PomodoroCycle::Transition{focus, completed}));
        }
    }
}

TEST(PomodoroConfig, DurationsCountAnythingBelowOneMinuteAsOne) {
    const PomodoroConfig config{.focusMinutes = 0, .shortBreakMinutes = -5, .longBreakMinutes = 30};
    EXPECT_EQ(config.duration(PomodoroPhase::focus), 60);
    EXPECT_EQ(config.duration(PomodoroPhase::shortBreak), 60);
    EXPECT_EQ(config.duration(PomodoroPhase::longBreak), 1800);
}

TEST(PomodoroConfig, JSONUsesTheFieldNames) {
    PomodoroConfig config;
    config.autoAdvance = false;
    EXPECT_EQ(toJSON(config).dump(),
              R"({"autoAdvance":false,"focusMinutes":25,"keepAwakeDuringFocus":true,"longBreakMinutes":15,)"
              R"("sessionsBeforeLongBreak":4,"shortBreakMinutes":5})");
    EXPECT_EQ(pomodoroConfigFromJSON(toJSON(config)), config);
    EXPECT_EQ(pomodoroConfigFromJSON(nlohmann::json::object()), PomodoroConfig{});
    EXPECT_FALSE(pomodoroConfigFromJSON(nlohmann::json::parse(R"({"focusMinutes": "25"})")));
    EXPECT_FALSE(pomodoroConfigFromJSON(nlohmann::json::parse(R"({"focusMinutes": 1e12})")));
    EXPECT_FALSE(pomodoroConfigFromJSON(nlohmann::json::parse(R"({"autoAdvance": 1})")));
}

TEST(PomodoroFormat, MinutesAndSecondsOfRoundedSeconds) {
    const std::vector<std::pair<double, std::string>> cases = {
        {0, "0:00"}, {59.4, "0:59"}, {59.5, "1:00"}, {1500, "25:00"}, {3725, "62:05"}, {-3, "0:00"}};
    for (const auto& [seconds, text] : cases) EXPECT_EQ(PomodoroController::format(seconds), text) << seconds;
}

TEST_F(PomodoroTest, AFullCycleRunsOnItsDeadlinesAndAdvancesByItself) {
    auto pomodoro = make({.focusMinutes = 1, .shortBreakMinutes = 1, .longBreakMinutes = 2, .sessionsBeforeLongBreak = 2});
    LogCapture capture;
    pomodoro->start();
    EXPECT_TRUE(capture.contains("pomodoro", "Pomodoro started: Focus"));
    scheduler.advance(59.5);
    EXPECT_EQ(pomodoro->displayString(), "0:01");
    EXPECT_NEAR(pomodoro->progress(), 59.5 / 60, 1e-9);
    scheduler.advance(0.5);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::shortBreak);
    EXPECT_TRUE(pomodoro->isRunning().get());
    scheduler.advance(60);   // the break
    scheduler.advance(60);   // focus 2
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::longBreak);
    EXPECT_EQ(pomodoro->completedFocusSessions().get(), 2);
    // A phase that ends hands straight on to the next start: no stop is announced between them.
    EXPECT_EQ(events, (std::vector<std::string>{"Focus running", "ended Focus → Short Break", "Short Break running",
                                                "ended Short Break → Focus", "Focus running",
                                                "ended Focus → Long Break", "Long Break running"}));
    // Across a sleep the wall clock passes the deadline with no tick; the first tick after waking ends the phase.
    scheduler.manualClock().setWall(scheduler.clock().now() + 3600);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::longBreak);
    scheduler.advance(0.5);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::focus);
}

TEST_F(PomodoroTest, SkippingCountsNothingAndStartsNothing) {
    auto pomodoro = make();
    pomodoro->start();
    scheduler.advance(100);
    events.clear();
    pomodoro->skip();
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::shortBreak);
    EXPECT_EQ(pomodoro->completedFocusSessions().get(), 0);
    EXPECT_FALSE(pomodoro->isRunning().get());
    EXPECT_EQ(pomodoro->remaining().get(), 300);
    // The run state is not announced by a skip; the coordinator's keep-awake link only hears
    // starts, pauses and stops.
    EXPECT_TRUE(events.empty());
    scheduler.advance(1000);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::shortBreak);
}

TEST_F(PomodoroTest, PauseAndStartResumeFromWhatWasLeftAndStartWhileRunningChangesNothing) {
    auto pomodoro = make();
    pomodoro->start();
    scheduler.advance(100);
    const auto timers = scheduler.pendingTimers();
    pomodoro->start();
    EXPECT_EQ(scheduler.pendingTimers(), timers);
    pomodoro->pause();
    EXPECT_EQ(pomodoro->remaining().get(), 1400);
    scheduler.advance(500);
    EXPECT_EQ(pomodoro->remaining().get(), 1400);
    pomodoro->toggle();
    scheduler.advance(1399.5);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::focus);
    scheduler.advance(0.5);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::shortBreak);
    EXPECT_EQ(events, (std::vector<std::string>{"Focus running", "Focus stopped", "Focus running",
                                                "ended Focus → Short Break", "Short Break running"}));
}

TEST_F(PomodoroTest, IndefiniteFocusCountsUpAndStopResetsAndALengthChangesOnlyWhileIdle) {
    auto pomodoro = make();
    pomodoro->startIndefiniteFocus();
    scheduler.advance(7200);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::focus);
    EXPECT_EQ(pomodoro->elapsed().get(), 7200);
    EXPECT_EQ(pomodoro->displayString(), "120:00");
    pomodoro->pause();
    EXPECT_EQ(pomodoro->remaining().get(), 1500);  // untouched while open-ended
    pomodoro->stop();
    EXPECT_FALSE(pomodoro->isIndefinite().get());
    EXPECT_EQ(pomodoro->elapsed().get(), 0);
    EXPECT_EQ(pomodoro->displayString(), "25:00");
    // Stopping an idle timer says nothing.
    EXPECT_EQ(events, (std::vector<std::string>{"Focus running", "Focus stopped"}));

    // A changed length shows at once only while idle.
    pomodoro->setConfig({.focusMinutes = 50});
    EXPECT_EQ(pomodoro->remaining().get(), 3000);
    EXPECT_EQ(pomodoro->progress(), 0);
    pomodoro->start();
    scheduler.advance(1500);
    EXPECT_DOUBLE_EQ(pomodoro->progress(), 0.5);
    pomodoro->setConfig({.focusMinutes = 5});
    EXPECT_EQ(pomodoro->remaining().get(), 1500);
}

TEST_F(PomodoroTest, WithoutAutoAdvanceTheNextPhaseWaitsAndResetClearsTheCount) {
    auto pomodoro = make({.focusMinutes = 1, .autoAdvance = false});
    pomodoro->start();
    scheduler.advance(60);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::shortBreak);
    EXPECT_FALSE(pomodoro->isRunning().get());
    EXPECT_EQ(pomodoro->remaining().get(), 300);
    EXPECT_EQ(scheduler.pendingTimers(), 0u);
    EXPECT_EQ(pomodoro->completedFocusSessions().get(), 1);
    pomodoro->start();
    pomodoro->reset();
    EXPECT_EQ(pomodoro->completedFocusSessions().get(), 0);
    EXPECT_EQ(pomodoro->phase().get(), PomodoroPhase::focus);
    EXPECT_FALSE(pomodoro->isRunning().get());

    pomodoro->startFocus(static_cast<int>(PomodoroLength::ten));
    EXPECT_EQ(pomodoro->config().get().focusMinutes, 10);
    EXPECT_EQ(pomodoro->remaining().get(), 600);
    EXPECT_TRUE(pomodoro->isRunning().get());
}

#include "AwakeKit/AwakeController.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/Simulated/InMemoryPowerAssertions.h"
#include "Support/LogCapture.h"

#include <gtest/gtest.h>

#include <map>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// Processes a test starts and ends by hand; exits are reported on the thread that ends them, as
// a watcher thread would.
struct FakeProcesses : ProcessWatcher {
    std::map<std::string, Instance> running;
    std::map<pid_t, std::function<void()>> watchers;
    int watchesEnded = 0;

    struct FakeWatch : Watch {
        FakeProcesses* owner;
        pid_t pid;
        FakeWatch(FakeProcesses* o, pid_t p) : owner(o), pid(p) {}
        ~FakeWatch() override { owner->watchers.erase(pid), ++owner->watchesEnded; }
    };

    std::optional<Instance> find(const std::string& bundleID) override {
        auto found = running.find(bundleID);
        return found == running.end() ? std::nullopt : std::optional(found->second);
    }
    std::unique_ptr<Watch> watchExit(const Instance& instance, std::function<void()> onExit) override {
        watchers[instance.pid] = std::move(onExit);
        return std::make_unique<FakeWatch>(this, instance.pid);
    }
};

class AwakeTest : public ::testing::Test {
protected:
    ManualScheduler scheduler;
    InMemoryPowerAssertions assertions;
    FakeProcesses processes;
    std::unique_ptr<AwakeController> awake = std::make_unique<AwakeController>(
        assertions, processes, scheduler, "Tavrick", LocalCalendar{"UTC", "en_US"});
    LogCapture capture;
};

} // namespace

TEST(AwakeFormat, HoursOnlyFromAnHourOn) {
    const std::vector<std::pair<double, std::string>> cases = {
        {0, "0:00"}, {59.4, "0:59"}, {3599.4, "59:59"}, {3599.5, "1:00:00"}, {3725, "1:02:05"}, {36000, "10:00:00"}};
    for (const auto& [seconds, text] : cases) EXPECT_EQ(AwakeController::format(seconds), text) << seconds;
}

TEST(AwakeModels, SessionDescriptionsAndAssertionTypes) {
    const LocalCalendar utc{"UTC", "en_US"};
    // 2025-11-16 14:05 UTC
    EXPECT_EQ(AwakeSession::until(1763301900).description(utc), "Until 2:05\u202fPM");
    EXPECT_EQ(AwakeSession::until(1763301900).description({"UTC", "de_DE"}), "Until 14:05");
    EXPECT_EQ(AwakeSession::whileAppRunning("firefox", "Firefox").description(utc), "While Firefox is running");
    EXPECT_EQ(AwakeSession::indefinite().description(utc), "Indefinitely");
    EXPECT_EQ(assertionType(AwakeMode::keepDisplayOn), "PreventUserIdleDisplaySleep");
    EXPECT_EQ(awakeModeFromRaw("allowDisplaySleep"), AwakeMode::allowDisplaySleep);
    EXPECT_EQ(awakeModeFromRaw("keepdisplayon"), std::nullopt);
}

TEST_F(AwakeTest, ToggleStartsAnIndefiniteSessionInTheLastModeAndStopsIt) {
    awake->start(AwakeMode::allowDisplaySleep, AwakeSession::indefinite());
    awake->stop();
    awake->toggle();
    EXPECT_EQ(awake->mode().get(), AwakeMode::allowDisplaySleep);
    EXPECT_EQ(awake->session().get(), AwakeSession::indefinite());
    ASSERT_EQ(assertions.held().size(), 1u);
    EXPECT_EQ(assertions.held().begin()->second,
              (std::pair<std::string, std::string>{"PreventUserIdleSystemSleep", "Tavrick: Indefinitely"}));
    awake->toggle();
    EXPECT_FALSE(awake->isActive().get());
    EXPECT_TRUE(assertions.held().empty());
    EXPECT_EQ(capture.messages("awake"),
              (std::vector<std::string>{"Awake assertion 1 held: Tavrick: Indefinitely", "Released awake assertion 1",
                                        "Awake assertion 2 held: Tavrick: Indefinitely", "Released awake assertion 2"}));
}

TEST_F(AwakeTest, TimedSessionsCountAgainstTheDateAndAreReplacedWhole) {
    // A new session replaces the old one, its assertion and its timer.
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::until(scheduler.clock().now() + 60));
    awake->start(AwakeMode::allowDisplaySleep, AwakeSession::indefinite());
    EXPECT_EQ(assertions.held().size(), 1u);
    EXPECT_EQ(awake->remaining().get(), std::nullopt);
    scheduler.advance(120);
    EXPECT_TRUE(awake->isActive().get());

    const double end = scheduler.clock().now() + 3725;
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::until(end));
    EXPECT_EQ(awake->remainingDisplayString(), "1:02:05");
    scheduler.advance(5);
    EXPECT_EQ(awake->remainingDisplayString(), "1:02:00");
    // A sleep: the wall clock moves without ticks.
    scheduler.manualClock().setWall(end - 10);
    scheduler.advance(1);
    EXPECT_EQ(awake->remainingDisplayString(), "0:09");
    scheduler.advance(9);
    EXPECT_FALSE(awake->isActive().get());
    EXPECT_EQ(awake->remainingDisplayString(), std::nullopt);
    EXPECT_TRUE(capture.contains("awake", "Timed awake session elapsed"));
    EXPECT_TRUE(assertions.held().empty());

    // A date already past ends at the first tick.
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::until(scheduler.clock().now() - 30));
    EXPECT_EQ(awake->remainingDisplayString(), "0:00");
    scheduler.advance(1);
    EXPECT_FALSE(awake->isActive().get());
}

TEST_F(AwakeTest, AnAppSessionLastsWhileThatAppRuns) {
    // An app that is not running ends the old session and starts nothing.
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::indefinite());
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::whileAppRunning("org.example.gone", "Gone"));
    EXPECT_FALSE(awake->isActive().get());
    EXPECT_EQ(awake->session().get(), std::nullopt);
    EXPECT_TRUE(assertions.held().empty());
    EXPECT_TRUE(capture.contains("awake", "Not activating: Gone is not running"));

    // An exit report that arrives late, for a session already replaced, is ignored.
    processes.running["editor"] = {4242, 77};
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::whileAppRunning("editor", "Editor"));
    EXPECT_EQ(assertions.held().begin()->second.second, "Tavrick: While Editor is running");
    auto lateReport = processes.watchers.at(4242);
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::indefinite());
    EXPECT_EQ(processes.watchesEnded, 1);
    lateReport();
    scheduler.runUntilIdle();
    EXPECT_TRUE(awake->isActive().get());

    awake->start(AwakeMode::keepDisplayOn, AwakeSession::whileAppRunning("editor", "Editor"));
    processes.running.erase("editor");
    processes.watchers.at(4242)();
    EXPECT_TRUE(awake->isActive().get());  // the report waits for the main queue
    scheduler.runUntilIdle();
    EXPECT_FALSE(awake->isActive().get());
    EXPECT_TRUE(capture.contains("awake", "Watched app quit; ending awake session"));
    EXPECT_EQ(processes.watchesEnded, 2);
}

TEST_F(AwakeTest, ARefusedAssertionLeavesItInactiveAndDestroyingReleasesOne) {
    assertions.setRefusal(5);
    awake->start(AwakeMode::keepDisplayOn, AwakeSession::indefinite());
    EXPECT_FALSE(awake->isActive().get());
    EXPECT_EQ(awake->session().get(), std::nullopt);
    EXPECT_TRUE(capture.contains("awake", "IOPMAssertionCreateWithName failed: 5"));
    assertions.setRefusal(0);
    awake->toggle();
    EXPECT_EQ(assertions.held().size(), 1u);
    awake.reset();
    EXPECT_TRUE(assertions.held().empty());
}

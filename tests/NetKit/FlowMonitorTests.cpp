#include "NetKit/FlowMonitor.h"
#include "NetFakes.h"
#include "Support/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

struct MonitorTest : LoggedTest {
    std::vector<std::shared_ptr<FakeFlowSource>> sources;
    std::vector<int> sourceSeconds;
    std::optional<std::string> extensionFailure = "This copy of Tavrick is not signed by a team, so it cannot pin the filter.";
    std::optional<std::string> tableFailure;
    std::vector<Task> parkedLookups;
    std::map<std::string, std::string> names;
    std::vector<Alert> alerts;

    std::shared_ptr<FlowSource> add(FlowScope scope, const std::optional<std::string>& failure) {
        return sources.emplace_back(std::make_shared<FakeFlowSource>(scope, failure));
    }
    std::shared_ptr<FlowMonitor> make(double learningStartedAt = 1) {
        HostLookup lookup;
        lookup.reverseLookup = [this](const std::string& address) -> std::optional<std::string> {
            auto it = names.find(address);
            return it == names.end() ? std::nullopt : std::optional(it->second);
        };
        lookup.detach = [this](Task task) { parkedLookups.push_back(std::move(task)); };
        auto extension = [this](int) { return add(FlowScope::systemWideLive(), extensionFailure); };
        auto monitor = FlowMonitor::make({scheduler, log.get(), lookup, extension}, root.path(), {}, true, true, 3,
                                         learningStartedAt, [this](int s) {
                                             sourceSeconds.push_back(s);
                                             return add(FlowScope::ownUserPolled(s), tableFailure);
                                         });
        monitor->onAlert = [this](const Alert& alert) { alerts.push_back(alert); };
        return monitor;
    }
    // A batch from the newest source, as its queue would hand it over.
    void deliver(const std::vector<Flow>& flows) {
        sources.back()->deliver(flows);
        scheduler.runUntilIdle();
    }
    void runLookups() {
        for (; !parkedLookups.empty(); scheduler.runUntilIdle()) {
            auto task = std::move(parkedLookups.front());
            parkedLookups.erase(parkedLookups.begin());
            task();
        }
    }
    std::filesystem::path seenFile() { return root / "network-seen.json"; }
    SeenStore loadSeen() { return SeenFile{seenFile(), nullptr, {}}.load(); }
};

} // namespace

TEST_F(MonitorTest, OneSourceForManyWatchersAndTheLastOneSavesAtOnce) {
    auto monitor = make();
    EXPECT_FALSE(monitor->isRunning().get());
    monitor->addWatcher();
    monitor->addWatcher();
    ASSERT_EQ(sources.size(), 1u);
    EXPECT_EQ(sources[0]->starts, 1);
    EXPECT_TRUE(monitor->isRunning().get());
    EXPECT_EQ(sourceSeconds, std::vector<int>{3});

    deliver({makeFlow(10, "/opt/app", "app", "1.1.1.1")});
    EXPECT_EQ(monitor->flowCount().get(), 1);
    monitor->removeWatcher();
    EXPECT_TRUE(monitor->isRunning().get());
    EXPECT_FALSE(std::filesystem::exists(seenFile()));
    monitor->removeWatcher();
    EXPECT_EQ(sources[0]->stops, 1);
    EXPECT_FALSE(monitor->isRunning().get());
    EXPECT_EQ(monitor->flowCount().get(), 0);
    EXPECT_TRUE(monitor->apps().get().empty());
    // Saved at once, without waiting for the debounce.
    EXPECT_EQ(loadSeen().appCount(), 1u);
    monitor->removeWatcher();
    EXPECT_EQ(monitor->watcherCount(), 0);
}

TEST_F(MonitorTest, AnExtensionThatCannotStartFallsBackToTheSocketTable) {
    auto monitor = make();
    monitor->useExtension(true);
    EXPECT_TRUE(sources.empty());
    monitor->addWatcher();
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[0]->scope(), FlowScope::systemWideLive());
    EXPECT_FALSE(sources[0]->hasCallback());
    EXPECT_EQ(sources[1]->starts, 1);
    EXPECT_TRUE(monitor->isRunning().get());
    EXPECT_EQ(monitor->scope().get(), FlowScope::ownUserPolled(3));
    EXPECT_EQ(monitor->source(), sources[1]);
    EXPECT_EQ(notes(), (std::vector<std::string>{
                                 "[network] could not start: This copy of Tavrick is not signed by a team, so it cannot pin the filter.",
                                 "[network] falling back to the socket table",
                                 "[network] watching this user's connections, read every 3 s"}));
}

TEST_F(MonitorTest, AWorkingExtensionIsUsedAndSwitchingRestartsTheSource) {
    extensionFailure.reset();
    auto monitor = make();
    monitor->addWatcher();
    monitor->useExtension(true);
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[0]->stops, 1);
    EXPECT_EQ(monitor->scope().get(), FlowScope::systemWideLive());
    // A batch from the replaced source is no longer listened to.
    sources[0]->deliver({makeFlow(1, "/opt/old", "old", "1.1.1.1")});
    scheduler.runUntilIdle();
    EXPECT_EQ(monitor->flowCount().get(), 0);
    monitor->useExtension(true);
    EXPECT_EQ(sources.size(), 2u);
}

TEST_F(MonitorTest, WhenNoSourceStartsTheMonitorIsNotRunningAndTheAppGoesOn) {
    tableFailure = "no /proc";
    auto monitor = make();
    LogCapture capture;
    monitor->addWatcher();
    EXPECT_FALSE(monitor->isRunning().get());
    EXPECT_TRUE(capture.contains("network", "Network monitor could not start: no /proc"));
    monitor->removeWatcher();
}

TEST_F(MonitorTest, AlertsGoOutAfterLearningAndTheLastTwentyAreKept) {
    auto monitor = make(now() - 900);
    monitor->addWatcher();
    // Twenty-one new programs across three hours, under the hourly cap.
    for (int hour = 0; hour < 3; ++hour) {
        std::vector<Flow> flows;
        for (int n = hour * 7; n < hour * 7 + 7; ++n) {
            flows.push_back(makeFlow(100 + n, "/opt/app" + std::to_string(n), "app" + std::to_string(n), "198.51.100.1"));
        }
        deliver(flows);
        scheduler.advance(60);
        deliver({});
        scheduler.advance(3600);
    }
    ASSERT_EQ(alerts.size(), 21u);
    const auto& recent = monitor->recentAlerts().get();
    ASSERT_EQ(recent.size(), 20u);
    EXPECT_EQ(recent.front().displayName, "app1");
    EXPECT_EQ(recent.back().displayName, "app20");
    EXPECT_EQ(alerts[0].body(), "Connected to 198.51.100.1.");
    EXPECT_THAT(notes(), ::testing::Contains("[network] alert: app0 is using the network (1 new, 0 withheld before)"));
}

TEST_F(MonitorTest, NamesArriveFromTheResolverAndReachWaitingAlerts) {
    names = {{"203.0.113.5", "five.example"}};
    auto monitor = make(now() - 900);
    monitor->addWatcher();
    deliver({makeFlow(1, "/opt/a", "a", "203.0.113.5"), makeFlow(1, "/opt/a", "a", "10.0.0.7", 50001)});
    EXPECT_EQ(parkedLookups.size(), 1u);
    runLookups();
    EXPECT_EQ(monitor->label("203.0.113.5"), "five.example");
    EXPECT_EQ(monitor->label("10.0.0.7"), "10.0.0.7");
    scheduler.advance(60);
    deliver({});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].body(), "Connected to five.example and 10.0.0.7.");
    // Named addresses are not asked again.
    deliver({makeFlow(1, "/opt/a", "a", "203.0.113.5")});
    EXPECT_TRUE(parkedLookups.empty());
}

TEST_F(MonitorTest, SavingWaitsThirtySecondsAfterABatch) {
    auto monitor = make();
    monitor->addWatcher();
    deliver({makeFlow(1, "/opt/a", "a", "1.1.1.1")});
    scheduler.advance(29);
    deliver({makeFlow(1, "/opt/a", "a", "2.2.2.2")});
    EXPECT_FALSE(std::filesystem::exists(seenFile()));
    scheduler.advance(1);
    EXPECT_EQ(loadSeen().hostCount(AppKey{"/opt/a", ""}), 2u);
}

TEST_F(MonitorTest, ApplyRestartsTheSourceOnlyForANewPeriod) {
    auto monitor = make();
    monitor->addWatcher();
    monitor->apply({"/opt/a"}, true, false, 3);
    EXPECT_EQ(sources.size(), 1u);
    EXPECT_FALSE(monitor->alertsOnNewHosts());
    EXPECT_EQ(monitor->mutedPaths(), std::vector<std::string>{"/opt/a"});
    deliver({makeFlow(1, "/opt/a", "a", "1.1.1.1")});
    monitor->apply({"/opt/a"}, true, false, 10);
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[0]->stops, 1);
    EXPECT_EQ(sourceSeconds, (std::vector<int>{3, 10}));
    EXPECT_EQ(monitor->scope().get(), FlowScope::ownUserPolled(10));
    // Saved on the way through.
    EXPECT_TRUE(std::filesystem::exists(seenFile()));
}

TEST_F(MonitorTest, TheListGroupsByProgramWithMutedAndSystemLast) {
    auto monitor = make();
    monitor->addWatcher();
    Flow old = makeFlow(7, "/opt/zed", "zed", "1.1.1.1", 40000);
    old.firstSeen = now() - 400;
    Flow fresh = makeFlow(3, "/opt/zed", "zed", "2.2.2.2", 40001);
    fresh.firstSeen = now() - 10;
    Flow again = makeFlow(3, "/opt/zed", "zed", "2.2.2.2", 40002);
    again.firstSeen = now() - 20;
    deliver({old, fresh, again, makeFlow(5, "/usr/bin/curl", "curl", "3.3.3.3"),
             makeFlow(9, "/Applications/Mail.app/Contents/MacOS/Mail", "Mail", "4.4.4.4"),
             makeFlow(11, "", "nameless", "5.5.5.5"), makeFlow(12, "", "other", "5.5.5.5"),
             makeFlow(13, "/opt/Alpha", "alpha", "6.6.6.6")});
    monitor->mute(AppKey{"/opt/Alpha", ""});
    const auto& apps = monitor->apps().get();
    std::vector<std::string> order;
    for (auto& app : apps) order.push_back(app.displayName);
    EXPECT_EQ(order, (std::vector<std::string>{"Mail", "nameless", "other", "zed", "curl", "alpha"}));
    EXPECT_EQ(monitor->flowCount().get(), 8);
    const AppFlows& zed = apps[3];
    EXPECT_EQ(zed.pids, (std::vector<std::int32_t>{3, 7}));
    EXPECT_EQ(zed.hostCount, 2);
    EXPECT_EQ(zed.lastNewHost, now() - 10);
    EXPECT_TRUE(apps[4].isSystem);
    EXPECT_TRUE(apps[5].isMuted);
    monitor->unmute(AppKey{"/opt/Alpha", ""});
    EXPECT_EQ(monitor->apps().get().front().displayName, "alpha");
}

TEST_F(MonitorTest, LearningSurvivesARelaunchAndForgettingMakesEveryAppNewAgain) {
    const double started = now() - 100;
    auto monitor = make(started);
    EXPECT_TRUE(monitor->isLearning(now()));
    EXPECT_EQ(monitor->learningEndsAt(), started + 900);
    monitor->addWatcher();
    deliver({makeFlow(1, "/opt/a", "a", "1.1.1.1")});
    // Samples keep coming while learning; the digest falls due and is dropped.
    scheduler.advance(60);
    deliver({makeFlow(1, "/opt/a", "a", "1.1.1.1")});
    scheduler.advance(840);
    EXPECT_FALSE(monitor->isLearning(now()));
    deliver({makeFlow(1, "/opt/a", "a", "1.1.1.1")});
    scheduler.advance(60);
    deliver({});
    EXPECT_TRUE(alerts.empty());
    EXPECT_EQ(monitor->seenAppCount(), 1u);

    monitor->forgetEverything();
    EXPECT_EQ(monitor->seenAppCount(), 0u);
    EXPECT_EQ(loadSeen().appCount(), 0u);
    deliver({makeFlow(1, "/opt/a", "a", "1.1.1.1")});
    scheduler.advance(60);
    deliver({});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_TRUE(alerts[0].isNewApp);

    // Learning again begins now.
    EXPECT_EQ(monitor->beginLearning(), now());
    EXPECT_TRUE(monitor->isLearning(now() + 899));
}

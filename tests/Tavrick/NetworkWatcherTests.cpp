#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/Toast.h"
#include "NetKit/NetFakes.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Support/TempDir.h"
#include "Tavrick/AppCoordinator.h"
#include "Tavrick/CoordinatorHarness.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

struct NetworkWatcherTest : CoordinatorHarness {
    std::vector<std::shared_ptr<FakeFlowSource>> sources;
    const std::filesystem::path seenFile = root / "support" / "network-seen.json";

    void SetUp() override {
        CoordinatorHarness::SetUp();
        writeFile(root / "mappings.json", R"({"mappings": [], "schemaVersion": 1})");
    }
    void adjust(AppEnvironment& environment) override {
        environment.network.makeSource = [this](int seconds) -> std::shared_ptr<FlowSource> {
            return sources.emplace_back(std::make_shared<FakeFlowSource>(FlowScope::ownUserPolled(seconds)));
        };
        environment.network.supportDirectory = root / "support";
    }
    AppCoordinator& make() { return *CoordinatorHarness::make(); }
    void deliver(const std::vector<Flow>& flows) {
        ASSERT_FALSE(sources.empty());
        sources.back()->deliver(flows);
        scheduler.runUntilIdle();
    }
    Flow probe(const std::string& host, std::uint16_t port) {
        return makeFlow(4321, "/opt/probe/bin/probe", "probe", host, port, 1763000000);
    }
    double now() { return scheduler.clock().now(); }
};

} // namespace

TEST_F(NetworkWatcherTest, OffByDefaultNothingIsRead) {
    make().start();
    EXPECT_TRUE(sources.empty());
    EXPECT_FALSE(std::filesystem::exists(seenFile));
    EXPECT_EQ(defaults.object("networkLearningStartedAt"), std::nullopt);
}

TEST_F(NetworkWatcherTest, ANewProgramAfterLearningIsOneNotificationThatARestartRemembers) {
    defaults.set("networkMonitorEnabled", true);
    defaults.set("networkLearningStartedAt", now() - 901);
    defaults.set("networkSampleSeconds", 5);
    make().start();
    ASSERT_EQ(sources.size(), 1u);
    EXPECT_TRUE(sources[0]->isRunning());
    EXPECT_EQ(coordinator->flows().scope().get(), FlowScope::ownUserPolled(5));
    EXPECT_EQ(coordinator->filter().state().get().kind, FilterController::State::Kind::notInBundle);

    deliver({probe("127.0.0.1", 40001)});
    scheduler.advance(5);
    deliver({probe("127.0.0.1", 40001), probe("127.0.0.2", 40002)});
    EXPECT_TRUE(notifications.added.empty());
    scheduler.advance(55);
    deliver({});
    EXPECT_EQ(notifications.added, (std::vector<std::string>{
                                       "net./opt/probe/bin/probe | probe is using the network | Connected to 127.0.0.1 and 127.0.0.2."}));

    // Turning the watcher off saves at once; a fresh coordinator over the same files is quiet.
    coordinator->setNetworkMonitor(false);
    EXPECT_FALSE(sources[0]->isRunning());
    EXPECT_TRUE(std::filesystem::exists(seenFile));
    coordinator.reset();
    notifications.added.clear();
    make().start();
    deliver({probe("127.0.0.1", 40009)});
    scheduler.advance(60);
    deliver({});
    EXPECT_TRUE(notifications.added.empty());
}

TEST_F(NetworkWatcherTest, EnablingBeforeTheDeferredStartWaitsForItAndLearningBeginsOnce) {
    auto& app = make();
    app.setNetworkMonitor(true);
    EXPECT_TRUE(sources.empty());
    app.start();
    ASSERT_EQ(sources.size(), 1u);
    ASSERT_TRUE(defaults.object("networkLearningStartedAt"));
    EXPECT_EQ(app.settings().networkLearningStartedAt.get(), now());
    EXPECT_TRUE(app.flows().isLearning(now() + 899));
    app.setNetworkMonitor(true);
    EXPECT_EQ(app.flows().watcherCount(), 1);

    app.settings().networkAlertMode.set(NetworkAlertMode::newApps);
    EXPECT_TRUE(app.flows().alertsOnNewApps());
    EXPECT_FALSE(app.flows().alertsOnNewHosts());
    app.settings().networkSampleSeconds.set(10);
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(app.flows().scope().get(), FlowScope::ownUserPolled(10));
    app.settings().networkMutedApps.set({"/usr/bin/curl"});
    EXPECT_EQ(app.flows().mutedPaths(), std::vector<std::string>{"/usr/bin/curl"});

    scheduler.advance(120);
    app.setNetworkMonitor(false);
    EXPECT_EQ(app.flows().watcherCount(), 0);
    app.setNetworkMonitor(true);
    EXPECT_EQ(app.settings().networkLearningStartedAt.get(), now() - 120);
}

TEST_F(NetworkWatcherTest, QuittingWritesWhatWasLearnedWithoutWaitingForTheDebounce) {
    defaults.set("networkMonitorEnabled", true);
    make().start();
    deliver({probe("127.0.0.1", 40001)});
    EXPECT_FALSE(std::filesystem::exists(seenFile));
    workspace.post({WorkspaceEvent::willTerminate, std::nullopt});
    ASSERT_TRUE(std::filesystem::exists(seenFile));
    EXPECT_NE(readFile(seenFile).find("/opt/probe/bin/probe"), std::string::npos);
    // Nothing is left pending: the debounce would write the same again.
    const auto written = std::filesystem::last_write_time(seenFile);
    scheduler.advance(30);
    EXPECT_EQ(std::filesystem::last_write_time(seenFile), written);
}

#include "Platform/Simulated/SimulatedDesktop.h"
#include "CoreKit/SecretStore.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/Toast.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Support/TempDir.h"
#include "Tavrick/AppCoordinator.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// A socket table the test fills; the coordinator's watcher reads it through its factory.
class ScriptedSource final : public FlowSource {
public:
    explicit ScriptedSource(int seconds) : seconds_(seconds) {}
    void start() override { running = true; }
    void stop() override { running = false; }
    bool isRunning() const override { return running; }
    FlowScope scope() const override { return FlowScope::ownUserPolled(seconds_); }
    void setOnFlows(FlowsCallback callback) override { onFlows = std::move(callback); }
    bool running = false;
    FlowsCallback onFlows;

private:
    int seconds_;
};

Flow connection(const std::string& path, const std::string& host, std::uint16_t localPort) {
    Flow flow;
    flow.pid = 4321;
    flow.processStartedAt = 1763000000;
    flow.name = "probe";
    flow.executablePath = path;
    flow.local = {"127.0.0.1", localPort, false};
    flow.remote = {host, 8080, false};
    return flow;
}

struct NetworkWatcherTest : ::testing::Test {
    TempDir root;
    ManualScheduler scheduler;
    SimulatedSession session;
    SimulatedDesktop desktop;
    InMemoryPreferenceStore finderDefaults;
    InMemorySecretStore secrets;
    InMemoryPreferenceStore defaults;
    WorkspaceNotifications workspace{scheduler};
    struct Notifications : UserNotificationCenter {
        std::vector<std::string> added;
        void requestAuthorization(int, AuthorizationReply reply) override { reply(true, std::nullopt); }
        void add(const std::string& identifier, const std::string& title, const std::string& body) override {
            added.push_back(identifier + " | " + title + " | " + body);
        }
    } notifications;
    std::shared_ptr<DiagnosticLog> log;
    std::vector<std::shared_ptr<ScriptedSource>> sources;
    std::shared_ptr<AppCoordinator> coordinator;

    void SetUp() override {
        installTestPlatform(root.path());
        writeFile(root / "mappings.json", R"({"mappings": [], "schemaVersion": 1})");
        log = DiagnosticLog::make(root / "support", scheduler);
    }
    void TearDown() override {
        coordinator.reset();
        Toast::shared().setIsEnabled(nullptr);
    }
    AppCoordinator& make() {
        NetworkPorts network;
        network.makeSource = [this](int seconds) -> std::shared_ptr<FlowSource> {
            sources.push_back(std::make_shared<ScriptedSource>(seconds));
            return sources.back();
        };
        network.supportDirectory = root / "support";
        coordinator = AppCoordinator::make(AppEnvironment{
            .scheduler = scheduler,
            .log = *log,
            .events = session,
            .defaults = defaults,
            .workspace = workspace,
            .notifications = notifications,
            .keyboardLayout = nullptr,
            .mappingsFile = root / "mappings.json",
            .permissionSource = PermissionSource{[] { return true; }, [] { return 0; }},
            .footprint = [] { return std::nullopt; },
            .version = "1.0",
            .build = "1",
            .operatingSystemVersion = "Debian 12",
            .applications = desktop,
            .launcher = desktop,
            .screens = desktop,
            .windowList = desktop,
            .windowAccessibility = desktop,
            .finderDefaults = finderDefaults,
            .home = root.path(),
            .loginItems = {},
            .secrets = secrets,
            .network = network,
            .supportDirectory = {},
            .pasteboard = nullptr,
            .powerAssertions = nullptr,
            .processes = nullptr,
            .lidSensors = nullptr,
            .frontmostApplication = nullptr,
        });
        return *coordinator;
    }
    void deliver(const std::vector<Flow>& flows) {
        ASSERT_FALSE(sources.empty());
        sources.back()->onFlows(flows);
        scheduler.runUntilIdle();
    }
    double now() { return scheduler.clock().now(); }
};

} // namespace

TEST_F(NetworkWatcherTest, OffByDefaultNothingIsRead) {
    make().start();
    EXPECT_TRUE(sources.empty());
    EXPECT_FALSE(std::filesystem::exists(root / "support" / "network-seen.json"));
    EXPECT_EQ(defaults.object("networkLearningStartedAt"), std::nullopt);
}

TEST_F(NetworkWatcherTest, ANewProgramAfterLearningIsOneNotificationThatARestartRemembers) {
    defaults.set("networkMonitorEnabled", true);
    defaults.set("networkLearningStartedAt", now() - 901);
    defaults.set("networkSampleSeconds", 5);
    make().start();
    ASSERT_EQ(sources.size(), 1u);
    EXPECT_TRUE(sources[0]->running);
    EXPECT_EQ(coordinator->flows().scope().get(), FlowScope::ownUserPolled(5));
    EXPECT_EQ(coordinator->filter().state().get().kind, FilterController::State::Kind::notInBundle);

    deliver({connection("/opt/probe/bin/probe", "127.0.0.1", 40001)});
    scheduler.advance(5);
    deliver({connection("/opt/probe/bin/probe", "127.0.0.1", 40001), connection("/opt/probe/bin/probe", "127.0.0.2", 40002)});
    EXPECT_TRUE(notifications.added.empty());
    scheduler.advance(55);
    deliver({});
    EXPECT_EQ(notifications.added, (std::vector<std::string>{
                                       "net./opt/probe/bin/probe | probe is using the network | Connected to 127.0.0.1 and 127.0.0.2."}));

    // Turning the watcher off saves at once; a fresh coordinator over the same files is quiet.
    coordinator->setNetworkMonitor(false);
    EXPECT_FALSE(sources[0]->running);
    EXPECT_TRUE(std::filesystem::exists(root / "support" / "network-seen.json"));
    coordinator.reset();
    sources.clear();
    notifications.added.clear();
    defaults.set("networkMonitorEnabled", true);
    make().start();
    deliver({connection("/opt/probe/bin/probe", "127.0.0.1", 40009)});
    scheduler.advance(60);
    deliver({});
    EXPECT_TRUE(notifications.added.empty());
}

TEST_F(NetworkWatcherTest, EnablingStartsLearningOnceAndTheSettingsReachTheWatcher) {
    auto& app = make();
    app.start();
    app.setNetworkMonitor(true);
    ASSERT_EQ(sources.size(), 1u);
    const auto learning = defaults.object("networkLearningStartedAt");
    ASSERT_TRUE(learning);
    EXPECT_EQ(app.settings().networkLearningStartedAt.get(), now());
    EXPECT_TRUE(app.flows().isLearning(now() + 899));
    EXPECT_EQ(app.flows().watcherCount(), 1);
    // Enabling again changes nothing.
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
    // The learning period began once and is not begun again.
    EXPECT_EQ(app.settings().networkLearningStartedAt.get(), now() - 120);
}

TEST_F(NetworkWatcherTest, QuittingWritesWhatWasLearnedWithoutWaitingForTheDebounce) {
    defaults.set("networkMonitorEnabled", true);
    make().start();
    deliver({connection("/opt/probe/bin/probe", "127.0.0.1", 40001)});
    const auto file = root / "support" / "network-seen.json";
    EXPECT_FALSE(std::filesystem::exists(file));
    workspace.post({WorkspaceEvent::willTerminate, std::nullopt});
    ASSERT_TRUE(std::filesystem::exists(file));
    EXPECT_NE(readFile(file).find("/opt/probe/bin/probe"), std::string::npos);
    // Nothing is left pending: the debounce would write the same again.
    const auto written = std::filesystem::last_write_time(file);
    scheduler.advance(30);
    EXPECT_EQ(std::filesystem::last_write_time(file), written);
}

TEST_F(NetworkWatcherTest, ASettingChangedBeforeTheDeferredStartWaitsForIt) {
    auto& app = make();
    app.setNetworkMonitor(true);
    EXPECT_TRUE(sources.empty());
    app.start();
    EXPECT_EQ(sources.size(), 1u);
}

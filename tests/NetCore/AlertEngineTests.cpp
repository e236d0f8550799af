#include "NetCore/AlertEngine.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {

Flow flow(const std::string& path, const std::string& name, const std::string& host,
          FlowState state = FlowState::established) {
    return {.pid = 100, .name = name, .executablePath = path, .local = {"192.168.1.2", 50000, false},
            .remote = {host, 443, false}, .state = state};
}

// An engine past its learning period unless told otherwise, on a wall clock the test moves.
struct Harness {
    double wall = 1000;
    AlertEngine engine;
    explicit Harness(double enabledAt = -100000, std::set<std::string> muted = {})
        : engine(AlertPolicy::standard(), enabledAt, SeenStore{}, std::move(muted), [this] { return wall; }) {}
    std::vector<Alert> at(double now, const std::vector<Flow>& flows, bool apps = true, bool hosts = true) {
        wall = now;
        return engine.observe(flows, now, apps, hosts);
    }
};

} // namespace

TEST(AlertEngine, LearningRecordsButNeverAlertsAndItsLastMinuteAlertsAfterIt) {
    Harness h(0);
    EXPECT_TRUE(h.engine.isLearning(899.9));
    EXPECT_FALSE(h.engine.isLearning(900));
    EXPECT_TRUE(h.at(10, {flow("/usr/bin/curl", "curl", "1.1.1.1")}).empty());
    EXPECT_EQ(h.engine.waitingCount(), 1u);
    EXPECT_TRUE(h.at(70, {}).empty());
    EXPECT_EQ(h.engine.waitingCount(), 0u);
    EXPECT_EQ(h.engine.suppressedCount(), 0);
    // A digest gathered in the last minute of learning falls due after it.
    EXPECT_TRUE(h.at(850, {flow("/opt/late", "late", "2.2.2.2")}).empty());
    auto alerts = h.at(910, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].title(), "late is using the network");
    // What learning saw is not news afterwards.
    EXPECT_TRUE(h.at(1000, {flow("/usr/bin/curl", "curl", "1.1.1.1")}).empty());
    EXPECT_EQ(h.engine.waitingCount(), 0u);
}


TEST(AlertEngine, ADigestWaitsExactlyTheCoalesceWindow) {
    Harness h;
    EXPECT_TRUE(h.at(1000, {flow("/usr/bin/curl", "curl", "1.1.1.1")}).empty());
    EXPECT_TRUE(h.at(1030, {flow("/usr/bin/curl", "curl", "2.2.2.2")}).empty());
    EXPECT_TRUE(h.at(1059, {}).empty());
    auto alerts = h.at(1060, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].app, (AppKey{"/usr/bin/curl", "curl"}));
    EXPECT_EQ(alerts[0].hosts, (std::vector<std::string>{"1.1.1.1", "2.2.2.2"}));
    EXPECT_EQ(alerts[0].hostCount, 2);
    EXPECT_TRUE(alerts[0].isNewApp);
    EXPECT_EQ(alerts[0].body(), "Connected to 1.1.1.1 and 2.2.2.2.");
    EXPECT_TRUE(h.at(1200, {}).empty());
}

TEST(AlertEngine, TwelvePostsAnHourThenTheRestAreCountedAndToldOnce) {
    Harness h;
    std::vector<Flow> flows;
    for (int i = 0; i < 13; ++i) flows.push_back(flow("/opt/app" + std::to_string(i), "app", "9.9.9." + std::to_string(i)));
    h.at(1000, flows);
    auto alerts = h.at(1060, {});
    EXPECT_EQ(alerts.size(), 12u);
    EXPECT_EQ(h.engine.suppressedCount(), 1);
    // The oldest digest goes first: apps in arrival order.
    EXPECT_EQ(alerts.front().app.executablePath, "/opt/app0");
    EXPECT_EQ(alerts.back().app.executablePath, "/opt/app11");

    // Due exactly an hour after the posts: they still count.
    h.at(4600, {flow("/opt/late", "late", "8.8.8.8")});
    h.at(4601, {flow("/opt/later", "later", "8.8.4.4")});
    EXPECT_TRUE(h.at(4660, {}).empty());
    EXPECT_EQ(h.engine.suppressedCount(), 2);

    // A moment later the hour has passed.
    alerts = h.at(4661, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].suppressed, 2);
    EXPECT_EQ(alerts[0].body(), "Connected to 8.8.4.4. 2 more went unreported while quiet.");
    EXPECT_EQ(h.engine.suppressedCount(), 0);
}

TEST(AlertEngine, OneAppIsHeldToThreeDigestsAnHourWhileAnotherStillAlerts) {
    Harness h;
    const std::string a = "/opt/chatty";
    for (int i = 0; i < 3; ++i) {
        h.at(1000 + i * 100, {flow(a, "chatty", "1.0.0." + std::to_string(i))});
        ASSERT_EQ(h.at(1060 + i * 100, {}).size(), 1u) << i;
    }
    h.at(1300, {flow(a, "chatty", "1.0.0.9"), flow("/opt/quiet", "quiet", "2.0.0.1")});
    auto alerts = h.at(1360, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].displayName, "quiet");
    // Both were due at once; the withheld one came first and is told in the one that went out.
    EXPECT_EQ(alerts[0].suppressed, 1);
    EXPECT_FALSE(h.at(1400, {flow(a, "chatty", "1.0.0.10")}).size());
    EXPECT_TRUE(h.at(1460, {}).empty());
    EXPECT_EQ(h.engine.suppressedCount(), 1);
}

TEST(AlertEngine, TitlesAndBodies) {
    struct Case {
        std::vector<std::string> hosts;
        int hostCount;
        bool isNewApp;
        int suppressed;
        const char* title;
        const char* body;
    };
    const Case cases[] = {
        {{}, 0, true, 0, "Zoom is using the network", "A connection was opened."},
        {{"a"}, 1, false, 0, "Zoom reached new hosts", "Connected to a."},
        {{"a", "b"}, 2, false, 0, "Zoom reached new hosts", "Connected to a and b."},
        {{"a", "b", "c"}, 3, true, 0, "Zoom is using the network", "Connected to a, b and c."},
        {{"a", "b", "c"}, 5, true, 0, "Zoom is using the network", "Reached 5 new hosts. First was a."},
        {{}, 1, true, 0, "Zoom is using the network", "Reached 1 new hosts."},
        {{"a"}, 2, true, 0, "Zoom is using the network", "Connected to a."},
        {{}, 0, true, 1, "Zoom is using the network", "A connection was opened. 1 more went unreported while quiet."},
        {{"a", "b", "c"}, 9, false, 4, "Zoom reached new hosts",
         "Reached 9 new hosts. First was a. 4 more went unreported while quiet."},
    };
    for (const auto& c : cases) {
        Alert alert{AppKey{"/x", ""}, "Zoom", c.hosts, c.hostCount, c.isNewApp, c.suppressed};
        EXPECT_EQ(alert.title(), c.title) << c.body;
        EXPECT_EQ(alert.body(), c.body);
    }
}

TEST(AlertEngine, AMutedAppIsRememberedAndAMuteAfterGatheringDropsTheDigestSilently) {
    Harness h(-100000, {"/opt/muted"});
    h.at(1000, {flow("/opt/muted", "muted", "1.1.1.1"), flow("/opt/a", "a", "2.2.2.2")});
    EXPECT_EQ(h.engine.waitingCount(), 1u);
    EXPECT_TRUE(h.engine.seen().knows("1.1.1.1", AppKey{"/opt/muted", ""}));
    h.engine.setMutedApps({"/opt/a"});
    // The once-muted app's host is known; the newly muted app's digest falls due and goes nowhere.
    EXPECT_TRUE(h.at(1100, {flow("/opt/muted", "muted", "1.1.1.1")}).empty());
    EXPECT_EQ(h.engine.waitingCount(), 0u);
    EXPECT_EQ(h.engine.suppressedCount(), 0);
}


TEST(AlertEngine, TheTwoSwitchesChooseWhichNewsCounts) {
    Harness hostsOnly;
    hostsOnly.at(1000, {flow("/opt/a", "a", "1.1.1.1")}, false, true);
    EXPECT_EQ(hostsOnly.engine.waitingCount(), 0u);
    // The app is known now; a new host is news for the host switch.
    hostsOnly.at(1001, {flow("/opt/a", "a", "2.2.2.2")}, false, true);
    auto alerts = hostsOnly.at(1061, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].title(), "a reached new hosts");

    Harness appsOnly;
    appsOnly.at(1000, {flow("/opt/a", "a", "1.1.1.1")}, true, false);
    appsOnly.at(1001, {flow("/opt/a", "a", "2.2.2.2")}, true, false);
    alerts = appsOnly.at(1060, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].hosts, (std::vector<std::string>{"1.1.1.1"}));
}

TEST(AlertEngine, ABurstOfTenThousandFlowsIsOneBoundedAlert) {
    Harness h;
    std::vector<Flow> burst;
    for (int i = 0; i < 10000; ++i) {
        burst.push_back(flow("/Applications/Scan.app/Contents/MacOS/scan", "scan",
                             "10." + std::to_string(i / 65536) + "." + std::to_string(i / 256 % 256) + "." +
                                 std::to_string(i % 256)));
    }
    EXPECT_TRUE(h.at(1000, burst).empty());
    EXPECT_EQ(h.engine.waitingCount(), 1u);
    auto alerts = h.at(1060, {});
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].displayName, "Scan");
    EXPECT_EQ(alerts[0].hostCount, 10000);
    EXPECT_EQ(alerts[0].hosts.size(), 3u);
    EXPECT_EQ(alerts[0].body(), "Reached 10000 new hosts. First was 10.0.0.0.");
    EXPECT_EQ(h.engine.seen().hostCount(AppKey{"/Applications/Scan.app/Contents/MacOS/scan", ""}), 4096u);
}

TEST(AlertEngine, DisplayNamesAndRenamedAddressesInWaitingDigests) {
    Harness h;
    h.at(1000, {flow("/Applications/Foo.app/Contents/Helpers/Bar.app/bar", "bar", "1.1.1.1"), flow("", "", "1.1.1.2"),
                flow("/opt/bin/tool", "tool", "1.1.1.3"), flow("/opt/bin/tool", "tool", "2.2.2.2")});
    h.engine.rename("1.1.1.3", "three.example");
    h.engine.rename("9.9.9.9", "nobody.example");
    auto alerts = h.at(1060, {});
    std::vector<std::string> names;
    for (auto& alert : alerts) names.push_back(alert.displayName);
    // From the bundle, then the process name, then nothing.
    EXPECT_EQ(names, (std::vector<std::string>{"Foo", "Unknown", "tool"}));
    EXPECT_EQ(alerts.back().body(), "Connected to three.example and 2.2.2.2.");
}

TEST(AlertEngine, RestartEmptiesWaitingDigestsAndKeepsMemoryWhereListeningAndPeerlessFlowsLeaveNone) {
    Harness h;
    h.at(1000, {flow("/opt/a", "a", "1.1.1.1"), flow("/opt/server", "server", "", FlowState::established),
                flow("/opt/server", "server", "1.2.3.4", FlowState::listening)});
    EXPECT_FALSE(h.engine.seen().knowsApp(AppKey{"/opt/server", ""}));
    EXPECT_EQ(h.engine.waitingCount(), 1u);
    h.engine.restart(1010);
    EXPECT_EQ(h.engine.waitingCount(), 0u);
    EXPECT_TRUE(h.engine.isLearning(1010 + 899));
    EXPECT_TRUE(h.engine.seen().knowsApp(AppKey{"/opt/a", ""}));
    EXPECT_TRUE(h.at(3000, {flow("/opt/a", "a", "1.1.1.1")}).empty());
    EXPECT_EQ(h.engine.waitingCount(), 0u);
}

TEST(AlertEngine, HostsKeptPerDigestStopAtTwenty) {
    std::vector<Flow> flows;
    for (int i = 0; i < 25; ++i) flows.push_back(flow("/opt/a", "a", "3.3.3." + std::to_string(i)));
    AlertPolicy wide;
    wide.namesInDigest = 100;
    AlertEngine engine(wide, -100000, SeenStore{}, {}, [] { return 0.0; });
    engine.observe(flows, 1000, true, true);
    auto alerts = engine.observe({}, 1060, true, true);
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].hosts.size(), 20u);
    EXPECT_EQ(alerts[0].hostCount, 25);
}

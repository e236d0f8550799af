#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PermissionsMonitor.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {
struct Fixture {
    bool trusted = false;
    int listen = 1;
    ManualScheduler scheduler;
    std::vector<std::string> logged;
    PermissionsMonitor monitor{PermissionSource{[this] { return trusted; }, [this] { return listen; }}, scheduler};
    int changes = 0;
    Fixture() {
        monitor.onStateChange = [this] { ++changes; };
        Log::setSink([this](LogLevel, std::string_view category, std::string_view message) {
            logged.push_back(std::string(category) + ": " + std::string(message));
        });
    }
    ~Fixture() { Log::setSink(nullptr); }
};
} // namespace

TEST(PermissionsMonitor, ListenAnswersMapToStates) {
    EXPECT_EQ(PermissionsMonitor::listenState(0), PermissionState::granted);
    EXPECT_EQ(PermissionsMonitor::listenState(1), PermissionState::denied);
    EXPECT_EQ(PermissionsMonitor::listenState(2), PermissionState::unknown);
    EXPECT_EQ(PermissionsMonitor::listenState(-1), PermissionState::unknown);
}

TEST(PermissionsMonitor, OnlyARealChangeIsLoggedAndTold) {
    Fixture f;
    f.monitor.refresh();
    EXPECT_EQ(f.changes, 1);
    EXPECT_EQ(f.logged, (std::vector<std::string>{"permissions: Permissions changed — accessibility: denied, input monitoring: denied"}));
    f.monitor.refresh();
    EXPECT_EQ(f.changes, 1);
    EXPECT_EQ(f.logged.size(), 1u);
    f.listen = 2;
    f.monitor.refresh();
    EXPECT_EQ(f.changes, 2);
    EXPECT_EQ(f.logged.back(), "permissions: Permissions changed — accessibility: denied, input monitoring: unknown");
}

TEST(PermissionsMonitor, PollingEverySecondUntilEnded) {
    Fixture f;
    f.monitor.refresh();
    f.monitor.beginPolling();
    f.monitor.beginPolling();  // one timer, not two
    EXPECT_EQ(f.scheduler.pendingTimers(), 1u);
    f.trusted = true;
    f.scheduler.advance(0.9);
    EXPECT_EQ(f.monitor.state(Permission::accessibility), PermissionState::denied);
    f.scheduler.advance(0.1);
    EXPECT_EQ(f.monitor.state(Permission::accessibility), PermissionState::granted);
    EXPECT_EQ(f.changes, 2);
    f.monitor.endPolling();
    EXPECT_FALSE(f.monitor.isPolling());
    f.trusted = false;
    f.scheduler.advance(5);
    EXPECT_EQ(f.monitor.state(Permission::accessibility), PermissionState::granted);
}

TEST(PermissionsMonitor, RequestsAskThenPollAndSettingsOpenTheirPanes) {
    ManualScheduler scheduler;
    int prompts = 0;
    int listen = 2;
    std::vector<std::string> opened;
    PermissionsMonitor monitor(PermissionSource{.isAccessibilityTrusted = [] { return false; },
                                                .listenAccess = [&] { return listen; },
                                                .promptForAccessibility = [&] { ++prompts; },
                                                .requestListenAccess = [&] {
                                                    listen = 1;
                                                    return false;
                                                },
                                                .openURL = [&](const std::string& url) { opened.push_back(url); }},
                               scheduler);
    monitor.promptForAccessibility();
    EXPECT_EQ(prompts, 1);
    EXPECT_TRUE(monitor.isPolling());
    monitor.endPolling();

    EXPECT_FALSE(monitor.requestInputMonitoring());
    // Read at once, not a second later.
    EXPECT_EQ(monitor.state(Permission::inputMonitoring), PermissionState::denied);
    EXPECT_TRUE(monitor.isPolling());

    monitor.openSettings(Permission::accessibility);
    monitor.openSettings(Permission::inputMonitoring);
    EXPECT_EQ(opened, (std::vector<std::string>{
                          "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility",
                          "x-apple.systempreferences:com.apple.preference.security?Privacy_ListenEvent"}));
}

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

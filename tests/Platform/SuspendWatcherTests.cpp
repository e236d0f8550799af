#include "CoreKit/ManualScheduler.h"
#include "Platform/Linux/SuspendWatcher.h"

#include <gtest/gtest.h>

using namespace tavrick;

TEST(SuspendWatcher, AJumpBetweenTheClocksIsAWakeAndNoiseIsNot) {
    ManualScheduler scheduler;
    WorkspaceNotifications workspace(scheduler);
    double monotonic = 1000, boottime = 1000;
    SuspendWatcher watcher(workspace, scheduler, {[&] { return monotonic; }, [&] { return boottime; }});
    int wakes = 0, terminations = 0;
    auto wake = workspace.observe(WorkspaceEvent::didWake, [&](const WorkspaceNotification&) { ++wakes; });
    auto end = workspace.observe(WorkspaceEvent::willTerminate, [&](const WorkspaceNotification&) { ++terminations; });

    monotonic += 5;
    boottime += 6.9;  // 1.9 s unaccounted for: a busy machine, not a sleep
    scheduler.advance(SuspendWatcher::checkInterval);
    EXPECT_EQ(wakes, 0);

    monotonic += 5;
    boottime += 5 + 3600;  // an hour asleep
    scheduler.advance(SuspendWatcher::checkInterval);
    EXPECT_EQ(wakes, 1);

    // The same gap afterwards is no new sleep.
    monotonic += 5;
    boottime += 5;
    scheduler.advance(SuspendWatcher::checkInterval);
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(terminations, 0);

    wake.cancel();
    monotonic += 5;
    boottime += 60;
    scheduler.advance(SuspendWatcher::checkInterval);
    EXPECT_EQ(wakes, 1);
}

TEST(WorkspaceNotifications, OffTheMainThreadObserversRunOnTheMainQueueInOrder) {
    ManualScheduler scheduler;
    WorkspaceNotifications workspace(scheduler);
    std::vector<std::string> heard;
    auto first = workspace.observe(WorkspaceEvent::didActivateApplication,
                                   [&](const WorkspaceNotification& n) { heard.push_back("first " + *n.bundleID); });
    auto second = workspace.observe(WorkspaceEvent::didActivateApplication,
                                    [&](const WorkspaceNotification& n) { heard.push_back("second " + *n.bundleID); });
    std::thread([&] { workspace.post({WorkspaceEvent::didActivateApplication, std::string("org.gnome.Terminal")}); }).join();
    EXPECT_TRUE(heard.empty());
    scheduler.runUntilIdle();
    EXPECT_EQ(heard, (std::vector<std::string>{"first org.gnome.Terminal", "second org.gnome.Terminal"}));

    // On the main thread delivery is immediate, which termination relies on.
    heard.clear();
    workspace.post({WorkspaceEvent::didActivateApplication, std::string("x")});
    EXPECT_EQ(heard.size(), 2u);
}

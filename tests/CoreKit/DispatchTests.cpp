#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"

#include <gtest/gtest.h>

#include <vector>

using namespace tavrick;

TEST(ManualScheduler, TimersFireInDeadlineOrderWithPostedBlocksBetween) {
    ManualScheduler scheduler;
    std::vector<std::string> order;
    scheduler.after(3.0, [&] { order.push_back("3.0"); });
    scheduler.after(1.0, [&] {
        order.push_back("1.0");
        scheduler.async([&] { order.push_back("posted by 1.0"); });
    });
    scheduler.after(1.0, [&] { order.push_back("1.0 second"); });
    scheduler.advance(2.9);
    EXPECT_EQ(order, (std::vector<std::string>{"1.0", "posted by 1.0", "1.0 second"}));
    EXPECT_DOUBLE_EQ(scheduler.clock().monotonic(), 2.9);
    scheduler.advance(0.1);
    EXPECT_EQ(order.back(), "3.0");
}

TEST(ManualScheduler, RepeatingTimerFiresEachIntervalUntilCancelled) {
    ManualScheduler scheduler;
    std::vector<double> fired;
    auto timer = scheduler.every(1.0, [&] { fired.push_back(scheduler.clock().monotonic()); });
    scheduler.advance(3.5);
    EXPECT_EQ(fired, (std::vector<double>{1.0, 2.0, 3.0}));
    timer.cancel();
    scheduler.advance(5);
    EXPECT_EQ(fired.size(), 3u);
    EXPECT_EQ(scheduler.pendingTimers(), 0u);
}

TEST(ManualScheduler, SerialSyncRunsEarlierBlocksOfThatQueueFirst) {
    ManualScheduler scheduler;
    auto queue = scheduler.makeSerialQueue("q", QoS::utility);
    std::vector<int> order;
    queue->async([&] { order.push_back(1); });
    scheduler.async([&] { order.push_back(99); });
    queue->sync([&] {
        EXPECT_TRUE(queue->isCurrent());
        order.push_back(2);
    });
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_FALSE(queue->isCurrent());
    scheduler.runUntilIdle();
    EXPECT_EQ(order.back(), 99);
}

// The real scheduler is proved with real threads: a few short waits are the point here.
TEST(DispatchScheduler, SerialQueueKeepsOrderAndSyncWaitsForEarlierBlocks) {
    DispatchScheduler scheduler;
    auto queue = scheduler.makeSerialQueue("com.orvell.tavrick.test", QoS::utility);
    std::vector<int> seen;
    for (int i = 0; i < 100; ++i) queue->async([&seen, i] { seen.push_back(i); });
    bool wasCurrent = false;
    queue->sync([&] { wasCurrent = queue->isCurrent(); });
    ASSERT_EQ(seen.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
    EXPECT_TRUE(wasCurrent);
    EXPECT_FALSE(queue->isCurrent());
}

TEST(DispatchScheduler, MainLoopRunsPostedBlocksAndTimersUntilStopped) {
    DispatchScheduler scheduler;
    std::vector<std::string> order;
    std::atomic<bool> globalRan{false};
    scheduler.global(QoS::userInitiated, [&] {
        globalRan = true;
        scheduler.async([&] { order.push_back("from pool"); });
    });
    auto cancelled = scheduler.after(0.01, [&] { order.push_back("cancelled"); });
    cancelled.cancel();
    scheduler.after(0.05, [&] {
        order.push_back("timer");
        scheduler.stopMain();
    });
    EXPECT_TRUE(scheduler.isMainThread());
    scheduler.runMain();
    EXPECT_TRUE(globalRan);
    EXPECT_EQ(order, (std::vector<std::string>{"from pool", "timer"}));
}

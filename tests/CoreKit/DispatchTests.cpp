#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/RunLoop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
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

TEST(DispatchScheduler, MainLoopRunsPoolPostsAndTimersUntilStopped) {
    DispatchScheduler scheduler;
    std::vector<std::string> seen;
    // The loop stops once both the pool's post and the timer have arrived, in whichever order.
    auto arrived = [&](const char* what) {
        seen.push_back(what);
        if (seen.size() == 2) scheduler.stopMain();
    };
    scheduler.global(QoS::userInitiated, [&] { scheduler.async([&] { arrived("from pool"); }); });
    auto cancelled = scheduler.after(0.01, [&] { seen.push_back("cancelled"); });
    cancelled.cancel();
    scheduler.after(0.02, [&] { arrived("timer"); });
    EXPECT_TRUE(scheduler.isMainThread());
    scheduler.runMain();
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"from pool", "timer"}));
}

TEST(RunLoop, AStopEndsOneRunAndTheLoopRunsAgain) {
    RunLoop loop;
    loop.stop();
    EXPECT_FALSE(loop.runFor(5)) << "a stop before the run ends it at once";
    EXPECT_TRUE(loop.runFor(0)) << "the stop was used up";

    int ran = 0;
    loop.perform([&] {
        ++ran;
        EXPECT_TRUE(loop.isCurrent());
        loop.stop();
    });
    EXPECT_FALSE(loop.runFor(5));
    loop.perform([&] { ++ran; });
    EXPECT_TRUE(loop.runFor(0)) << "runs what is waiting, then the time is up";
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(loop.isCurrent());
}

TEST(RunLoop, ARepeatingTimerIsReArmedFromWhenItRanNotFromWhenItWasDue) {
    // A first run slower than several intervals must not be followed by a burst of catch-up runs.
    constexpr double interval = 0.02;
    RunLoop loop;
    std::vector<double> started, ended;
    auto now = [] { return SystemClock::shared().monotonic(); };
    auto timer = loop.schedule(0, interval, [&] {
        started.push_back(now());
        if (started.size() == 1) std::this_thread::sleep_for(std::chrono::duration<double>(5 * interval));
        ended.push_back(now());
        if (started.size() == 3) loop.stop();
    });
    loop.run();
    ASSERT_EQ(started.size(), 3u);
    EXPECT_GE(started[2] - ended[0], interval - 1e-9);
    timer.cancel();
    EXPECT_TRUE(loop.runFor(3 * interval));
    EXPECT_EQ(started.size(), 3u) << "a cancelled timer does not fire";
}

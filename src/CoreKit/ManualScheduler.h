#pragma once

#include "CoreKit/Dispatch.h"

#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace tavrick {

// Virtual time for tests. `wall` starts at a fixed date and moves only through `advance`.
class ManualClock final : public Clock {
public:
    explicit ManualClock(double wallStart = 1763251200.0) : wallStart_(wallStart) {}
    double now() const override { return wallStart_ + elapsed(); }
    double monotonic() const override { return elapsed(); }
    void advance(double seconds);
    void setWall(double wall);

private:
    double elapsed() const;
    mutable std::mutex mutex_;
    double wallStart_;
    double elapsed_ = 0;
};

// A scheduler that runs nothing by itself: blocks wait until the test calls `runUntilIdle` or
// `advance`, and then run on the test's thread in the order they were given. Blocks may be
// posted from any thread.
class ManualScheduler final : public Scheduler {
public:
    ManualScheduler();
    ~ManualScheduler() override;

    Clock& clock() override { return clock_; }
    ManualClock& manualClock() { return clock_; }
    void async(Task task) override;
    bool isMainThread() const override;
    void global(QoS qos, Task task) override;
    std::shared_ptr<SerialQueue> makeSerialQueue(std::string label, QoS qos) override;
    Cancellable after(double seconds, Task task) override;
    Cancellable every(double interval, Task task) override;

    // Runs posted blocks until none is left; returns how many ran.
    int runUntilIdle();
    // Moves virtual time forward, firing due timers in deadline order, with posted blocks run
    // between them.
    void advance(double seconds);
    // Blocks posted and not yet run, timers included.
    std::size_t pendingTimers() const;
    std::size_t pendingBlocks() const;

private:
    friend class ManualSerialQueue;
    struct Entry {
        const void* queue;  // nullptr for the main queue and the pool
        Task task;
    };
    struct Timer {
        double interval;
        Task task;
        Cancellable handle;
        std::uint64_t order;
    };
    bool runOne(const void* onlyQueue);

    ManualClock clock_;
    std::thread::id owner_;
    mutable std::mutex mutex_;
    std::deque<Entry> blocks_;
    std::multimap<std::pair<double, std::uint64_t>, Timer> timers_;
    std::uint64_t nextOrder_ = 0;
    const void* running_ = nullptr;
};

} // namespace tavrick

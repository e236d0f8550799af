#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/RunLoop.h"

#include <thread>
#include <vector>

namespace tavrick {

// The real scheduler: the main queue is a run loop that the process's main thread runs, each
// serial queue owns one worker thread named by its label, and the global pool has a few workers.
class DispatchScheduler final : public Scheduler {
public:
    // Must be constructed on the thread that will run the main queue.
    explicit DispatchScheduler(Clock& clock = SystemClock::shared(), unsigned poolThreads = 4);
    ~DispatchScheduler() override;

    static DispatchScheduler& shared();

    Clock& clock() override { return clock_; }
    void async(Task task) override;
    bool isMainThread() const override;
    void global(QoS qos, Task task) override;
    std::shared_ptr<SerialQueue> makeSerialQueue(std::string label, QoS qos) override;
    Cancellable after(double seconds, Task task) override;
    Cancellable every(double interval, Task task) override;

    // The main thread's loop: runs until `stopMain`, or for a while.
    void runMain();
    bool runMainFor(double seconds);
    void stopMain();
    RunLoop& mainLoop() { return main_; }

private:
    void poolWorker();

    Clock& clock_;
    RunLoop main_;
    std::thread::id mainThread_;
    std::mutex poolMutex_;
    std::condition_variable poolWake_;
    std::deque<Task> poolTasks_;
    bool poolStopping_ = false;
    std::vector<std::thread> pool_;
};

// Names the calling thread as the system shows it (at most 15 characters on Linux, so the tail
// of a long label is kept, where labels differ).
void setCurrentThreadName(const std::string& name);

} // namespace tavrick

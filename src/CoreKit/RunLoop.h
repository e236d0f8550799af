#pragma once

#include "CoreKit/Dispatch.h"

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace tavrick {

// A run loop for one thread: blocks given to `perform` and timers run on whichever thread calls
// `run`, one at a time. The main queue and every event tap thread run one of these.
class RunLoop {
public:
    RunLoop();
    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    // Any thread.
    void perform(Task task);
    // Fires `delay` seconds from now and then, when `interval` is above 0, every `interval`.
    Cancellable schedule(double delay, double interval, Task task);
    void stop();

    // Runs until `stop`. A stop that came before `run` makes it return at once.
    void run();
    // Runs for at most `seconds`, or until `stop`. Returns false when it was stopped.
    bool runFor(double seconds);

    bool isCurrent() const;
    static RunLoop* current();

private:
    struct Timer {
        double interval;
        Task task;
        Cancellable handle;
    };
    bool runUntil(double deadline);

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    std::multimap<double, Timer> timers_;
    bool stopped_ = false;
    std::thread::id owner_;
};

} // namespace tavrick

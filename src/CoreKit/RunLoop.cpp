#include "CoreKit/RunLoop.h"

#include <chrono>
#include <limits>

namespace tavrick {

namespace {
thread_local RunLoop* currentLoop = nullptr;

double monotonicNow() {
    return SystemClock::shared().monotonic();
}
} // namespace

Cancellable Cancellable::make() {
    Cancellable c;
    c.state_ = std::make_shared<std::atomic<bool>>(false);
    return c;
}

void Cancellable::cancel() const {
    if (state_) state_->store(true, std::memory_order_release);
}

bool Cancellable::isCancelled() const {
    return state_ && state_->load(std::memory_order_acquire);
}

RunLoop::RunLoop() = default;
RunLoop::~RunLoop() = default;

void RunLoop::perform(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake_.notify_one();
}

Cancellable RunLoop::schedule(double delay, double interval, Task task) {
    auto handle = Cancellable::make();
    {
        std::lock_guard lock(mutex_);
        timers_.emplace(monotonicNow() + delay, Timer{interval, std::move(task), handle});
    }
    wake_.notify_one();
    return handle;
}

void RunLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    wake_.notify_all();
}

void RunLoop::run() {
    runUntil(std::numeric_limits<double>::infinity());
}

bool RunLoop::runFor(double seconds) {
    return runUntil(monotonicNow() + seconds);
}

bool RunLoop::isCurrent() const {
    return currentLoop == this;
}

RunLoop* RunLoop::current() {
    return currentLoop;
}

bool RunLoop::runUntil(double deadline) {
    RunLoop* outer = currentLoop;
    currentLoop = this;
    {
        std::lock_guard lock(mutex_);
        owner_ = std::this_thread::get_id();
    }
    bool stoppedByRequest = false;
    std::unique_lock lock(mutex_);
    for (;;) {
        if (stopped_) {
            stopped_ = false;  // a stop ends one run, so the loop can be run again
            stoppedByRequest = true;
            break;
        }
        double now = monotonicNow();
        if (!tasks_.empty()) {
            Task task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (!timers_.empty() && timers_.begin()->first <= now) {
            auto node = timers_.extract(timers_.begin());
            Timer& timer = node.mapped();
            if (timer.handle.isCancelled()) continue;
            Task task = timer.task;
            if (timer.interval > 0) {
                node.key() = now + timer.interval;
                timers_.insert(std::move(node));
            }
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (now >= deadline) break;
        double until = deadline;
        if (!timers_.empty()) until = std::min(until, timers_.begin()->first);
        if (until == std::numeric_limits<double>::infinity()) {
            wake_.wait(lock);
        } else {
            wake_.wait_for(lock, std::chrono::duration<double>(until - now));
        }
    }
    lock.unlock();
    currentLoop = outer;
    return !stoppedByRequest;
}

} // namespace tavrick

#include "CoreKit/ManualScheduler.h"

#include <algorithm>

namespace tavrick {

void ManualClock::advance(double seconds) {
    std::lock_guard lock(mutex_);
    elapsed_ += seconds;
}

void ManualClock::setWall(double wall) {
    std::lock_guard lock(mutex_);
    wallStart_ = wall - elapsed_;
}

double ManualClock::elapsed() const {
    std::lock_guard lock(mutex_);
    return elapsed_;
}

class ManualSerialQueue final : public SerialQueue {
public:
    ManualSerialQueue(ManualScheduler& owner, std::string label)
        : owner_(owner), label_(std::move(label)) {}
    const std::string& label() const override { return label_; }
    void async(Task task) override {
        std::lock_guard lock(owner_.mutex_);
        owner_.blocks_.push_back({this, std::move(task)});
    }
    void sync(const Task& task) override {
        // Everything this queue was given earlier runs first, then the block itself.
        while (owner_.runOne(this)) {
        }
        const void* outer = owner_.running_;
        owner_.running_ = this;
        task();
        owner_.running_ = outer;
    }
    bool isCurrent() const override { return owner_.running_ == this; }

private:
    ManualScheduler& owner_;
    std::string label_;
};

ManualScheduler::ManualScheduler() : owner_(std::this_thread::get_id()) {}
ManualScheduler::~ManualScheduler() = default;

void ManualScheduler::async(Task task) {
    std::lock_guard lock(mutex_);
    blocks_.push_back({nullptr, std::move(task)});
}

bool ManualScheduler::isMainThread() const {
    return std::this_thread::get_id() == owner_;
}

void ManualScheduler::global(QoS, Task task) {
    async(std::move(task));
}

std::shared_ptr<SerialQueue> ManualScheduler::makeSerialQueue(std::string label, QoS) {
    return std::make_shared<ManualSerialQueue>(*this, std::move(label));
}

Cancellable ManualScheduler::after(double seconds, Task task) {
    auto handle = Cancellable::make();
    std::lock_guard lock(mutex_);
    auto order = nextOrder_++;
    timers_.emplace(std::make_pair(clock_.monotonic() + seconds, order), Timer{0, std::move(task), handle, order});
    return handle;
}

Cancellable ManualScheduler::every(double interval, Task task) {
    auto handle = Cancellable::make();
    std::lock_guard lock(mutex_);
    auto order = nextOrder_++;
    timers_.emplace(std::make_pair(clock_.monotonic() + interval, order), Timer{interval, std::move(task), handle, order});
    return handle;
}

bool ManualScheduler::runOne(const void* onlyQueue) {
    Entry entry;
    {
        std::lock_guard lock(mutex_);
        auto it = blocks_.begin();
        if (onlyQueue) {
            while (it != blocks_.end() && it->queue != onlyQueue) ++it;
        }
        if (it == blocks_.end()) return false;
        entry = std::move(*it);
        blocks_.erase(it);
    }
    const void* outer = running_;
    running_ = entry.queue;
    entry.task();
    running_ = outer;
    return true;
}

int ManualScheduler::runUntilIdle() {
    int count = 0;
    while (runOne(nullptr)) ++count;
    return count;
}

void ManualScheduler::advance(double seconds) {
    const double target = clock_.monotonic() + seconds;
    for (;;) {
        runUntilIdle();
        Timer timer;
        double due;
        {
            std::lock_guard lock(mutex_);
            // Cancelled timers are dropped as they come up.
            while (!timers_.empty() && timers_.begin()->second.handle.isCancelled()) {
                timers_.erase(timers_.begin());
            }
            if (timers_.empty() || timers_.begin()->first.first > target) break;
            auto node = timers_.extract(timers_.begin());
            due = node.key().first;
            timer = node.mapped();
            if (timer.interval > 0) {
                node.key() = {due + timer.interval, nextOrder_++};
                timers_.insert(std::move(node));
            }
        }
        clock_.advance(std::max(0.0, due - clock_.monotonic()));
        timer.task();
    }
    clock_.advance(target - clock_.monotonic());
    runUntilIdle();
}

std::size_t ManualScheduler::pendingTimers() const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (auto& [key, timer] : timers_) {
        if (!timer.handle.isCancelled()) ++n;
    }
    return n;
}

std::size_t ManualScheduler::pendingBlocks() const {
    std::lock_guard lock(mutex_);
    return blocks_.size();
}

} // namespace tavrick

#include "CoreKit/DispatchScheduler.h"

#include <cassert>
#include <future>
#include <pthread.h>

namespace tavrick {

void setCurrentThreadName(const std::string& name) {
    std::string shortName = name.size() > 15 ? name.substr(name.size() - 15) : name;
    pthread_setname_np(pthread_self(), shortName.c_str());
}

namespace {

class ThreadSerialQueue final : public SerialQueue {
public:
    explicit ThreadSerialQueue(std::string label) : label_(std::move(label)) {
        worker_ = std::thread([this] {
            setCurrentThreadName(label_);
            workerId_ = std::this_thread::get_id();
            std::unique_lock lock(mutex_);
            for (;;) {
                wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
                if (tasks_.empty()) break;  // stopping, and nothing left to run
                Task task = std::move(tasks_.front());
                tasks_.pop_front();
                lock.unlock();
                task();
                lock.lock();
            }
        });
    }

    ~ThreadSerialQueue() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (worker_.get_id() == std::this_thread::get_id()) {
            worker_.detach();  // the last reference went away on the queue itself
        } else {
            worker_.join();
        }
    }

    const std::string& label() const override { return label_; }

    void async(Task task) override {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        wake_.notify_one();
    }

    void sync(const Task& task) override {
        assert(!isCurrent() && "sync on a serial queue from that queue deadlocks");
        std::promise<void> done;
        auto finished = done.get_future();
        async([&] {
            task();
            done.set_value();
        });
        finished.wait();
    }

    bool isCurrent() const override { return std::this_thread::get_id() == workerId_.load(); }

private:
    std::string label_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> tasks_;
    bool stopping_ = false;
    std::atomic<std::thread::id> workerId_{};
    std::thread worker_;
};

} // namespace

DispatchScheduler::DispatchScheduler(Clock& clock, unsigned poolThreads)
    : clock_(clock), mainThread_(std::this_thread::get_id()) {
    for (unsigned i = 0; i < poolThreads; ++i) {
        pool_.emplace_back([this] { poolWorker(); });
    }
}

DispatchScheduler::~DispatchScheduler() {
    {
        std::lock_guard lock(poolMutex_);
        poolStopping_ = true;
    }
    poolWake_.notify_all();
    for (auto& t : pool_) t.join();
}

DispatchScheduler& DispatchScheduler::shared() {
    // Made on first use, which the entry point does on the main thread. It lives for the whole
    // process: pool threads may still be finishing work when static destructors run.
    static auto* scheduler = new DispatchScheduler();
    return *scheduler;
}

void DispatchScheduler::async(Task task) {
    main_.perform(std::move(task));
}

bool DispatchScheduler::isMainThread() const {
    return std::this_thread::get_id() == mainThread_;
}

void DispatchScheduler::global(QoS, Task task) {
    {
        std::lock_guard lock(poolMutex_);
        poolTasks_.push_back(std::move(task));
    }
    poolWake_.notify_one();
}

void DispatchScheduler::poolWorker() {
    setCurrentThreadName("tavrick.global");
    std::unique_lock lock(poolMutex_);
    for (;;) {
        poolWake_.wait(lock, [this] { return poolStopping_ || !poolTasks_.empty(); });
        if (poolTasks_.empty()) return;
        Task task = std::move(poolTasks_.front());
        poolTasks_.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

std::shared_ptr<SerialQueue> DispatchScheduler::makeSerialQueue(std::string label, QoS) {
    return std::make_shared<ThreadSerialQueue>(std::move(label));
}

Cancellable DispatchScheduler::after(double seconds, Task task) {
    return main_.schedule(seconds, 0, std::move(task));
}

Cancellable DispatchScheduler::every(double interval, Task task) {
    return main_.schedule(interval, interval, std::move(task));
}

void DispatchScheduler::runMain() {
    main_.run();
}

bool DispatchScheduler::runMainFor(double seconds) {
    return main_.runFor(seconds);
}

void DispatchScheduler::stopMain() {
    main_.stop();
}

} // namespace tavrick

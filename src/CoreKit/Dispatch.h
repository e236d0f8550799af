#pragma once

#include "CoreKit/Clock.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace tavrick {

using Task = std::function<void()>;

// Quality of service of a queue or a thread; it maps to a scheduling hint where the host has one.
enum class QoS { userInteractive, userInitiated, utility, background };

// A handle on a scheduled timer or block. Copies share the same cancellation; cancelling is
// idempotent and safe from any thread. A default-constructed handle refers to nothing.
class Cancellable {
public:
    Cancellable() = default;
    static Cancellable make();
    void cancel() const;
    bool isCancelled() const;
    explicit operator bool() const { return static_cast<bool>(state_); }

private:
    std::shared_ptr<std::atomic<bool>> state_;
};

// One worker, one task at a time, in the order they were given.
class SerialQueue {
public:
    virtual ~SerialQueue() = default;
    virtual const std::string& label() const = 0;
    virtual void async(Task task) = 0;
    // Runs the task on the queue and waits for it, after everything enqueued before it.
    // Must not be called from the queue itself.
    virtual void sync(const Task& task) = 0;
    virtual bool isCurrent() const = 0;
};

// Everything that waits in the program waits through this: the main queue, named serial queues,
// the global pool and timers. The real one runs threads; the manual one runs on virtual time.
class Scheduler {
public:
    virtual ~Scheduler() = default;

    virtual Clock& clock() = 0;

    // The main queue.
    virtual void async(Task task) = 0;
    virtual bool isMainThread() const = 0;

    // The global pool.
    virtual void global(QoS qos, Task task) = 0;

    virtual std::shared_ptr<SerialQueue> makeSerialQueue(std::string label, QoS qos) = 0;

    // Timers fire on the main queue. A repeating timer first fires one interval from now.
    virtual Cancellable after(double seconds, Task task) = 0;
    virtual Cancellable every(double interval, Task task) = 0;
};

} // namespace tavrick

#pragma once

#include "CoreKit/EventSystem.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace tavrick {

class EventTapError : public std::runtime_error {
public:
    enum class Code { creationFailed };

    explicit EventTapError(Code code = Code::creationFailed);
    Code code() const { return code_; }
    static const char* description(Code code);

private:
    Code code_;
};

// A counter bumped on the tap's thread and read by the watchdog and by diagnostics.
class AtomicCounter {
public:
    long increment() { return count_.fetch_add(1, std::memory_order_relaxed) + 1; }
    long value() const { return count_.load(std::memory_order_relaxed); }

private:
    std::atomic<long> count_{0};
};

// One session event tap on a thread of its own, kept alive: the system silently disables a tap
// whose callback was slow, and a disabled hotkey tap is a shortcut that just stops working. So
// the tap re-enables itself on the system's notices and, in case those are missed, from a
// watchdog timer on its own run loop.
class EventTap {
public:
    // Called on the tap's thread, one event at a time; returning nothing swallows the event.
    using Handler = std::function<std::optional<Event>(EventType, const Event&)>;

    static constexpr double defaultWatchdogInterval = 5.0;

    EventTap(EventSystem& system, std::string label, EventMask eventMask, TapOptions options,
             Handler handler, double watchdogInterval = defaultWatchdogInterval);
    // Stops the tap when it still runs.
    ~EventTap();
    EventTap(const EventTap&) = delete;
    EventTap& operator=(const EventTap&) = delete;

    // Returns once the tap exists, on its own thread, or throws `EventTapError` when the session
    // refused it. Does nothing while running; after a failure it may be called again.
    void start();
    // Any thread, the tap's own included (a handler may stop its tap).
    void stop();
    bool isRunning() const;
    // Callbacks so far, notices included.
    long eventCount() const;
    const std::string& label() const;

    static std::string threadName(const std::string& label);

    // What the tap's thread, callback and watchdog share; opaque outside the implementation.
    struct State;

private:
    std::shared_ptr<State> state_;
};

} // namespace tavrick

#include "CoreKit/EventTap.h"

#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/Log.h"

#include <future>
#include <mutex>
#include <thread>
#include <utility>

namespace tavrick {

EventTapError::EventTapError(Code code) : std::runtime_error(description(code)), code_(code) {}

const char* EventTapError::description(Code code) {
    switch (code) {
    case Code::creationFailed:
        return "Could not create the event tap. This usually means Input Monitoring or "
               "Accessibility permission has not been granted.";
    }
    return "";
}

// Everything the tap's thread, its callback and its watchdog share. The thread holds it while it
// runs, and the callback and the watchdog hold it weakly, so an `EventTap` can go away from any
// thread, its own included, without pulling the state from under a running callback.
struct EventTap::State {
    State(EventSystem& system, std::string label, EventMask eventMask, TapOptions options,
          Handler handler, double watchdogInterval)
        : system(system), label(std::move(label)), eventMask(eventMask), options(options),
          handler(std::move(handler)), watchdogInterval(watchdogInterval) {}

    EventSystem& system;
    const std::string label;
    const EventMask eventMask;
    const TapOptions options;
    const Handler handler;
    const double watchdogInterval;
    AtomicCounter eventCount;

    // Guards the four below; never held across a call into the handler or the event system.
    mutable std::mutex lock;
    std::optional<TapHandle> machPort;
    bool source = false;  // the tap is attached to `threadRunLoop`
    std::optional<std::thread::id> thread;
    std::shared_ptr<RunLoop> threadRunLoop;
};

namespace {

using State = EventTap::State;

void reEnableIfNeeded(State& state) {
    std::optional<TapHandle> port;
    {
        std::lock_guard guard(state.lock);
        port = state.machPort;
    }
    if (!port) {
        Log::core.notice("Watchdog: tap '%s' has no port", state.label.c_str());
        return;
    }
    const bool enabled = state.system.isEnabled(*port);
    Log::core.info("Watchdog: tap '%s' enabled=%s events=%ld", state.label.c_str(),
                   enabled ? "true" : "false", state.eventCount.value());
    if (!enabled) {
        Log::core.notice("Event tap '%s' found disabled; re-enabling", state.label.c_str());
        state.system.setEnabled(*port, true);
    }
}

std::optional<Event> handle(State& state, EventType type, const Event& event) {
    state.eventCount.increment();
    switch (type) {
    case EventType::tapDisabledByTimeout:
        Log::core.notice("Event tap '%s' disabled by timeout; re-enabling", state.label.c_str());
        reEnableIfNeeded(state);
        return event;
    case EventType::tapDisabledByUserInput:
        Log::core.notice("Event tap '%s' disabled by user input; re-enabling", state.label.c_str());
        reEnableIfNeeded(state);
        return event;
    default:
        if (!state.handler) return event;
        return state.handler(type, event);
    }
}

// Creates the tap on the calling thread and attaches it to that thread's loop. Returns false
// when the session refused the tap.
bool createTap(const std::shared_ptr<State>& state, const std::shared_ptr<RunLoop>& loop) {
    std::weak_ptr<State> weak = state;
    auto port = state->system.createTap(
        state->options, state->eventMask, [weak](EventType type, const Event& event) -> std::optional<Event> {
            auto strong = weak.lock();
            if (!strong) return event;
            return handle(*strong, type, event);
        });
    if (!port) {
        Log::core.error("tapCreate failed for '%s' — missing permission?", state->label.c_str());
        return false;
    }
    state->system.attach(*port, loop);
    state->system.setEnabled(*port, true);

    bool stoppedMeanwhile = false;
    {
        std::lock_guard guard(state->lock);
        // A stop() that raced this start cleared `thread`; the tap must not outlive it.
        if (state->thread == std::this_thread::get_id()) {
            state->machPort = port;
            state->source = true;
            state->threadRunLoop = loop;
        } else {
            stoppedMeanwhile = true;
        }
    }
    if (stoppedMeanwhile) {
        state->system.setEnabled(*port, false);
        state->system.detach(*port);
        state->system.removeTap(*port);
        loop->stop();
    }
    return true;
}

void threadBody(std::shared_ptr<State> state, std::promise<bool> outcome) {
    setCurrentThreadName(EventTap::threadName(state->label));
    auto loop = std::make_shared<RunLoop>();
    const bool succeeded = createTap(state, loop);
    outcome.set_value(succeeded);
    if (!succeeded) return;

    std::weak_ptr<State> weak = state;
    loop->schedule(state->watchdogInterval, state->watchdogInterval, [weak] {
        if (auto strong = weak.lock()) reEnableIfNeeded(*strong);
    });
    loop->run();
    Log::core.notice("Event tap '%s' run loop exited", state->label.c_str());
}

} // namespace

EventTap::EventTap(EventSystem& system, std::string label, EventMask eventMask, TapOptions options,
                   Handler handler, double watchdogInterval)
    : state_(std::make_shared<State>(system, std::move(label), eventMask, options, std::move(handler),
                                     watchdogInterval)) {}

EventTap::~EventTap() {
    if (isRunning()) stop();
}

std::string EventTap::threadName(const std::string& label) {
    return "com.orvell.tavrick.eventtap." + label;
}

void EventTap::start() {
    std::promise<bool> promise;
    std::future<bool> outcome = promise.get_future();
    std::thread::id started;
    {
        std::lock_guard guard(state_->lock);
        if (state_->thread) return;
        // Made and recorded in one step, so two racing starts still make one thread.
        std::thread worker(threadBody, state_, std::move(promise));
        started = worker.get_id();
        state_->thread = started;
        // Not joined: a handler may stop its own tap, and the thread ends by itself once its
        // run loop stops.
        worker.detach();
    }
    if (!outcome.get()) {
        {
            std::lock_guard guard(state_->lock);
            if (state_->thread == started) state_->thread.reset();
        }
        throw EventTapError(EventTapError::Code::creationFailed);
    }
    Log::core.notice("Event tap '%s' started", state_->label.c_str());
}

void EventTap::stop() {
    std::optional<TapHandle> port;
    bool source;
    std::shared_ptr<RunLoop> loop;
    {
        std::lock_guard guard(state_->lock);
        port = std::exchange(state_->machPort, std::nullopt);
        source = std::exchange(state_->source, false);
        state_->thread.reset();
        loop = std::exchange(state_->threadRunLoop, nullptr);
    }
    if (port) state_->system.setEnabled(*port, false);
    if (port && loop && source) {
        state_->system.detach(*port);
        loop->stop();
    }
    if (port) state_->system.removeTap(*port);
    Log::core.notice("Event tap '%s' stopped", state_->label.c_str());
}

bool EventTap::isRunning() const {
    std::lock_guard guard(state_->lock);
    return state_->thread.has_value();
}

long EventTap::eventCount() const {
    return state_->eventCount.value();
}

const std::string& EventTap::label() const {
    return state_->label;
}

} // namespace tavrick

#include "Platform/Simulated/SimulatedSession.h"

#include "CoreKit/DispatchScheduler.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace tavrick {

namespace {

struct Tap {
    TapHandle handle;
    TapOptions options;
    EventMask mask;
    std::shared_ptr<const EventSystem::TapCallback> callback;
    bool enabled = true;
    std::shared_ptr<RunLoop> loop;
};

// One callback's answer, filled in on the tap's thread.
struct Delivery {
    bool started = false;
    bool done = false;
    std::optional<Event> answer;
};

} // namespace

struct SimulatedSession::Core {
    mutable std::mutex mutex;
    std::condition_variable changed;

    std::vector<std::shared_ptr<Tap>> taps;  // head first: the newest tap meets events first
    std::uint64_t nextTapID = 1;
    bool tapCreationAllowed = true;
    bool eventCreationAllowed = true;
    bool eventSourceAvailable = true;
    double callbackTimeout = defaultCallbackTimeout;

    std::deque<Event> queue;
    bool busy = false;
    bool stopping = false;
    std::size_t pendingNotices = 0;

    std::vector<Event> delivered;
    std::size_t swallowed = 0;
    std::function<void(const Event&)> onDeliver;

    std::shared_ptr<Tap> find(TapHandle handle) const {
        for (auto& tap : taps) {
            if (tap->handle == handle) return tap;
        }
        return nullptr;
    }
};

namespace {

using Core = SimulatedSession::Core;

// Counts a notice as outstanding until the task carrying it has run, or has been dropped unrun
// with its run loop, so that `drain` covers notices too. The count drops inside the task rather
// than when the task is destroyed, because a run loop destroys a finished task with its own lock
// held, and the session may hold its lock while it hands a run loop a task.
class PendingNotice {
public:
    explicit PendingNotice(const std::shared_ptr<Core>& core) : core_(core) {}
    PendingNotice(const PendingNotice&) = delete;
    PendingNotice& operator=(const PendingNotice&) = delete;
    ~PendingNotice() { finish(); }

    void finish() {
        if (finished_) return;
        finished_ = true;
        if (auto core = core_.lock()) {
            {
                std::lock_guard lock(core->mutex);
                --core->pendingNotices;
            }
            core->changed.notify_all();
        }
    }

private:
    std::weak_ptr<Core> core_;
    bool finished_ = false;
};

// Called with the core's mutex held. The notice goes onto the tap's own run loop and is handled
// whenever that thread gets to it; nobody waits for its answer.
void sendNoticeLocked(const std::shared_ptr<Core>& core, const Tap& tap, EventType type) {
    if (!tap.loop) return;
    ++core->pendingNotices;
    auto pending = std::make_shared<PendingNotice>(core);
    tap.loop->perform([callback = tap.callback, type, pending] {
        (*callback)(type, Event::notice(type));
        pending->finish();
    });
}

// Carries one event through the taps. Runs on the session's delivery thread.
void route(const std::shared_ptr<Core>& core, Event event) {
    std::vector<std::shared_ptr<Tap>> path;
    {
        std::lock_guard lock(core->mutex);
        path = core->taps;
    }
    for (auto& tap : path) {
        std::shared_ptr<RunLoop> loop;
        std::shared_ptr<const EventSystem::TapCallback> callback;
        double timeout;
        {
            std::lock_guard lock(core->mutex);
            // A tap that was removed, disabled, or not attached yet lets the event by.
            if (!core->find(tap->handle) || !tap->enabled || !tap->loop) continue;
            if (!eventMaskContains(tap->mask, event.type)) continue;
            loop = tap->loop;
            callback = tap->callback;
            timeout = core->callbackTimeout;
        }

        auto delivery = std::make_shared<Delivery>();
        std::weak_ptr<Core> weakCore = core;
        loop->perform([weakCore, delivery, callback, event] {
            if (auto strong = weakCore.lock()) {
                std::lock_guard lock(strong->mutex);
                delivery->started = true;
            }
            std::optional<Event> answer = (*callback)(event.type, event);
            auto strong = weakCore.lock();
            if (!strong) return;
            {
                std::lock_guard lock(strong->mutex);
                delivery->answer = answer;
                delivery->done = true;
            }
            strong->changed.notify_all();
        });

        std::unique_lock lock(core->mutex);
        const bool settled = core->changed.wait_for(lock, std::chrono::duration<double>(timeout), [&] {
            // A tap that leaves the stream before its callback began will never answer; one that
            // leaves from inside its callback (a handler stopping its own tap) still does.
            const bool left = tap->loop != loop || !core->find(tap->handle);
            return delivery->done || core->stopping || (left && !delivery->started);
        });
        if (core->stopping) return;
        if (delivery->done) {
            if (tap->options == TapOptions::listenOnly) continue;
            if (!delivery->answer) {
                ++core->swallowed;
                return;
            }
            event = *delivery->answer;
            continue;
        }
        if (!settled) {
            // Too slow: like the real session, give up on the tap, tell it, and move on.
            tap->enabled = false;
            sendNoticeLocked(core, *tap, EventType::tapDisabledByTimeout);
        }
        // Otherwise the tap left the stream before its callback ran; the event goes on.
    }

    std::function<void(const Event&)> onDeliver;
    {
        std::lock_guard lock(core->mutex);
        core->delivered.push_back(event);
        onDeliver = core->onDeliver;
    }
    if (onDeliver) onDeliver(event);
}

void deliveryLoop(std::shared_ptr<Core> core) {
    setCurrentThreadName("tavrick.session");
    std::unique_lock lock(core->mutex);
    for (;;) {
        core->changed.wait(lock, [&] { return core->stopping || !core->queue.empty(); });
        if (core->stopping) return;
        Event event = core->queue.front();
        core->queue.pop_front();
        core->busy = true;
        lock.unlock();
        route(core, event);
        lock.lock();
        core->busy = false;
        core->changed.notify_all();
    }
}

} // namespace

SimulatedSession::SimulatedSession() : core_(std::make_shared<Core>()) {
    worker_ = std::thread(deliveryLoop, core_);
}

SimulatedSession::~SimulatedSession() {
    {
        std::lock_guard lock(core_->mutex);
        core_->stopping = true;
    }
    core_->changed.notify_all();
    worker_.join();
    // Run loops may outlive the session; drop them outside the lock, since dropping the last
    // reference to one destroys the tasks it still holds.
    std::vector<std::shared_ptr<Tap>> taps;
    {
        std::lock_guard lock(core_->mutex);
        taps.swap(core_->taps);
    }
}

std::optional<TapHandle> SimulatedSession::createTap(TapOptions options, EventMask mask, TapCallback callback) {
    std::lock_guard lock(core_->mutex);
    if (!core_->tapCreationAllowed) return std::nullopt;
    auto tap = std::make_shared<Tap>();
    tap->handle = TapHandle{core_->nextTapID++};
    tap->options = options;
    tap->mask = mask;
    tap->callback = std::make_shared<const TapCallback>(std::move(callback));
    core_->taps.insert(core_->taps.begin(), tap);
    return tap->handle;
}

void SimulatedSession::attach(TapHandle handle, std::shared_ptr<RunLoop> loop) {
    std::shared_ptr<RunLoop> previous;
    {
        std::lock_guard lock(core_->mutex);
        auto tap = core_->find(handle);
        if (!tap) return;
        previous = std::exchange(tap->loop, std::move(loop));
    }
    core_->changed.notify_all();
}

void SimulatedSession::detach(TapHandle handle) {
    std::shared_ptr<RunLoop> previous;
    {
        std::lock_guard lock(core_->mutex);
        auto tap = core_->find(handle);
        if (!tap) return;
        previous = std::exchange(tap->loop, nullptr);
    }
    core_->changed.notify_all();
}

void SimulatedSession::setEnabled(TapHandle handle, bool enabled) {
    std::lock_guard lock(core_->mutex);
    if (auto tap = core_->find(handle)) tap->enabled = enabled;
}

bool SimulatedSession::isEnabled(TapHandle handle) const {
    std::lock_guard lock(core_->mutex);
    auto tap = core_->find(handle);
    return tap && tap->enabled;
}

void SimulatedSession::removeTap(TapHandle handle) {
    // Released after the lock: dropping the last reference to a run loop destroys its tasks,
    // and a pending notice's task reports back under the lock.
    std::shared_ptr<RunLoop> loop;
    {
        std::lock_guard lock(core_->mutex);
        auto& taps = core_->taps;
        auto it = std::find_if(taps.begin(), taps.end(), [&](auto& tap) { return tap->handle == handle; });
        if (it == taps.end()) return;
        loop = std::exchange((*it)->loop, nullptr);
        taps.erase(it);
    }
    core_->changed.notify_all();
}

void SimulatedSession::post(const Event& event) {
    {
        std::lock_guard lock(core_->mutex);
        core_->queue.push_back(event);
    }
    core_->changed.notify_all();
}

std::optional<Event> SimulatedSession::makeKeyboardEvent(std::uint16_t keyCode, bool keyDown) {
    std::lock_guard lock(core_->mutex);
    if (!core_->eventCreationAllowed) return std::nullopt;
    return Event::keyboard(keyCode, keyDown);
}

std::optional<Event> SimulatedSession::makeMouseEvent(EventType type, Point location, std::int64_t button) {
    std::lock_guard lock(core_->mutex);
    if (!core_->eventCreationAllowed) return std::nullopt;
    return Event::mouse(type, location, button);
}

void SimulatedSession::setTapCreationAllowed(bool allowed) {
    std::lock_guard lock(core_->mutex);
    core_->tapCreationAllowed = allowed;
}

bool SimulatedSession::isTapCreationAllowed() const {
    std::lock_guard lock(core_->mutex);
    return core_->tapCreationAllowed;
}

void SimulatedSession::setEventCreationAllowed(bool allowed) {
    std::lock_guard lock(core_->mutex);
    core_->eventCreationAllowed = allowed;
}

bool SimulatedSession::hasEventSource() const {
    std::lock_guard lock(core_->mutex);
    return core_->eventSourceAvailable;
}

void SimulatedSession::setEventSourceAvailable(bool available) {
    std::lock_guard lock(core_->mutex);
    core_->eventSourceAvailable = available;
}

void SimulatedSession::setCallbackTimeout(double seconds) {
    std::lock_guard lock(core_->mutex);
    core_->callbackTimeout = seconds;
}

void SimulatedSession::disableTap(TapHandle handle, TapNotice notice) {
    std::lock_guard lock(core_->mutex);
    auto tap = core_->find(handle);
    if (!tap) return;
    tap->enabled = false;
    switch (notice) {
    case TapNotice::none: break;
    case TapNotice::timeout: sendNoticeLocked(core_, *tap, EventType::tapDisabledByTimeout); break;
    case TapNotice::userInput: sendNoticeLocked(core_, *tap, EventType::tapDisabledByUserInput); break;
    }
}

std::vector<SimulatedSession::TapInfo> SimulatedSession::taps() const {
    std::lock_guard lock(core_->mutex);
    std::vector<TapInfo> result;
    result.reserve(core_->taps.size());
    for (auto& tap : core_->taps) {
        result.push_back(TapInfo{tap->handle, tap->options, tap->mask, tap->enabled, tap->loop != nullptr});
    }
    return result;
}

bool SimulatedSession::drain(double timeoutSeconds) {
    std::unique_lock lock(core_->mutex);
    return core_->changed.wait_for(lock, std::chrono::duration<double>(timeoutSeconds), [&] {
        return core_->queue.empty() && !core_->busy && core_->pendingNotices == 0;
    });
}

std::vector<Event> SimulatedSession::delivered() const {
    std::lock_guard lock(core_->mutex);
    return core_->delivered;
}

std::size_t SimulatedSession::swallowedCount() const {
    std::lock_guard lock(core_->mutex);
    return core_->swallowed;
}

void SimulatedSession::clearDelivered() {
    std::lock_guard lock(core_->mutex);
    core_->delivered.clear();
    core_->swallowed = 0;
}

void SimulatedSession::setOnDeliver(std::function<void(const Event&)> onDeliver) {
    std::lock_guard lock(core_->mutex);
    core_->onDeliver = std::move(onDeliver);
}

} // namespace tavrick

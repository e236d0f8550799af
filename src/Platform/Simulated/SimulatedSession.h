#pragma once

#include "CoreKit/EventSystem.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace tavrick {

// The desktop session's keyboard and mouse stream, simulated. Posted events travel, one at a time
// and in order, through the taps, newest first; each tap's callback runs on the thread of the run
// loop it is attached to while the session waits for its answer. What passes every tap reaches
// the frontmost application, which here means the `delivered` record.
//
// Like the real session it refuses taps when told the permission is missing, disables a tap
// whose callback is too slow (and tells it so), and can disable a tap on demand, with or without
// telling it, so that a tap's own recovery can be exercised.
class SimulatedSession final : public EventSystem {
public:
    // How long the session waits for one callback before it gives up on the tap.
    static constexpr double defaultCallbackTimeout = 1.0;

    enum class TapNotice { none, timeout, userInput };

    struct TapInfo {
        TapHandle handle;
        TapOptions options = TapOptions::active;
        EventMask mask = 0;
        bool enabled = false;
        bool attached = false;
    };

    SimulatedSession();
    // Events still queued are dropped.
    ~SimulatedSession() override;
    SimulatedSession(const SimulatedSession&) = delete;
    SimulatedSession& operator=(const SimulatedSession&) = delete;

    std::optional<TapHandle> createTap(TapOptions options, EventMask mask, TapCallback callback) override;
    void attach(TapHandle tap, std::shared_ptr<RunLoop> loop) override;
    void detach(TapHandle tap) override;
    void setEnabled(TapHandle tap, bool enabled) override;
    bool isEnabled(TapHandle tap) const override;
    void removeTap(TapHandle tap) override;
    void post(const Event& event) override;
    std::optional<Event> makeKeyboardEvent(std::uint16_t keyCode, bool keyDown) override;
    // Refused, like keys, while event creation is not allowed.
    std::optional<Event> makeMouseEvent(EventType type, Point location, std::int64_t button) override;
    bool hasEventSource() const override;

    // Scripting, from any thread.
    void setTapCreationAllowed(bool allowed);
    // Whether taps are granted, which is what both permissions amount to here.
    bool isTapCreationAllowed() const;
    void setEventCreationAllowed(bool allowed);
    void setEventSourceAvailable(bool available);
    void setCallbackTimeout(double seconds);
    // Disables the tap as the system would; the notice, when there is one, reaches the tap's
    // callback on its own thread.
    void disableTap(TapHandle tap, TapNotice notice = TapNotice::none);
    // Live taps, in the order an event meets them.
    std::vector<TapInfo> taps() const;

    // Waits until every event posted so far has been delivered or swallowed and every notice has
    // been handled. False when that took longer than `timeoutSeconds`. Not from a tap's callback,
    // which the session may be waiting for.
    bool drain(double timeoutSeconds = 5.0);

    // What reached the frontmost application, in order.
    std::vector<Event> delivered() const;
    std::size_t swallowedCount() const;
    void clearDelivered();
    // Called on the session's delivery thread for each event that reaches the application.
    void setOnDeliver(std::function<void(const Event&)> onDeliver);

    struct Core;

private:
    std::shared_ptr<Core> core_;
    std::thread worker_;
};

} // namespace tavrick

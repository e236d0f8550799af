#pragma once

#include "CoreKit/EventSystem.h"
#include "CoreKit/KeyboardLayout.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavrick {

class X11Connection;

// The keyboard and mouse of an X11 session. X11 lets no listener swallow a key, so the
// combinations an engine owns are grabbed on the root window (once for each combination of the
// lock modifiers) with the keyboard frozen until the active taps have decided: a swallowed press
// is consumed, a passed one replayed to the window that has the focus. Everything else is heard
// through XInput 2 raw events and reaches the taps listen-only: keys always, and the left
// button with the pointer's moves while a tap listens to it (raw events see a window manager's
// move too, which grabs the pointer). Synthetic input goes through
// XTest and is marked as the program's own when it comes back.
//
// One thread of its own reads the connection. When the server goes away it says so once and
// calls `onServerLost`; every grab is released on every way out.
class X11EventSystem final : public EventSystem {
public:
    // How long a frozen keyboard waits for the taps before the press is replayed.
    static constexpr double defaultDecisionTimeout = 1.0;
    // How long a burst of keyboard mapping changes is left to settle before keys are grabbed again.
    static constexpr double remapDebounceSeconds = 0.15;

    // Takes a connection of its own: its events are this object's alone.
    explicit X11EventSystem(std::unique_ptr<X11Connection> connection);
    ~X11EventSystem() override;
    X11EventSystem(const X11EventSystem&) = delete;
    X11EventSystem& operator=(const X11EventSystem&) = delete;

    std::optional<TapHandle> createTap(TapOptions options, EventMask mask, TapCallback callback) override;
    void attach(TapHandle tap, std::shared_ptr<RunLoop> loop) override;
    void detach(TapHandle tap) override;
    void setEnabled(TapHandle tap, bool enabled) override;
    bool isEnabled(TapHandle tap) const override;
    void removeTap(TapHandle tap) override;
    void post(const Event& event) override;
    std::optional<Event> makeKeyboardEvent(std::uint16_t keyCode, bool keyDown) override;
    bool hasEventSource() const override;
    std::vector<HotkeySpec> ownKeyCombinations(const std::string& owner, const std::vector<HotkeySpec>& combinations) override;

    // The legends of the keys on the server's current keyboard mapping, and its changes.
    KeyboardLayoutSource layoutSource();

    // Called once, on the reader thread, when the connection broke.
    void setOnServerLost(std::function<void(const std::string& why)> onServerLost);
    bool isServerAlive() const;
    // Grabs held now: combinations times lock variants that the server granted.
    std::size_t grabCount() const;
    // Waits until the reader has handled everything the server sent before this call.
    bool sync(double timeoutSeconds = 5.0);

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

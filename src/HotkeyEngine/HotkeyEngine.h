#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/EventTap.h"
#include "HotkeyEngine/HotkeyTable.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tavrick {

// Watches the keyboard through a session event tap and turns a key-down that matches an enabled
// hotkey mapping into a call of `onTrigger`, swallowing the key so that the frontmost application
// never sees it. It decides nothing about what a mapping does.
class HotkeyEngine {
public:
    using OnTrigger = std::function<void(const Mapping&)>;
    // The self-test's probe: every key-down the tap hears, whether it matched or not.
    using ObserveKeys = std::function<void(std::uint16_t keyCode, Modifiers modifiers, bool matched)>;

    // Key-down and flags-changed. Flags-changed is there only to keep the tap's view of the
    // modifiers alive; key-ups pass by outside the mask.
    static constexpr EventMask eventMask = eventMaskBit(EventType::keyDown) | eventMaskBit(EventType::flagsChanged);
    static constexpr const char* tapLabel = "hotkeys";

    HotkeyEngine(EventSystem& events, Scheduler& scheduler, DiagnosticLog& log,
                 double watchdogInterval = EventTap::defaultWatchdogInterval);
    // Stops the tap.
    ~HotkeyEngine();
    HotkeyEngine(const HotkeyEngine&) = delete;
    HotkeyEngine& operator=(const HotkeyEngine&) = delete;

    // Throws `EventTapError` when the tap cannot be made; a later call tries again. Does nothing
    // while a tap exists.
    void start();
    void stop();
    bool isRunning() const;

    // Any thread. The table survives stop and start.
    void update(const std::vector<Mapping>& mappings);
    HotkeyTable table() const;
    // Mappings whose combination another program holds, so they cannot fire, as of the last
    // `update` or `start`.
    std::vector<Mapping> unavailable() const;

    // Called on the global queue at user-initiated quality, never on the tap's thread.
    void setOnTrigger(OnTrigger onTrigger);
    // Called on the tap's thread, so it must return at once.
    void setObserveKeys(ObserveKeys observeKeys);

    // What the tap calls for each event, on its thread: nothing swallows the event. Public so
    // that a benchmark can drive it the way the tap does.
    std::optional<Event> handle(EventType type, const Event& event);

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

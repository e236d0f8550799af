#pragma once

#include "CoreKit/Geometry.h"
#include "CoreKit/Modifiers.h"
#include "CoreKit/RunLoop.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The kinds of input events, numbered as the desktop's event system numbers them, so that masks
// and logs read the same everywhere.
enum class EventType : std::uint32_t {
    null = 0,
    leftMouseDown = 1,
    leftMouseUp = 2,
    rightMouseDown = 3,
    rightMouseUp = 4,
    mouseMoved = 5,
    leftMouseDragged = 6,
    rightMouseDragged = 7,
    keyDown = 10,
    keyUp = 11,
    flagsChanged = 12,
    scrollWheel = 22,
    otherMouseDown = 25,
    otherMouseUp = 26,
    otherMouseDragged = 27,
    // Notices the session sends a tap about the tap itself; they carry no input.
    tapDisabledByTimeout = 0xFFFFFFFE,
    tapDisabledByUserInput = 0xFFFFFFFF,
};

using EventMask = std::uint64_t;

// The mask bit of an event type; the notices have none, since every tap receives them.
constexpr EventMask eventMaskBit(EventType type) {
    auto raw = static_cast<std::uint32_t>(type);
    return raw < 64 ? (EventMask{1} << raw) : 0;
}

constexpr bool eventMaskContains(EventMask mask, EventType type) {
    return (mask & eventMaskBit(type)) != 0;
}

// The integer fields an event carries, by the desktop's field numbers.
enum class EventField : std::uint32_t {
    mouseEventClickState = 1,
    mouseEventButtonNumber = 3,
    keyboardEventAutorepeat = 8,
    keyboardEventKeycode = 9,
    eventSourceUserData = 42,
};

// One input event, a plain value: it is copied freely between the session and the taps and never
// allocates.
struct Event {
    EventType type = EventType::null;
    std::uint16_t keyCode = 0;
    // Modifier and device bits, as the desktop's event flags carry them (`EventFlags`).
    std::uint64_t flags = 0;
    bool autorepeat = false;
    std::int64_t clickState = 0;
    std::int64_t buttonNumber = 0;
    // Set by whoever made the event; the program marks its own events here.
    std::int64_t userData = 0;
    Point location;

    bool operator==(const Event&) const = default;

    std::int64_t integerValueField(EventField field) const;
    void setIntegerValueField(EventField field, std::int64_t value);

    static Event keyboard(std::uint16_t keyCode, bool keyDown, std::uint64_t flags = 0);
    // A mouse button event at `location`; `button` 0 is the left, 1 the right.
    static Event mouse(EventType type, Point location, std::int64_t button);
    static Event notice(EventType type);
};

enum class TapOptions : std::uint32_t {
    active = 0,      // may change or swallow what it sees
    listenOnly = 1,  // sees events, cannot change them
};

// Identifies one tap within the event system that made it.
struct TapHandle {
    std::uint64_t id = 0;
    bool operator==(const TapHandle&) const = default;
};

// The desktop session's event stream: taps placed at the head of the session's stream, and the
// posting of synthetic input. Implemented by the platform adapter.
class EventSystem {
public:
    // Runs on the thread of the run loop the tap is attached to. Returning nothing swallows the
    // event; a listen-only tap's answer is ignored.
    using TapCallback = std::function<std::optional<Event>(EventType, const Event&)>;

    virtual ~EventSystem() = default;

    // A tap inserted before every existing one, enabled, but receiving nothing until attached to
    // a run loop. Nothing when the session refuses it (the usual cause: a missing permission).
    virtual std::optional<TapHandle> createTap(TapOptions options, EventMask mask, TapCallback callback) = 0;
    // Delivers the tap's events on the thread that runs `loop`.
    virtual void attach(TapHandle tap, std::shared_ptr<RunLoop> loop) = 0;
    virtual void detach(TapHandle tap) = 0;
    virtual void setEnabled(TapHandle tap, bool enabled) = 0;
    virtual bool isEnabled(TapHandle tap) const = 0;
    // The tap leaves the stream for good; its handle means nothing afterwards.
    virtual void removeTap(TapHandle tap) = 0;

    // Injects an event where hardware input enters, so every tap sees it.
    virtual void post(const Event& event) = 0;
    // Nothing when the system cannot make the event.
    virtual std::optional<Event> makeKeyboardEvent(std::uint16_t keyCode, bool keyDown) = 0;
    // Nothing when the system cannot make the event. By default every event can be made.
    virtual std::optional<Event> makeMouseEvent(EventType type, Point location, std::int64_t button);
    // Whether synthetic input can be made at all (the source events are created from).
    virtual bool hasEventSource() const { return true; }

    // The key combinations `owner` wants for itself, replacing what it asked before (an empty
    // list gives them all back). A session whose taps see every key needs nothing more; one that
    // can only hold a key by grabbing it (X11) grabs each, and its presses then reach the active
    // taps to be swallowed or passed on. Gives back those another program already holds: they
    // will not reach the taps.
    virtual std::vector<HotkeySpec> ownKeyCombinations(const std::string& owner, const std::vector<HotkeySpec>& combinations) {
        (void)owner;
        (void)combinations;
        return {};
    }

    // Posts a key-down then its key-up with `flags`, as a key pressed and let go. False, and
    // nothing posted, when the events cannot be made.
    bool postKeyPress(std::uint16_t keyCode, std::uint64_t flags);
};

} // namespace tavrick

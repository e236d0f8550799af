#include "Platform/X11/X11EventSystem.h"

#include "CoreKit/Log.h"
#include "CoreKit/RunLoop.h"
#include "CoreKit/SyntheticEvents.h"
#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11KeyMap.h"

#include <xcb/xcb_keysyms.h>
#include <xcb/xinput.h>
#include <xcb/xtest.h>
#include <xkbcommon/xkbcommon.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace tavrick {

namespace {

using SteadyClock = std::chrono::steady_clock;

struct Tap {
    TapHandle handle;
    TapOptions options = TapOptions::active;
    EventMask mask = 0;
    std::shared_ptr<const EventSystem::TapCallback> callback;
    std::shared_ptr<RunLoop> loop;
    bool enabled = true;
};

// One grab the server granted: a key code with a modifier state (lock variant included).
struct Grab {
    xcb_keycode_t keycode;
    std::uint16_t state;
    auto operator<=>(const Grab&) const = default;
};

// The answer of one tap to one event, filled on the tap's thread.
struct Decision {
    std::mutex lock;
    std::condition_variable changed;
    bool done = false;
    std::optional<Event> answer;
};

constexpr std::array<xcb_keysym_t, 4> modifierKeysyms{0xffe1 /* Shift_L */, 0xffe3 /* Control_L */,
                                                      0xffe9 /* Alt_L */, 0xffeb /* Super_L */};

} // namespace

struct X11EventSystem::Core : std::enable_shared_from_this<Core> {
    explicit Core(std::unique_ptr<X11Connection> connection) : x(std::move(connection)) {}

    std::unique_ptr<X11Connection> x;
    xcb_key_symbols_t* symbols = nullptr;
    std::uint8_t xinputOpcode = 0;
    bool hasXTest = false;
    xcb_window_t syncWindow = 0;

    // Guards everything below; never held across a call into a tap.
    mutable std::mutex lock;
    std::uint64_t nextTap = 1;
    std::vector<Tap> taps;  // newest first
    std::map<std::string, std::vector<HotkeySpec>> owned;
    std::set<Grab> grabs;
    X11KeyMap::ModifierMasks masks;
    // Server key code to the program's key code, rebuilt on every mapping change.
    std::map<xcb_keycode_t, std::uint16_t> keyCodes;
    std::map<xcb_keycode_t, std::uint16_t> modifierBits;  // key code to its X modifier bit
    std::set<xcb_keycode_t> held;
    // Keys this program pressed (true) or let go (false) whose raw event has not come back yet:
    // until it does, `held` is behind.
    std::map<xcb_keycode_t, bool> pendingOurs;
    // Key events this program sent, by (key code, press), until they come back.
    std::multiset<std::pair<xcb_keycode_t, bool>> oursRaw;
    std::multiset<std::pair<xcb_keycode_t, bool>> oursGrabbed;
    // Right-button presses and releases this program sent, until they come back.
    std::multiset<bool> oursButtons;
    // Whether the right button is grabbed: while an active tap wants its presses.
    bool buttonGrabbed = false;
    // Whether the left button's raw events are selected: while a tap listens to them. Held tells
    // a drag from a plain move, and the last place dragged to keeps repeats out.
    bool leftSelected = false;
    bool leftHeld = false;
    std::optional<Point> lastDragged;
    // A right press the taps took: its motion and release come to this grab.
    bool strokeActive = false;
    // The primary monitor as it was when the current press began. Positions are told from its
    // top-left corner, as the window logic measures them; monitors do not change under a drag.
    XRect origin{};
    // Around a sent keystroke: the modifier keys let go and those pressed for it.
    std::vector<xcb_keycode_t> releasedForPost;
    std::vector<xcb_keycode_t> pressedForPost;
    std::function<void(const std::string&)> onServerLost;
    std::vector<std::pair<std::uint64_t, std::shared_ptr<std::function<void()>>>> layoutObservers;
    std::uint64_t nextObserver = 1;
    std::uint64_t syncsSent = 0;
    std::uint64_t syncsSeen = 0;
    std::condition_variable syncChanged;
    double decisionTimeout = defaultDecisionTimeout;

    std::atomic<bool> stopping{false};
    std::atomic<bool> alive{true};
    int wake[2] = {-1, -1};
    std::thread reader;

    void start();
    void stop();
    // A round trip on another thread may have read events into the connection's queue, where the
    // reader's poll on the socket cannot see them: it is woken to look.
    void wakeReader();
    void run();
    void handle(xcb_generic_event_t* event);
    void handleGrabbedKey(const xcb_key_press_event_t* press, bool down);
    void handleRaw(std::uint16_t type, xcb_keycode_t keycode);
    void handleButton(const xcb_button_press_event_t* press, bool down);
    void handleMotion(const xcb_motion_notify_event_t* motion);
    // Grabs the right button while an enabled active tap wants its presses, and lets it go
    // otherwise. The caller holds `lock`.
    void updateButtonGrab();
    // Selects the raw events the taps need on the root window: keys always, the buttons and
    // motion while a tap listens to the left button. The caller holds `lock`.
    void updateRawSelection();
    void handleRawPointer(std::uint16_t type, std::uint32_t button);
    // Looks the primary monitor up again. The caller holds `lock`.
    void refreshOrigin() { origin = x->monitors().front(); }
    Point logicPoint(std::int32_t rootX, std::int32_t rootY) const { return X11Geometry::toWindowPoint(rootX, rootY, origin); }
    void remap();
    void loadModifierMapping();
    void loadKeyCodes();
    std::vector<HotkeySpec> regrab();
    void ungrabAll();
    std::vector<xcb_keycode_t> keycodesFor(xcb_keysym_t keysym);
    std::uint16_t heldState() const;
    // The keys held once those this program already sent have arrived.
    std::set<xcb_keycode_t> predictedHeld() const;
    std::uint16_t stateOf(const std::set<xcb_keycode_t>& keys) const;
    std::vector<Tap> tapsFor(EventType type) const;
    // Offers an event to the taps, newest first; nothing when one swallowed it.
    std::optional<Event> offer(EventType type, Event event, bool canSwallow);
    // Sends one key through XTest, marked as ours when it comes back. `state` is the modifier
    // state the server will have when it arrives, kept up to date as keys are sent.
    void fakeKey(xcb_keycode_t keycode, bool press, std::uint16_t& state, bool ours);
};

void X11EventSystem::Core::start() {
    auto* c = x->xcb();
    symbols = xcb_key_symbols_alloc(c);
    if (auto* ext = xcb_get_extension_data(c, &xcb_test_id); ext && ext->present) hasXTest = true;
    if (auto* ext = xcb_get_extension_data(c, &xcb_input_id); ext && ext->present) {
        auto version = xreply(xcb_input_xi_query_version_reply(c, xcb_input_xi_query_version(c, 2, 2), nullptr));
        if (version && version->major_version >= 2) {
            xinputOpcode = ext->major_opcode;
            std::lock_guard guard(lock);
            leftSelected = true;  // so that the first call selects the keys alone
            updateRawSelection();
        }
    }
    if (!xinputOpcode) Log::core.notice("The X server has no XInput 2: keys outside the shortcuts are not heard");
    syncWindow = xcb_generate_id(c);
    xcb_create_window(c, 0, syncWindow, x->root(), -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, 0,
                      nullptr);
    {
        std::lock_guard guard(lock);
        loadModifierMapping();
        loadKeyCodes();
    }
    xcb_flush(c);
    if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) wake[0] = wake[1] = -1;
    reader = std::thread([self = shared_from_this()] { self->run(); });
}

void X11EventSystem::Core::wakeReader() {
    if (wake[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] auto written = ::write(wake[1], &byte, 1);
    }
}

void X11EventSystem::Core::stop() {
    stopping = true;
    wakeReader();
    if (reader.joinable()) reader.join();
    {
        std::lock_guard guard(lock);
        if (x->isAlive()) {
            ungrabAll();
            if (buttonGrabbed) xcb_ungrab_button(x->xcb(), 3, x->root(), XCB_MOD_MASK_ANY);
            buttonGrabbed = false;
            // A press still frozen for the taps goes on to its window.
            xcb_allow_events(x->xcb(), XCB_ALLOW_REPLAY_KEYBOARD, XCB_CURRENT_TIME);
            xcb_allow_events(x->xcb(), XCB_ALLOW_REPLAY_POINTER, XCB_CURRENT_TIME);
            auto state = heldState();
            for (auto keycode : pressedForPost) fakeKey(keycode, false, state, true);
            xcb_flush(x->xcb());
        }
    }
    if (symbols) xcb_key_symbols_free(symbols);
    symbols = nullptr;
    for (int fd : wake) {
        if (fd >= 0) ::close(fd);
    }
}

void X11EventSystem::Core::run() {
    auto* c = x->xcb();
    std::optional<SteadyClock::time_point> remapDue;
    while (!stopping) {
        int timeout = -1;
        if (remapDue) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*remapDue - SteadyClock::now()).count();
            timeout = static_cast<int>(std::max<long long>(0, left));
        }
        pollfd fds[2] = {{xcb_get_file_descriptor(c), POLLIN, 0}, {wake[0], POLLIN, 0}};
        ::poll(fds, wake[0] >= 0 ? 2 : 1, timeout);
        if (stopping) break;
        if (fds[1].revents & POLLIN) {
            char bytes[64];
            [[maybe_unused]] auto drained = ::read(wake[0], bytes, sizeof bytes);
        }
        while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
            if ((event->response_type & 0x7f) == XCB_MAPPING_NOTIFY) {
                std::lock_guard guard(lock);
                xcb_refresh_keyboard_mapping(symbols, reinterpret_cast<xcb_mapping_notify_event_t*>(event));
                remapDue = SteadyClock::now() + std::chrono::milliseconds(static_cast<int>(remapDebounceSeconds * 1000));
            } else {
                handle(event);
            }
            std::free(event);
        }
        if (xcb_connection_has_error(c)) {
            alive = false;
            std::function<void(const std::string&)> lost;
            {
                std::lock_guard guard(lock);
                lost = onServerLost;
                ++syncsSeen;  // wakes anyone waiting; they find the server gone
            }
            syncChanged.notify_all();
            const std::string why = "the X server at " + x->displayName() + " went away";
            Log::core.notice("%s", why.c_str());
            if (lost) lost(why);
            return;
        }
        if (remapDue && SteadyClock::now() >= *remapDue) {
            remapDue.reset();
            remap();
        }
    }
}

void X11EventSystem::Core::handle(xcb_generic_event_t* event) {
    const auto type = event->response_type & 0x7f;
    if (type == XCB_KEY_PRESS || type == XCB_KEY_RELEASE) {
        handleGrabbedKey(reinterpret_cast<xcb_key_press_event_t*>(event), type == XCB_KEY_PRESS);
    } else if (type == XCB_BUTTON_PRESS || type == XCB_BUTTON_RELEASE) {
        handleButton(reinterpret_cast<xcb_button_press_event_t*>(event), type == XCB_BUTTON_PRESS);
    } else if (type == XCB_MOTION_NOTIFY) {
        handleMotion(reinterpret_cast<xcb_motion_notify_event_t*>(event));
    } else if (type == XCB_CLIENT_MESSAGE) {
        auto* message = reinterpret_cast<xcb_client_message_event_t*>(event);
        if (message->window != syncWindow) return;
        {
            std::lock_guard guard(lock);
            syncsSeen = std::max<std::uint64_t>(syncsSeen, message->data.data32[0]);
        }
        syncChanged.notify_all();
    } else if (type == XCB_GE_GENERIC && xinputOpcode) {
        auto* generic = reinterpret_cast<xcb_ge_generic_event_t*>(event);
        if (generic->extension != xinputOpcode) return;
        if (generic->event_type == XCB_INPUT_RAW_KEY_PRESS || generic->event_type == XCB_INPUT_RAW_KEY_RELEASE) {
            auto* raw = reinterpret_cast<xcb_input_raw_key_press_event_t*>(event);
            handleRaw(generic->event_type, static_cast<xcb_keycode_t>(raw->detail));
        }
        if (generic->event_type == XCB_INPUT_RAW_BUTTON_PRESS || generic->event_type == XCB_INPUT_RAW_BUTTON_RELEASE ||
            generic->event_type == XCB_INPUT_RAW_MOTION) {
            auto* raw = reinterpret_cast<xcb_input_raw_button_press_event_t*>(event);
            handleRawPointer(generic->event_type, raw->detail);
        }
    }
}

std::uint16_t X11EventSystem::Core::heldState() const {
    return stateOf(held);
}

std::uint16_t X11EventSystem::Core::stateOf(const std::set<xcb_keycode_t>& keys) const {
    std::uint16_t state = 0;
    for (auto keycode : keys) {
        if (auto bit = modifierBits.find(keycode); bit != modifierBits.end()) state |= bit->second;
    }
    return state;
}

std::set<xcb_keycode_t> X11EventSystem::Core::predictedHeld() const {
    std::set<xcb_keycode_t> keys = held;
    for (const auto& [keycode, pressed] : pendingOurs) {
        if (pressed) {
            keys.insert(keycode);
        } else {
            keys.erase(keycode);
        }
    }
    return keys;
}

void X11EventSystem::Core::handleRaw(std::uint16_t type, xcb_keycode_t keycode) {
    const bool down = type == XCB_INPUT_RAW_KEY_PRESS;
    Event event;
    bool grabbed = false;
    {
        std::lock_guard guard(lock);
        const bool repeat = down && held.contains(keycode);
        if (auto pending = pendingOurs.find(keycode); pending != pendingOurs.end() && pending->second == down) {
            pendingOurs.erase(pending);
        }
        if (down) {
            held.insert(keycode);
        } else {
            held.erase(keycode);
        }
        auto code = keyCodes.find(keycode);
        if (code == keyCodes.end()) return;
        const auto state = heldState();
        const bool isModifier = modifierBits.contains(keycode);
        event = Event::keyboard(code->second, down, X11KeyMap::eventFlags(state, masks));
        event.autorepeat = repeat;
        if (isModifier) event.type = EventType::flagsChanged;
        if (auto ours = oursRaw.find({keycode, down}); ours != oursRaw.end()) {
            oursRaw.erase(ours);
            SyntheticEvents::mark(event);
        }
        // A grabbed combination reaches the taps through its grab, where it can be swallowed.
        const auto clean = static_cast<std::uint16_t>(state & ~(X11KeyMap::lockMask | masks.numLock | masks.scrollLock));
        grabbed = !isModifier && grabs.contains(Grab{keycode, clean});
    }
    if (grabbed) return;
    offer(event.type, event, false);
}

void X11EventSystem::Core::handleGrabbedKey(const xcb_key_press_event_t* press, bool down) {
    Event event;
    bool known = false;
    {
        std::lock_guard guard(lock);
        if (auto code = keyCodes.find(press->detail); code != keyCodes.end()) {
            known = true;
            event = Event::keyboard(code->second, down, X11KeyMap::eventFlags(press->state, masks));
            if (auto ours = oursGrabbed.find({press->detail, down}); ours != oursGrabbed.end()) {
                oursGrabbed.erase(ours);
                SyntheticEvents::mark(event);
            }
        }
    }
    if (!down) {
        // The release belongs to whoever got the press; the taps only hear it.
        if (known) offer(EventType::keyUp, event, false);
        return;
    }
    const bool swallowed = known && !offer(EventType::keyDown, event, true);
    std::lock_guard guard(lock);
    xcb_allow_events(x->xcb(), swallowed ? XCB_ALLOW_ASYNC_KEYBOARD : XCB_ALLOW_REPLAY_KEYBOARD, press->time);
    xcb_flush(x->xcb());
}

void X11EventSystem::Core::handleButton(const xcb_button_press_event_t* press, bool down) {
    if (press->detail != 3) return;
    Event event;
    {
        std::lock_guard guard(lock);
        if (down) refreshOrigin();
        event = Event::mouse(down ? EventType::rightMouseDown : EventType::rightMouseUp,
                             logicPoint(press->root_x, press->root_y), 1);
        event.flags = X11KeyMap::eventFlags(press->state, masks);
        if (auto ours = oursButtons.find(down); ours != oursButtons.end()) {
            oursButtons.erase(ours);
            SyntheticEvents::mark(event);
        }
    }
    if (!down) {
        // The release of a press the taps took: the grab brings it here, and nothing follows it.
        {
            std::lock_guard guard(lock);
            strokeActive = false;
        }
        offer(EventType::rightMouseUp, event, true);
        return;
    }
    const bool swallowed = !offer(EventType::rightMouseDown, event, true);
    std::lock_guard guard(lock);
    strokeActive = swallowed;
    // A press the taps passed goes on to the window under the pointer as if nothing had grabbed it.
    xcb_allow_events(x->xcb(), swallowed ? XCB_ALLOW_ASYNC_POINTER : XCB_ALLOW_REPLAY_POINTER, press->time);
    xcb_flush(x->xcb());
}

void X11EventSystem::Core::handleMotion(const xcb_motion_notify_event_t* motion) {
    Point at;
    {
        std::lock_guard guard(lock);
        if (!strokeActive) return;
        at = logicPoint(motion->root_x, motion->root_y);
    }
    Event event = Event::mouse(EventType::rightMouseDragged, at, 1);
    offer(EventType::rightMouseDragged, event, false);
}

void X11EventSystem::Core::updateRawSelection() {
    if (!xinputOpcode || !alive) return;
    const bool wanted = std::any_of(taps.begin(), taps.end(), [](const Tap& tap) {
        return tap.enabled && (eventMaskContains(tap.mask, EventType::leftMouseDown) ||
                               eventMaskContains(tap.mask, EventType::leftMouseUp) ||
                               eventMaskContains(tap.mask, EventType::leftMouseDragged));
    });
    if (wanted == leftSelected) return;
    std::uint32_t mask = XCB_INPUT_XI_EVENT_MASK_RAW_KEY_PRESS | XCB_INPUT_XI_EVENT_MASK_RAW_KEY_RELEASE;
    // Raw events reach the root whatever window is under the pointer and whoever grabbed it, a
    // window manager moving a window included; they never take anything from anyone.
    if (wanted) {
        mask |= XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS | XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_RELEASE |
                XCB_INPUT_XI_EVENT_MASK_RAW_MOTION;
    }
    struct {
        xcb_input_event_mask_t head;
        std::uint32_t mask;
    } selection{{XCB_INPUT_DEVICE_ALL_MASTER, 1}, mask};
    xcb_input_xi_select_events(x->xcb(), x->root(), 1, &selection.head);
    xcb_flush(x->xcb());
    leftSelected = wanted;
    if (!wanted) {
        leftHeld = false;
        lastDragged.reset();
    }
}

void X11EventSystem::Core::handleRawPointer(std::uint16_t type, std::uint32_t button) {
    EventType eventType;
    {
        std::lock_guard guard(lock);
        if (!leftSelected) return;
        if (type == XCB_INPUT_RAW_MOTION) {
            if (!leftHeld) return;
            eventType = EventType::leftMouseDragged;
        } else {
            if (button != 1) return;
            const bool down = type == XCB_INPUT_RAW_BUTTON_PRESS;
            // A release without its press (the tap came after it) is no drag's end.
            if (!down && !leftHeld) return;
            leftHeld = down;
            eventType = down ? EventType::leftMouseDown : EventType::leftMouseUp;
        }
    }
    // Raw events carry no position: the pointer is asked where it is now.
    std::optional<Point> at;
    {
        std::lock_guard guard(lock);
        auto* c = x->xcb();
        if (eventType == EventType::leftMouseDown) refreshOrigin();
        if (auto reply = xreply(xcb_query_pointer_reply(c, xcb_query_pointer(c, x->root()), nullptr))) {
            at = logicPoint(reply->root_x, reply->root_y);
        }
        if (!at) return;
        if (eventType == EventType::leftMouseDragged) {
            if (lastDragged == at) return;
            lastDragged = at;
        } else {
            lastDragged.reset();
        }
    }
    Event event = Event::mouse(eventType, *at, 0);
    offer(eventType, event, false);
}

void X11EventSystem::Core::updateButtonGrab() {
    const bool wanted = std::any_of(taps.begin(), taps.end(), [](const Tap& tap) {
        return tap.enabled && tap.options == TapOptions::active && eventMaskContains(tap.mask, EventType::rightMouseDown);
    });
    if (wanted == buttonGrabbed || !alive) return;
    auto* c = x->xcb();
    if (wanted) {
        const std::uint16_t mask = XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE | XCB_EVENT_MASK_BUTTON_MOTION;
        auto cookie = xcb_grab_button_checked(c, 0, x->root(), mask, XCB_GRAB_MODE_SYNC, XCB_GRAB_MODE_ASYNC, XCB_NONE,
                                              XCB_NONE, 3, XCB_MOD_MASK_ANY);
        if (xcb_generic_error_t* error = xcb_request_check(c, cookie)) {
            std::free(error);
            Log::core.notice("Another program holds the right mouse button: mouse gestures are not heard");
            return;
        }
    } else {
        xcb_ungrab_button(c, 3, x->root(), XCB_MOD_MASK_ANY);
        xcb_allow_events(c, XCB_ALLOW_REPLAY_POINTER, XCB_CURRENT_TIME);
        xcb_flush(c);
    }
    buttonGrabbed = wanted;
}

std::vector<Tap> X11EventSystem::Core::tapsFor(EventType type) const {
    std::vector<Tap> result;
    std::lock_guard guard(lock);
    for (const auto& tap : taps) {
        if (tap.enabled && tap.loop && eventMaskContains(tap.mask, type)) result.push_back(tap);
    }
    return result;
}

std::optional<Event> X11EventSystem::Core::offer(EventType type, Event event, bool canSwallow) {
    for (const auto& tap : tapsFor(type)) {
        const bool decides = canSwallow && tap.options == TapOptions::active;
        if (!decides) {
            tap.loop->perform([callback = tap.callback, type, event] { (*callback)(type, event); });
            continue;
        }
        auto decision = std::make_shared<Decision>();
        tap.loop->perform([callback = tap.callback, type, event, decision] {
            auto answer = (*callback)(type, event);
            std::lock_guard guard(decision->lock);
            decision->answer = answer;
            decision->done = true;
            decision->changed.notify_all();
        });
        std::unique_lock wait(decision->lock);
        const bool answered = decision->changed.wait_for(wait, std::chrono::duration<double>(decisionTimeout),
                                                         [&] { return decision->done || stopping.load(); });
        if (!answered || !decision->done) {
            // The keyboard is frozen while this waits: the press goes on rather than the user
            // losing the keyboard to a stuck tap.
            Log::core.notice("A tap did not decide on key %hu within %.1f s; the key goes on to the window",
                             event.keyCode, decisionTimeout);
            return event;
        }
        if (!decision->answer) return std::nullopt;
        event = *decision->answer;
    }
    return event;
}

void X11EventSystem::Core::loadModifierMapping() {
    auto* c = x->xcb();
    auto reply = xreply(xcb_get_modifier_mapping_reply(c, xcb_get_modifier_mapping(c), nullptr));
    if (!reply) return;
    const auto* keycodes = xcb_get_modifier_mapping_keycodes(reply.get());
    const int perModifier = reply->keycodes_per_modifier;
    std::vector<std::vector<std::uint32_t>> symbolsPerModifier(8);
    modifierBits.clear();
    for (int modifier = 0; modifier < 8; ++modifier) {
        for (int i = 0; i < perModifier; ++i) {
            const auto keycode = keycodes[modifier * perModifier + i];
            if (keycode == 0) continue;
            modifierBits[keycode] = static_cast<std::uint16_t>(1u << modifier);
            for (int column = 0; column < 2; ++column) {
                if (auto sym = xcb_key_symbols_get_keysym(symbols, keycode, column)) {
                    symbolsPerModifier[static_cast<std::size_t>(modifier)].push_back(sym);
                }
            }
        }
    }
    masks = X11KeyMap::masksFromMapping(symbolsPerModifier);
}

void X11EventSystem::Core::loadKeyCodes() {
    keyCodes.clear();
    const auto* setup = xcb_get_setup(x->xcb());
    for (int keycode = setup->min_keycode; keycode <= setup->max_keycode; ++keycode) {
        const auto kc = static_cast<xcb_keycode_t>(keycode);
        // What the key types unshifted, else shifted: the digits of a French keyboard are shifted.
        for (int column = 0; column < 2; ++column) {
            const auto sym = xcb_key_symbols_get_keysym(symbols, kc, column);
            if (!sym) continue;
            if (auto code = X11KeyMap::keyCode(sym)) {
                keyCodes[kc] = *code;
                break;
            }
        }
    }
}

std::vector<xcb_keycode_t> X11EventSystem::Core::keycodesFor(xcb_keysym_t keysym) {
    std::vector<xcb_keycode_t> result;
    for (const auto& [keycode, code] : keyCodes) {
        if (X11KeyMap::keysym(code) == keysym) result.push_back(keycode);
    }
    return result;
}

void X11EventSystem::Core::ungrabAll() {
    for (const auto& grab : grabs) xcb_ungrab_key(x->xcb(), grab.keycode, x->root(), grab.state);
    grabs.clear();
}

std::vector<HotkeySpec> X11EventSystem::Core::regrab() {
    auto* c = x->xcb();
    std::vector<HotkeySpec> wanted;
    for (const auto& [owner, specs] : owned) {
        for (const auto& spec : specs) {
            if (std::find(wanted.begin(), wanted.end(), spec) == wanted.end()) wanted.push_back(spec);
        }
    }
    const auto locks = X11KeyMap::lockCombinations(masks);
    // The grabs each combination needs on the current mapping.
    std::vector<std::pair<HotkeySpec, std::vector<Grab>>> plan;
    std::set<Grab> keep;
    std::vector<HotkeySpec> refused;
    for (const auto& spec : wanted) {
        const auto sym = X11KeyMap::keysym(spec.keyCode);
        const auto state = X11KeyMap::state(spec.modifiers, masks);
        const auto keycodes = sym ? keycodesFor(*sym) : std::vector<xcb_keycode_t>{};
        if (!state || keycodes.empty()) {
            Log::hotkey.notice("Shortcut %s has no key on this keyboard layout", spec.displayString().c_str());
            refused.push_back(spec);
            continue;
        }
        std::vector<Grab> needed;
        for (auto keycode : keycodes) {
            for (auto lockState : locks) needed.push_back(Grab{keycode, static_cast<std::uint16_t>(*state | lockState)});
        }
        keep.insert(needed.begin(), needed.end());
        plan.emplace_back(spec, std::move(needed));
    }
    // Grabs no longer needed go first; those still needed are never let go, so a mapping change
    // opens no moment in which a shortcut's key slips through to a window.
    for (auto it = grabs.begin(); it != grabs.end();) {
        if (keep.contains(*it)) {
            ++it;
        } else {
            xcb_ungrab_key(c, it->keycode, x->root(), it->state);
            it = grabs.erase(it);
        }
    }
    for (const auto& [spec, needed] : plan) {
        std::vector<std::pair<Grab, xcb_void_cookie_t>> cookies;
        for (const auto& grab : needed) {
            if (grabs.contains(grab)) continue;
            cookies.emplace_back(grab, xcb_grab_key_checked(c, 1, x->root(), grab.state, grab.keycode,
                                                            XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_SYNC));
        }
        bool denied = false;
        std::vector<Grab> granted;
        for (const auto& [grab, cookie] : cookies) {
            if (xcb_generic_error_t* error = xcb_request_check(c, cookie)) {
                denied = true;
                std::free(error);
            } else {
                granted.push_back(grab);
            }
        }
        if (denied) {
            // Half a combination would work only with some lock keys on: give it all back.
            for (const auto& grab : needed) {
                if (grabs.erase(grab) || std::find(granted.begin(), granted.end(), grab) != granted.end()) {
                    xcb_ungrab_key(c, grab.keycode, x->root(), grab.state);
                }
            }
            refused.push_back(spec);
            continue;
        }
        grabs.insert(granted.begin(), granted.end());
    }
    xcb_flush(c);
    return refused;
}

void X11EventSystem::Core::remap() {
    std::vector<HotkeySpec> refused;
    std::vector<std::shared_ptr<std::function<void()>>> observers;
    std::size_t count = 0;
    bool changed = false;
    {
        std::lock_guard guard(lock);
        const auto oldCodes = keyCodes;
        const auto oldMasks = masks;
        loadModifierMapping();
        loadKeyCodes();
        changed = oldCodes != keyCodes || !(oldMasks == masks);
        if (!changed) return;
        refused = regrab();
        count = grabs.size();
        for (const auto& [id, observer] : layoutObservers) observers.push_back(observer);
    }
    Log::hotkey.notice("The keyboard mapping changed: %zu shortcut grabs in place", count);
    for (const auto& spec : refused) {
        Log::hotkey.notice("Shortcut %s is held by another program after the mapping change", spec.displayString().c_str());
    }
    for (const auto& observer : observers) (*observer)();
}

void X11EventSystem::Core::fakeKey(xcb_keycode_t keycode, bool press, std::uint16_t& state, bool ours) {
    xcb_test_fake_input(x->xcb(), press ? XCB_KEY_PRESS : XCB_KEY_RELEASE, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    pendingOurs[keycode] = press;
    if (!ours) {
        if (auto bit = modifierBits.find(keycode); bit != modifierBits.end()) {
            state = static_cast<std::uint16_t>(press ? state | bit->second : state & ~bit->second);
        }
        return;
    }
    oursRaw.insert({keycode, press});
    const auto clean = static_cast<std::uint16_t>(state & ~(X11KeyMap::lockMask | masks.numLock | masks.scrollLock));
    if (grabs.contains(Grab{keycode, clean})) oursGrabbed.insert({keycode, press});
    if (auto bit = modifierBits.find(keycode); bit != modifierBits.end()) {
        state = static_cast<std::uint16_t>(press ? state | bit->second : state & ~bit->second);
    }
}

X11EventSystem::X11EventSystem(std::unique_ptr<X11Connection> connection)
    : core_(std::make_shared<Core>(std::move(connection))) {
    core_->start();
}

X11EventSystem::~X11EventSystem() {
    core_->stop();
}

std::optional<TapHandle> X11EventSystem::createTap(TapOptions options, EventMask mask, TapCallback callback) {
    std::lock_guard guard(core_->lock);
    Tap tap;
    tap.handle = TapHandle{core_->nextTap++};
    tap.options = options;
    tap.mask = mask;
    tap.callback = std::make_shared<const TapCallback>(std::move(callback));
    core_->taps.insert(core_->taps.begin(), std::move(tap));
    const auto handle = core_->taps.front().handle;
    core_->updateButtonGrab();
    core_->updateRawSelection();
    core_->wakeReader();
    return handle;
}

void X11EventSystem::attach(TapHandle handle, std::shared_ptr<RunLoop> loop) {
    std::lock_guard guard(core_->lock);
    for (auto& tap : core_->taps) {
        if (tap.handle == handle) tap.loop = std::move(loop);
    }
}

void X11EventSystem::detach(TapHandle handle) {
    std::lock_guard guard(core_->lock);
    for (auto& tap : core_->taps) {
        if (tap.handle == handle) tap.loop = nullptr;
    }
}

void X11EventSystem::setEnabled(TapHandle handle, bool enabled) {
    std::lock_guard guard(core_->lock);
    for (auto& tap : core_->taps) {
        if (tap.handle == handle) tap.enabled = enabled;
    }
    core_->updateButtonGrab();
    core_->updateRawSelection();
    core_->wakeReader();
}

bool X11EventSystem::isEnabled(TapHandle handle) const {
    std::lock_guard guard(core_->lock);
    for (const auto& tap : core_->taps) {
        if (tap.handle == handle) return tap.enabled;
    }
    return false;
}

void X11EventSystem::removeTap(TapHandle handle) {
    std::lock_guard guard(core_->lock);
    std::erase_if(core_->taps, [&](const Tap& tap) { return tap.handle == handle; });
    core_->updateButtonGrab();
    core_->updateRawSelection();
    core_->wakeReader();
}

std::optional<Event> X11EventSystem::makeKeyboardEvent(std::uint16_t keyCode, bool keyDown) {
    if (!core_->hasXTest) return std::nullopt;
    return Event::keyboard(keyCode, keyDown);
}

bool X11EventSystem::hasEventSource() const {
    return core_->hasXTest && core_->alive;
}

void X11EventSystem::post(const Event& event) {
    auto& core = *core_;
    if (!core.hasXTest || !core.alive) return;
    std::lock_guard guard(core.lock);
    auto* c = core.x->xcb();
    if (event.type == EventType::keyDown || event.type == EventType::keyUp) {
        const auto sym = X11KeyMap::keysym(event.keyCode);
        const auto keycodes = sym ? core.keycodesFor(*sym) : std::vector<xcb_keycode_t>{};
        if (keycodes.empty()) {
            Log::core.notice("Key %hu has no key on this keyboard layout; nothing sent", event.keyCode);
            return;
        }
        const auto keycode = keycodes.front();
        const auto held = core.predictedHeld();
        auto state = core.stateOf(held);
        // Only what the caller marked as the program's own comes back marked.
        const bool ours = SyntheticEvents::isOurs(event);
        if (event.type == EventType::keyDown) {
            // The user's own modifiers (still held from the shortcut that started this) are let go
            // so that only the keystroke's own count, and pressed again afterwards.
            const auto wanted = Modifiers::fromCGFlags(event.flags);
            core.releasedForPost.clear();
            core.pressedForPost.clear();
            for (auto key : held) {
                if (core.modifierBits.contains(key)) core.releasedForPost.push_back(key);
            }
            for (auto held : core.releasedForPost) core.fakeKey(held, false, state, ours);
            const std::array<std::pair<Modifiers, xcb_keysym_t>, 4> roles{{{Modifiers::shift, modifierKeysyms[0]},
                                                                           {Modifiers::control, modifierKeysyms[1]},
                                                                           {Modifiers::option, modifierKeysyms[2]},
                                                                           {Modifiers::command, modifierKeysyms[3]}}};
            for (const auto& [modifier, modifierSym] : roles) {
                if (!wanted.contains(modifier)) continue;
                for (const auto& [kc, code] : core.keyCodes) {
                    if (X11KeyMap::keysym(code) == modifierSym) {
                        core.fakeKey(kc, true, state, ours);
                        core.pressedForPost.push_back(kc);
                        break;
                    }
                }
            }
            core.fakeKey(keycode, true, state, ours);
        } else {
            core.fakeKey(keycode, false, state, ours);
            for (auto it = core.pressedForPost.rbegin(); it != core.pressedForPost.rend(); ++it) core.fakeKey(*it, false, state, ours);
            for (auto held : core.releasedForPost) core.fakeKey(held, true, state, ours);
            core.pressedForPost.clear();
            core.releasedForPost.clear();
        }
        xcb_flush(c);
        core.wakeReader();
        return;
    }
    std::uint8_t type = 0;
    std::uint8_t button = event.buttonNumber == 1 ? 3 : event.buttonNumber == 2 ? 2 : 1;
    switch (event.type) {
    case EventType::leftMouseDown:
    case EventType::rightMouseDown:
    case EventType::otherMouseDown: type = XCB_BUTTON_PRESS; break;
    case EventType::leftMouseUp:
    case EventType::rightMouseUp:
    case EventType::otherMouseUp: type = XCB_BUTTON_RELEASE; break;
    case EventType::mouseMoved:
    case EventType::leftMouseDragged:
    case EventType::rightMouseDragged:
    case EventType::otherMouseDragged: type = XCB_MOTION_NOTIFY; button = 0; break;
    default: return;
    }
    if (event.type == EventType::leftMouseDown || event.type == EventType::leftMouseUp) button = 1;
    if (event.type == EventType::rightMouseDown || event.type == EventType::rightMouseUp) button = 3;
    if (button == 3 && SyntheticEvents::isOurs(event)) core.oursButtons.insert(type == XCB_BUTTON_PRESS);
    // The event is placed as the window logic measures, from the primary monitor's top-left.
    const auto primary = core.x->monitors().front();
    const auto rootX = static_cast<std::int16_t>(X11Geometry::rootX(event.location.x, primary));
    const auto rootY = static_cast<std::int16_t>(X11Geometry::rootY(event.location.y, primary));
    if (type != XCB_MOTION_NOTIFY) {
        xcb_test_fake_input(c, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, core.x->root(), rootX, rootY, 0);
    }
    xcb_test_fake_input(c, type, button, XCB_CURRENT_TIME, core.x->root(), rootX, rootY, 0);
    xcb_flush(c);
}

std::vector<HotkeySpec> X11EventSystem::ownKeyCombinations(const std::string& owner, const std::vector<HotkeySpec>& combinations) {
    std::lock_guard guard(core_->lock);
    if (combinations.empty()) {
        core_->owned.erase(owner);
    } else {
        core_->owned[owner] = combinations;
    }
    if (!core_->alive) return combinations;
    auto refused = core_->regrab();
    core_->wakeReader();
    // Only this owner's refusals are its answer.
    std::erase_if(refused, [&](const HotkeySpec& spec) {
        return std::find(combinations.begin(), combinations.end(), spec) == combinations.end();
    });
    return refused;
}

KeyboardLayoutSource X11EventSystem::layoutSource() {
    std::weak_ptr<Core> weak = core_;
    KeyboardLayoutSource source;
    source.readCurrentLayout = [weak]() -> std::map<std::uint16_t, std::string> {
        auto core = weak.lock();
        if (!core) return {};
        std::map<std::uint16_t, std::string> legends;
        std::lock_guard guard(core->lock);
        for (const auto& [keycode, code] : core->keyCodes) {
            const auto sym = xcb_key_symbols_get_keysym(core->symbols, keycode, 0);
            char text[16] = {};
            if (sym && xkb_keysym_to_utf8(sym, text, sizeof text) > 1) legends.emplace(code, text);
        }
        core->wakeReader();
        return legends;
    };
    source.observeChanges = [weak](std::function<void()> changed) -> Observation {
        auto core = weak.lock();
        if (!core) return {};
        std::uint64_t id;
        {
            std::lock_guard guard(core->lock);
            id = core->nextObserver++;
            core->layoutObservers.emplace_back(id, std::make_shared<std::function<void()>>(std::move(changed)));
        }
        return Observation([weak, id] {
            if (auto core = weak.lock()) {
                std::lock_guard guard(core->lock);
                std::erase_if(core->layoutObservers, [id](const auto& entry) { return entry.first == id; });
            }
        });
    };
    return source;
}

void X11EventSystem::setOnServerLost(std::function<void(const std::string&)> onServerLost) {
    std::lock_guard guard(core_->lock);
    core_->onServerLost = std::move(onServerLost);
}

bool X11EventSystem::isServerAlive() const {
    return core_->alive && core_->x->isAlive();
}

std::size_t X11EventSystem::grabCount() const {
    std::lock_guard guard(core_->lock);
    return core_->grabs.size();
}

bool X11EventSystem::sync(double timeoutSeconds) {
    auto& core = *core_;
    std::unique_lock guard(core.lock);
    if (!core.alive) return false;
    const auto ticket = ++core.syncsSent;
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = core.syncWindow;
    message.type = XCB_ATOM_INTEGER;
    message.data.data32[0] = static_cast<std::uint32_t>(ticket);
    xcb_send_event(core.x->xcb(), 0, core.syncWindow, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&message));
    xcb_flush(core.x->xcb());
    core.wakeReader();
    return core.syncChanged.wait_for(guard, std::chrono::duration<double>(timeoutSeconds),
                                     [&] { return core.syncsSeen >= ticket || !core.alive; }) &&
           core.alive;
}

} // namespace tavrick

#pragma once

#include "Platform/X11/X11Geometry.h"

#include <xcb/xcb.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick::testing {

// A private X server (Xvfb, found through -displayfd) with openbox on it, configured to bind no
// key and no button, for the tests that need a real server and window manager.
class XSession {
public:
    // Nothing, with why in `skipReason`, only when Xvfb or openbox is not installed or does not
    // start; everything else is a failure of the test.
    // With `splitAt` above 0 the screen is split into a left and a right monitor there before the
    // window manager starts, so that it never sees the monitors change under its windows.
    // With `dragMovesWindows` a left-button drag of a title bar moves the window.
    static std::unique_ptr<XSession> start(std::string* skipReason, int splitAt = 0, bool dragMovesWindows = false);
    // The 1600×900 screen cut into `monitors` (root coordinates, the first one primary) before
    // the window manager starts.
    static std::unique_ptr<XSession> start(std::string* skipReason, const std::vector<XRect>& monitors,
                                           bool dragMovesWindows);
    ~XSession();

    const std::string& display() const { return display_; }
    // Runs a program against this display; its exit status.
    int run(const std::vector<std::string>& arguments) const;
    // Splits the 1600×900 screen into a left monitor `leftWidth` wide and a right one.
    bool splitMonitors(int leftWidth) const;
    bool setMonitors(const std::vector<XRect>& monitors) const;

private:
    XSession() = default;
    static std::unique_ptr<XSession> startArranged(std::string* skipReason,
                                                   const std::function<bool(const XSession&)>& arrange,
                                                   bool dragMovesWindows);
    std::string display_;
    std::string directory_;
    int serverPid_ = -1;
    int windowManagerPid_ = -1;
};

// A test client: one top-level window on a connection of its own, with a process id and class
// as a real application's window has, recording the keys and buttons that reach it.
class TestWindow {
public:
    struct Options {
        std::string title = "client";
        std::string instance = "testclient";
        std::string className = "TestClient";
        std::int32_t pid = 0;
        XRect frame{100, 100, 400, 300};
        // A dock with this strut (`_NET_WM_STRUT_PARTIAL`, twelve cardinals) when set.
        std::optional<std::vector<std::uint32_t>> strut = std::nullopt;
        // Minimum and maximum size hints: a client that refuses other sizes.
        std::optional<std::pair<int, int>> fixedSize = std::nullopt;
    };

    TestWindow(const std::string& display, Options options);
    ~TestWindow();

    xcb_window_t window() const { return window_; }
    xcb_connection_t* connection() const { return connection_; }
    // Waits until the window manager framed it and it is viewable.
    // A dock has no frame: then only viewable is waited for.
    bool waitMapped(double timeoutSeconds = 5.0, bool framed = true);
    // Key codes of presses that reached the window, and buttons likewise; reads what has arrived.
    std::vector<std::uint8_t> keyPresses();
    std::vector<std::uint8_t> buttonPresses();
    void destroy();

private:
    void pump();
    xcb_connection_t* connection_ = nullptr;
    xcb_window_t window_ = 0;
    std::vector<std::uint8_t> keys_;
    std::vector<std::uint8_t> buttons_;
};

// The user at the keyboard: XTest input on a connection of its own.
class FakeUser {
public:
    explicit FakeUser(const std::string& display);
    ~FakeUser();
    xcb_connection_t* connection() const { return connection_; }
    // The server key code that types `keysym` unshifted.
    std::uint8_t keycode(std::uint32_t keysym);
    void press(std::uint8_t keycode);
    void release(std::uint8_t keycode);
    // Presses the modifiers' keys, taps the key, lets everything go, in order.
    void chord(const std::vector<std::uint32_t>& modifierKeysyms, std::uint32_t keysym);
    void moveTo(int x, int y);
    void button(int number, bool press);
    // Makes `window` the active one through the window manager, and waits for it.
    bool activate(xcb_window_t window, double timeoutSeconds = 5.0);
    std::optional<xcb_window_t> activeWindow();
    // A round trip: everything sent before has been handled by the server.
    void sync();

private:
    xcb_connection_t* connection_ = nullptr;
    xcb_window_t root_ = 0;
};

} // namespace tavrick::testing

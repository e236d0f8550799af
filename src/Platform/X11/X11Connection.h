#pragma once

#include "Platform/X11/X11Geometry.h"

#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// One connection to an X server, with the window manager's atoms ready. Requests through one
// connection are answered in order, so each user holds `lock` from a request until its reply.
class X11Connection {
public:
    // Nothing, with the reason in `failure`, when `display` (or DISPLAY when empty) names no
    // server that answers.
    static std::unique_ptr<X11Connection> open(const std::string& display, std::string* failure);
    ~X11Connection();
    X11Connection(const X11Connection&) = delete;
    X11Connection& operator=(const X11Connection&) = delete;

    xcb_connection_t* xcb() const { return connection_; }
    xcb_ewmh_connection_t* ewmh() { return &ewmh_; }
    xcb_window_t root() const { return root_; }
    int screenNumber() const { return screenNumber_; }
    const std::string& displayName() const { return displayName_; }
    // False once the server went away or the connection broke.
    bool isAlive() const;

    // The atom for `name`, interned once per connection.
    xcb_atom_t atom(const std::string& name);

    // A property as 32-bit items (CARDINAL, WINDOW, ATOM); nothing when it is missing or the
    // window is gone. The caller holds `lock`.
    std::optional<std::vector<std::uint32_t>> cardinals(xcb_window_t window, xcb_atom_t property);
    // A property's bytes, whatever its type. The caller holds `lock`.
    std::optional<std::string> bytes(xcb_window_t window, xcb_atom_t property);
    // The RandR monitors in root coordinates, the primary one first; the whole root window when
    // the server names none. The caller holds whatever serializes its round trips.
    std::vector<XRect> monitors();

    std::recursive_mutex lock;

private:
    X11Connection() = default;
    xcb_connection_t* connection_ = nullptr;
    xcb_ewmh_connection_t ewmh_{};
    bool ewmhReady_ = false;
    xcb_window_t root_ = 0;
    int screenNumber_ = 0;
    std::string displayName_;
    std::mutex atomsLock_;
    std::map<std::string, xcb_atom_t> atoms_;
};

// A reply that frees itself.
template <typename T>
using XReply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
XReply<T> xreply(T* reply) {
    return XReply<T>(reply, &std::free);
}

} // namespace tavrick

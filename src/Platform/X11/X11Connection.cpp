#include "Platform/X11/X11Connection.h"

#include <xcb/randr.h>

#include <cstdlib>
#include <cstring>

namespace tavrick {

std::unique_ptr<X11Connection> X11Connection::open(const std::string& display, std::string* failure) {
    const char* name = display.empty() ? std::getenv("DISPLAY") : display.c_str();
    if (!name || !*name) {
        if (failure) *failure = "DISPLAY is not set";
        return nullptr;
    }
    int screen = 0;
    xcb_connection_t* connection = xcb_connect(name, &screen);
    if (const int error = xcb_connection_has_error(connection)) {
        xcb_disconnect(connection);
        if (failure) *failure = "the X server at " + std::string(name) + " does not answer (error " + std::to_string(error) + ")";
        return nullptr;
    }
    std::unique_ptr<X11Connection> result(new X11Connection());
    result->connection_ = connection;
    result->screenNumber_ = screen;
    result->displayName_ = name;
    auto iterator = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screen && iterator.rem; ++i) xcb_screen_next(&iterator);
    if (!iterator.rem) {
        if (failure) *failure = "the X server at " + std::string(name) + " has no screen " + std::to_string(screen);
        return nullptr;
    }
    result->root_ = iterator.data->root;
    xcb_intern_atom_cookie_t* cookies = xcb_ewmh_init_atoms(connection, &result->ewmh_);
    if (!xcb_ewmh_init_atoms_replies(&result->ewmh_, cookies, nullptr)) {
        if (failure) *failure = "the X server at " + std::string(name) + " did not answer for its atoms";
        return nullptr;
    }
    result->ewmhReady_ = true;
    return result;
}

X11Connection::~X11Connection() {
    if (ewmhReady_) xcb_ewmh_connection_wipe(&ewmh_);
    if (connection_) xcb_disconnect(connection_);
}

bool X11Connection::isAlive() const {
    return connection_ && xcb_connection_has_error(connection_) == 0;
}

xcb_atom_t X11Connection::atom(const std::string& name) {
    {
        std::lock_guard guard(atomsLock_);
        if (auto found = atoms_.find(name); found != atoms_.end()) return found->second;
    }
    auto reply = xreply(xcb_intern_atom_reply(
        connection_, xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.c_str()), nullptr));
    const xcb_atom_t value = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    if (value != XCB_ATOM_NONE) {
        std::lock_guard guard(atomsLock_);
        atoms_[name] = value;
    }
    return value;
}

std::optional<std::vector<std::uint32_t>> X11Connection::cardinals(xcb_window_t window, xcb_atom_t property) {
    auto reply = xreply(xcb_get_property_reply(
        connection_, xcb_get_property(connection_, 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 4096), nullptr));
    if (!reply || reply->type == XCB_ATOM_NONE || reply->format != 32) return std::nullopt;
    const auto count = static_cast<std::size_t>(xcb_get_property_value_length(reply.get())) / 4;
    const auto* values = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
    return std::vector<std::uint32_t>(values, values + count);
}

std::optional<std::string> X11Connection::bytes(xcb_window_t window, xcb_atom_t property) {
    auto reply = xreply(xcb_get_property_reply(
        connection_, xcb_get_property(connection_, 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 65536), nullptr));
    if (!reply || reply->type == XCB_ATOM_NONE) return std::nullopt;
    const auto length = static_cast<std::size_t>(xcb_get_property_value_length(reply.get()));
    return std::string(static_cast<const char*>(xcb_get_property_value(reply.get())), length);
}

std::vector<XRect> X11Connection::monitors() {
    auto* c = connection_;
    std::vector<XRect> result;
    auto reply = xreply(xcb_randr_get_monitors_reply(c, xcb_randr_get_monitors(c, root_, 1), nullptr));
    if (reply) {
        for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem; xcb_randr_monitor_info_next(&it)) {
            const XRect rect{it.data->x, it.data->y, it.data->width, it.data->height};
            if (it.data->primary) {
                result.insert(result.begin(), rect);
            } else {
                result.push_back(rect);
            }
        }
    }
    if (result.empty()) {
        auto geometry = xreply(xcb_get_geometry_reply(c, xcb_get_geometry(c, root_), nullptr));
        result.push_back(geometry ? XRect{0, 0, geometry->width, geometry->height} : XRect{});
    }
    return result;
}

} // namespace tavrick

#include "Platform/X11/X11ActivationWatcher.h"

#include "Platform/X11/X11Connection.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace tavrick {

struct X11ActivationWatcher::Core {
    std::unique_ptr<X11Connection> x;
    std::function<void()> onChange;
    xcb_atom_t activeWindow = XCB_ATOM_NONE;
    std::atomic<bool> stopping{false};
    int wake[2] = {-1, -1};
    std::thread reader;

    void run() {
        auto* c = x->xcb();
        while (!stopping) {
            pollfd fds[2] = {{xcb_get_file_descriptor(c), POLLIN, 0}, {wake[0], POLLIN, 0}};
            ::poll(fds, wake[0] >= 0 ? 2 : 1, -1);
            if (stopping) return;
            bool activated = false;
            while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
                if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY) {
                    auto* notify = reinterpret_cast<xcb_property_notify_event_t*>(event);
                    activated = activated || (notify->window == x->root() && notify->atom == activeWindow);
                }
                std::free(event);
            }
            // A burst of changes read at once is told once.
            if (activated && onChange) onChange();
            if (xcb_connection_has_error(c)) return;
        }
    }
};

X11ActivationWatcher::X11ActivationWatcher(std::unique_ptr<X11Connection> connection, std::function<void()> onChange)
    : core_(std::make_shared<Core>()) {
    core_->x = std::move(connection);
    core_->onChange = std::move(onChange);
    auto* c = core_->x->xcb();
    core_->activeWindow = core_->x->atom("_NET_ACTIVE_WINDOW");
    // Root's event mask is per client: this connection's own, so the other connections keep theirs.
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c, core_->x->root(), XCB_CW_EVENT_MASK, &mask);
    xcb_flush(c);
    if (::pipe2(core_->wake, O_CLOEXEC | O_NONBLOCK) != 0) core_->wake[0] = core_->wake[1] = -1;
    core_->reader = std::thread([core = core_] { core->run(); });
}

X11ActivationWatcher::~X11ActivationWatcher() {
    core_->stopping = true;
    if (core_->wake[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] auto written = ::write(core_->wake[1], &byte, 1);
    }
    if (core_->reader.joinable()) core_->reader.join();
    for (int fd : core_->wake) {
        if (fd >= 0) ::close(fd);
    }
}

} // namespace tavrick

#include "Platform/X11/X11PadWindow.h"

#include "Platform/X11/X11Connection.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace tavrick {

struct X11PadWindow::Core {
    std::unique_ptr<X11Connection> x;
    std::function<void(const Event&)> onEvent;
    xcb_window_t window = 0;
    xcb_atom_t syncAtom = XCB_ATOM_NONE;
    std::mutex lock;
    std::condition_variable changed;
    std::uint32_t syncsSent = 0;
    std::uint32_t syncsSeen = 0;
    std::atomic<bool> stopping{false};
    std::atomic<bool> alive{true};
    int wake[2] = {-1, -1};
    std::thread reader;

    void run() {
        auto* c = x->xcb();
        while (!stopping) {
            pollfd fds[2] = {{xcb_get_file_descriptor(c), POLLIN, 0}, {wake[0], POLLIN, 0}};
            ::poll(fds, wake[0] >= 0 ? 2 : 1, -1);
            if (stopping) return;
            while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
                handle(event);
                std::free(event);
            }
            if (xcb_connection_has_error(c)) {
                alive = false;
                changed.notify_all();
                return;
            }
        }
    }

    void handle(xcb_generic_event_t* event) {
        const auto type = event->response_type & 0x7f;
        if (type == XCB_BUTTON_PRESS || type == XCB_BUTTON_RELEASE) {
            auto* press = reinterpret_cast<xcb_button_press_event_t*>(event);
            if (press->detail != 3 || !onEvent) return;
            onEvent(Event::mouse(type == XCB_BUTTON_PRESS ? EventType::rightMouseDown : EventType::rightMouseUp,
                                 Point{double(press->root_x), double(press->root_y)}, 1));
        } else if (type == XCB_MOTION_NOTIFY) {
            auto* motion = reinterpret_cast<xcb_motion_notify_event_t*>(event);
            if (!(motion->state & XCB_BUTTON_MASK_3) || !onEvent) return;
            onEvent(Event::mouse(EventType::rightMouseDragged, Point{double(motion->root_x), double(motion->root_y)}, 1));
        } else if (type == XCB_CLIENT_MESSAGE) {
            auto* message = reinterpret_cast<xcb_client_message_event_t*>(event);
            if (message->type != syncAtom) return;
            {
                std::lock_guard guard(lock);
                syncsSeen = std::max(syncsSeen, message->data.data32[0]);
            }
            changed.notify_all();
        }
    }
};

X11PadWindow::X11PadWindow(std::shared_ptr<Core> core) : core_(std::move(core)) {}

std::unique_ptr<X11PadWindow> X11PadWindow::open(std::unique_ptr<X11Connection> connection, XRect frame,
                                                 std::function<void(const Event&)> onEvent, std::string* failure) {
    auto core = std::make_shared<Core>();
    core->x = std::move(connection);
    core->onEvent = std::move(onEvent);
    auto* c = core->x->xcb();
    core->syncAtom = core->x->atom("TAVRICK_PAD_SYNC");
    core->window = xcb_generate_id(c);
    // Override-redirect: no window manager moves it, frames it or puts another window over it.
    const std::uint32_t values[] = {1, XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE | XCB_EVENT_MASK_BUTTON_MOTION};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, core->window, core->x->root(), static_cast<std::int16_t>(frame.x),
                      static_cast<std::int16_t>(frame.y), static_cast<std::uint16_t>(frame.width),
                      static_cast<std::uint16_t>(frame.height), 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(c, core->window);
    const std::uint32_t top = XCB_STACK_MODE_ABOVE;
    xcb_configure_window(c, core->window, XCB_CONFIG_WINDOW_STACK_MODE, &top);
    auto answer = xreply(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    if (!answer) {
        if (failure) *failure = "the X server did not map the pad window";
        return nullptr;
    }
    if (::pipe2(core->wake, O_CLOEXEC | O_NONBLOCK) != 0) core->wake[0] = core->wake[1] = -1;
    core->reader = std::thread([core] { core->run(); });
    return std::unique_ptr<X11PadWindow>(new X11PadWindow(core));
}

X11PadWindow::~X11PadWindow() {
    core_->stopping = true;
    if (core_->wake[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] auto written = ::write(core_->wake[1], &byte, 1);
    }
    if (core_->reader.joinable()) core_->reader.join();
    if (core_->x->isAlive()) {
        xcb_destroy_window(core_->x->xcb(), core_->window);
        xcb_flush(core_->x->xcb());
    }
    for (int fd : core_->wake) {
        if (fd >= 0) ::close(fd);
    }
}

bool X11PadWindow::sync(double timeoutSeconds) {
    auto& core = *core_;
    if (!core.alive) return false;
    std::uint32_t ticket = 0;
    {
        std::lock_guard guard(core.lock);
        ticket = ++core.syncsSent;
    }
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = core.window;
    message.type = core.syncAtom;
    message.data.data32[0] = ticket;
    xcb_send_event(core.x->xcb(), 0, core.window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&message));
    xcb_flush(core.x->xcb());
    std::unique_lock guard(core.lock);
    return core.changed.wait_for(guard, std::chrono::duration<double>(timeoutSeconds),
                                 [&] { return core.syncsSeen >= ticket || !core.alive; }) &&
           core.alive;
}

} // namespace tavrick

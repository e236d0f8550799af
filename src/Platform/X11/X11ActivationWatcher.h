#pragma once

#include <functional>
#include <memory>
#include <string>

namespace tavrick {

class X11Connection;

// Hears the window manager change `_NET_ACTIVE_WINDOW` on the root window, on a thread of its
// own, and says so through `onChange`, called on that thread. What became active is for the
// caller to ask: the watcher only knows that something did.
class X11ActivationWatcher {
public:
    X11ActivationWatcher(std::unique_ptr<X11Connection> connection, std::function<void()> onChange);
    ~X11ActivationWatcher();
    X11ActivationWatcher(const X11ActivationWatcher&) = delete;
    X11ActivationWatcher& operator=(const X11ActivationWatcher&) = delete;

    struct Core;

private:
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

#include "Platform/X11/X11Desktop.h"

#include "CoreKit/Log.h"
#include "Platform/X11/X11Connection.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <thread>

namespace tavrick {

namespace {

using Clock = std::chrono::steady_clock;

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

} // namespace

struct X11Desktop::Core {
    std::shared_ptr<X11Connection> x;
    std::vector<std::filesystem::path> folders;

    // Everything below expects `x->lock` held.
    std::vector<xcb_window_t> clients(bool stacking);
    std::optional<std::int32_t> pid(xcb_window_t window);
    // The window's process, or `noProcess` for a client that never says (xmessage, old toolkits)
    // but has a class to be named by. Nothing for a window that has neither: one already gone.
    std::optional<std::int32_t> processOf(xcb_window_t window) {
        if (auto known = pid(window)) return known;
        if (windowClass(window)) return noProcess;
        return std::nullopt;
    }
    std::optional<std::pair<std::string, std::string>> windowClass(xcb_window_t window);
    RunningApplication describe(xcb_window_t window, std::int32_t pid);
    std::optional<xcb_window_t> activeWindow();
    std::optional<XRect> clientGeometry(xcb_window_t window);
    FrameExtents extents(xcb_window_t window);
    std::optional<XRect> outer(xcb_window_t window);
    std::vector<XRect> monitors();
    XRect rootRect();
    bool isMaximized(xcb_window_t window);
    bool hasType(xcb_window_t window, xcb_atom_t type);
    std::optional<std::string> desktopEntry(const std::string& instance, const std::string& className) const;
};

std::vector<xcb_window_t> X11Desktop::Core::clients(bool stacking) {
    auto* e = x->ewmh();
    auto values = x->cardinals(x->root(), stacking ? e->_NET_CLIENT_LIST_STACKING : e->_NET_CLIENT_LIST);
    if (!values) return {};
    return {values->begin(), values->end()};
}

std::optional<std::int32_t> X11Desktop::Core::pid(xcb_window_t window) {
    auto values = x->cardinals(window, x->ewmh()->_NET_WM_PID);
    if (!values || values->empty()) return std::nullopt;
    return static_cast<std::int32_t>((*values)[0]);
}

std::optional<std::pair<std::string, std::string>> X11Desktop::Core::windowClass(xcb_window_t window) {
    auto raw = x->bytes(window, XCB_ATOM_WM_CLASS);
    if (!raw) return std::nullopt;
    // "instance\0Class\0"
    const auto split = raw->find('\0');
    std::string instance = raw->substr(0, split);
    std::string className = split == std::string::npos ? instance : raw->substr(split + 1);
    if (auto end = className.find('\0'); end != std::string::npos) className.resize(end);
    return std::make_pair(instance, className);
}

std::optional<std::string> X11Desktop::Core::desktopEntry(const std::string& instance, const std::string& className) const {
    for (const auto& candidate : {className, instance, lowercase(className), lowercase(instance)}) {
        if (candidate.empty()) continue;
        for (const auto& folder : folders) {
            std::error_code error;
            if (std::filesystem::is_regular_file(folder / (candidate + ".desktop"), error)) return candidate;
        }
    }
    return std::nullopt;
}

RunningApplication X11Desktop::Core::describe(xcb_window_t window, std::int32_t processIdentifier) {
    RunningApplication app;
    app.processIdentifier = processIdentifier;
    if (auto names = windowClass(window)) {
        app.bundleIdentifier = desktopEntry(names->first, names->second).value_or(names->second);
        app.localizedName = names->second;
    }
    return app;
}

std::optional<xcb_window_t> X11Desktop::Core::activeWindow() {
    auto values = x->cardinals(x->root(), x->ewmh()->_NET_ACTIVE_WINDOW);
    if (!values || values->empty() || (*values)[0] == XCB_WINDOW_NONE) return std::nullopt;
    return (*values)[0];
}

std::optional<XRect> X11Desktop::Core::clientGeometry(xcb_window_t window) {
    auto* c = x->xcb();
    // Nothing listens on this connection, but errors for windows that went away arrive as
    // events: dropped here so that they never pile up.
    while (xcb_generic_event_t* stale = xcb_poll_for_event(c)) std::free(stale);
    auto geometry = xreply(xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr));
    if (!geometry) return std::nullopt;
    auto translated = xreply(xcb_translate_coordinates_reply(c, xcb_translate_coordinates(c, window, x->root(), 0, 0), nullptr));
    if (!translated) return std::nullopt;
    return XRect{translated->dst_x, translated->dst_y, geometry->width, geometry->height};
}

FrameExtents X11Desktop::Core::extents(xcb_window_t window) {
    auto values = x->cardinals(window, x->ewmh()->_NET_FRAME_EXTENTS);
    if (!values || values->size() < 4) return {};
    return {static_cast<std::int32_t>((*values)[0]), static_cast<std::int32_t>((*values)[1]),
            static_cast<std::int32_t>((*values)[2]), static_cast<std::int32_t>((*values)[3])};
}

std::optional<XRect> X11Desktop::Core::outer(xcb_window_t window) {
    auto client = clientGeometry(window);
    if (!client) return std::nullopt;
    return X11Geometry::outerFrame(*client, extents(window));
}

XRect X11Desktop::Core::rootRect() {
    auto* c = x->xcb();
    auto geometry = xreply(xcb_get_geometry_reply(c, xcb_get_geometry(c, x->root()), nullptr));
    if (!geometry) return {};
    return {0, 0, geometry->width, geometry->height};
}

std::vector<XRect> X11Desktop::Core::monitors() {
    return x->monitors();
}

bool X11Desktop::Core::hasType(xcb_window_t window, xcb_atom_t type) {
    auto types = x->cardinals(window, x->ewmh()->_NET_WM_WINDOW_TYPE);
    return types && std::find(types->begin(), types->end(), type) != types->end();
}

bool X11Desktop::Core::isMaximized(xcb_window_t window) {
    auto* e = x->ewmh();
    auto state = x->cardinals(window, e->_NET_WM_STATE);
    if (!state) return false;
    for (auto atom : *state) {
        if (atom == e->_NET_WM_STATE_MAXIMIZED_VERT || atom == e->_NET_WM_STATE_MAXIMIZED_HORZ) return true;
    }
    return false;
}

namespace {

// One managed window, moved and sized by its outer frame through the window manager.
class X11Window final : public AccessibilityWindow {
public:
    X11Window(std::shared_ptr<X11Desktop::Core> core, xcb_window_t window, double settleSeconds)
        : core_(std::move(core)), window_(window), settleSeconds_(settleSeconds) {}

    std::optional<Point> position() override {
        std::lock_guard guard(core_->x->lock);
        auto frame = core_->outer(window_);
        if (!frame) return std::nullopt;
        return X11Geometry::toWindowPoint(frame->x, frame->y, core_->monitors().front());
    }

    std::optional<Size> size() override {
        std::lock_guard guard(core_->x->lock);
        auto frame = core_->outer(window_);
        if (!frame) return std::nullopt;
        return Size{double(frame->width), double(frame->height)};
    }

    bool setPosition(Point position) override {
        std::lock_guard guard(core_->x->lock);
        if (!leaveMaximized()) return false;
        auto current = core_->outer(window_);
        if (!current) return false;
        const auto first = core_->monitors().front();
        XRect wanted = *current;
        wanted.x = X11Geometry::rootX(position.x, first);
        wanted.y = X11Geometry::rootY(position.y, first);
        return request(*current, wanted, XCB_EWMH_MOVERESIZE_WINDOW_X | XCB_EWMH_MOVERESIZE_WINDOW_Y);
    }

    bool setSize(Size size) override {
        std::lock_guard guard(core_->x->lock);
        if (!leaveMaximized()) return false;
        auto current = core_->outer(window_);
        if (!current) return false;
        XRect wanted = *current;
        wanted.width = static_cast<std::int32_t>(std::lround(size.width));
        wanted.height = static_cast<std::int32_t>(std::lround(size.height));
        return request(*current, wanted, XCB_EWMH_MOVERESIZE_WINDOW_WIDTH | XCB_EWMH_MOVERESIZE_WINDOW_HEIGHT);
    }

private:
    // A maximized window ignores moves, so it is taken out of that state first; the frame's
    // extents may change with it. False when the window went away.
    bool leaveMaximized() {
        if (!core_->isMaximized(window_)) return true;
        auto* e = core_->x->ewmh();
        xcb_ewmh_request_change_wm_state(e, core_->x->screenNumber(), window_, XCB_EWMH_WM_STATE_REMOVE,
                                         e->_NET_WM_STATE_MAXIMIZED_VERT, e->_NET_WM_STATE_MAXIMIZED_HORZ,
                                         XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER);
        xcb_flush(core_->x->xcb());
        const auto deadline = Clock::now() + std::chrono::duration<double>(settleSeconds_);
        while (core_->isMaximized(window_)) {
            if (!core_->clientGeometry(window_)) return false;
            if (Clock::now() > deadline) {
                Log::windows.notice("The window manager kept window 0x%x maximized", window_);
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        // Let the restored geometry and extents land before they are read again.
        waitUntilStable();
        return true;
    }

    void waitUntilStable() {
        auto last = core_->outer(window_);
        const auto deadline = Clock::now() + std::chrono::duration<double>(settleSeconds_);
        int unchanged = 0;
        while (Clock::now() < deadline && unchanged < 4) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            auto now = core_->outer(window_);
            unchanged = now == last ? unchanged + 1 : 0;
            last = now;
        }
    }

    // Asks for `wanted` (an outer frame) and waits until the window manager carried it out or the
    // settle time passed. False when the window is gone or nothing moved: the client refused.
    bool request(XRect before, XRect wanted, std::uint32_t flags) {
        if (before == wanted) return true;
        const auto extents = core_->extents(window_);
        const auto client = X11Geometry::clientFrame(wanted, extents);
        // Static gravity: the coordinates are the client's own, so the frame lands where asked.
        xcb_ewmh_request_moveresize_window(core_->x->ewmh(), core_->x->screenNumber(), window_, XCB_GRAVITY_STATIC,
                                           XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER,
                                           static_cast<xcb_ewmh_moveresize_window_opt_flags_t>(flags), client.x,
                                           client.y, static_cast<std::uint32_t>(client.width),
                                           static_cast<std::uint32_t>(client.height));
        xcb_flush(core_->x->xcb());
        const auto deadline = Clock::now() + std::chrono::duration<double>(settleSeconds_);
        std::optional<XRect> now;
        while (true) {
            now = core_->outer(window_);
            if (!now) {
                Log::windows.notice("Window 0x%x went away while it was being moved", window_);
                return false;
            }
            if (*now == wanted) return true;
            if (Clock::now() > deadline) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (*now == before) {
            Log::windows.notice("Window 0x%x refused the frame %d,%d %dx%d", window_, wanted.x, wanted.y, wanted.width,
                               wanted.height);
            return false;
        }
        return true;
    }

    std::shared_ptr<X11Desktop::Core> core_;
    xcb_window_t window_;
    double settleSeconds_;
};

class X11Application final : public AccessibilityApplication {
public:
    X11Application(std::shared_ptr<X11Desktop::Core> core, std::int32_t pid) : core_(std::move(core)), pid_(pid) {}

    void setMessagingTimeout(double seconds) override {
        settleSeconds_ = std::clamp(seconds, 0.05, X11Desktop::defaultSettleSeconds);
    }

    std::unique_ptr<AccessibilityWindow> focusedWindow() override {
        std::lock_guard guard(core_->x->lock);
        auto active = core_->activeWindow();
        if (!active || core_->processOf(*active) != pid_) return nullptr;
        return std::make_unique<X11Window>(core_, *active, settleSeconds_);
    }

    // X11 has no screen-reader mode that changes how windows move.
    std::optional<bool> enhancedUserInterface() override { return false; }
    bool setEnhancedUserInterface(bool on) override { return !on; }

private:
    std::shared_ptr<X11Desktop::Core> core_;
    std::int32_t pid_;
    double settleSeconds_ = X11Desktop::defaultSettleSeconds;
};

} // namespace

X11Desktop::X11Desktop(std::shared_ptr<X11Connection> connection, std::vector<std::filesystem::path> applicationFolders)
    : core_(std::make_shared<Core>(Core{std::move(connection), std::move(applicationFolders)})) {}

X11Desktop::~X11Desktop() = default;

std::vector<std::filesystem::path> X11Desktop::defaultApplicationFolders() {
    std::vector<std::filesystem::path> folders;
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    const char* home = std::getenv("HOME");
    if (dataHome && *dataHome) {
        folders.emplace_back(std::filesystem::path(dataHome) / "applications");
    } else if (home && *home) {
        folders.emplace_back(std::filesystem::path(home) / ".local/share/applications");
    }
    const char* dataDirs = std::getenv("XDG_DATA_DIRS");
    std::stringstream dirs(dataDirs && *dataDirs ? dataDirs : "/usr/local/share:/usr/share");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        if (!dir.empty()) folders.emplace_back(std::filesystem::path(dir) / "applications");
    }
    return folders;
}

std::optional<RunningApplication> X11Desktop::frontmostApplication() const {
    std::lock_guard guard(core_->x->lock);
    auto active = core_->activeWindow();
    if (!active) return std::nullopt;
    auto pid = core_->processOf(*active);
    if (!pid) return std::nullopt;
    return core_->describe(*active, *pid);
}

std::vector<RunningApplication> X11Desktop::allApplications() const {
    std::lock_guard guard(core_->x->lock);
    std::vector<RunningApplication> result;
    for (auto window : core_->clients(false)) {
        auto pid = core_->pid(window);
        if (!pid) continue;
        if (std::any_of(result.begin(), result.end(), [&](const auto& app) { return app.processIdentifier == *pid; })) continue;
        result.push_back(core_->describe(window, *pid));
    }
    return result;
}

std::vector<RunningApplication> X11Desktop::runningApplications(const std::string& bundleIdentifier) const {
    auto all = allApplications();
    std::erase_if(all, [&](const auto& app) { return app.bundleIdentifier != bundleIdentifier; });
    return all;
}

bool X11Desktop::activate(std::int32_t processIdentifier) {
    std::lock_guard guard(core_->x->lock);
    auto windows = core_->clients(true);
    // The topmost of its windows comes forward.
    for (auto it = windows.rbegin(); it != windows.rend(); ++it) {
        if (core_->pid(*it) != processIdentifier) continue;
        auto* e = core_->x->ewmh();
        xcb_ewmh_request_change_active_window(e, core_->x->screenNumber(), *it, XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER,
                                              XCB_CURRENT_TIME, XCB_WINDOW_NONE);
        xcb_flush(core_->x->xcb());
        return true;
    }
    return false;
}

bool X11Desktop::terminate(std::int32_t processIdentifier) {
    if (processIdentifier <= 0) return false;
    {
        std::lock_guard guard(core_->x->lock);
        bool known = false;
        for (auto window : core_->clients(false)) known = known || core_->pid(window) == processIdentifier;
        if (!known) return false;
    }
    return ::kill(processIdentifier, SIGTERM) == 0;
}

std::vector<XRect> X11Desktop::monitors() const {
    std::lock_guard guard(core_->x->lock);
    return core_->monitors();
}

std::vector<ScreenInfo> X11Desktop::screens() const {
    std::lock_guard guard(core_->x->lock);
    const auto monitors = core_->monitors();
    const auto root = core_->rootRect();
    std::vector<Strut> struts;
    auto* e = core_->x->ewmh();
    for (auto window : core_->clients(false)) {
        auto values = core_->x->cardinals(window, e->_NET_WM_STRUT_PARTIAL);
        if (!values) values = core_->x->cardinals(window, e->_NET_WM_STRUT);
        if (!values) continue;
        if (auto strut = Strut::fromCardinals(*values, root)) struts.push_back(*strut);
    }
    std::vector<ScreenInfo> result;
    for (const auto& monitor : monitors) {
        result.push_back({X11Geometry::toScreen(monitor, monitors.front()),
                          X11Geometry::toScreen(X11Geometry::visibleArea(monitor, struts, root), monitors.front())});
    }
    return result;
}

std::vector<WindowListEntry> X11Desktop::onScreenWindows() const {
    std::lock_guard guard(core_->x->lock);
    const auto first = core_->monitors().front();
    auto* e = core_->x->ewmh();
    auto windows = core_->clients(true);
    std::vector<WindowListEntry> result;
    for (auto it = windows.rbegin(); it != windows.rend(); ++it) {
        if (core_->hasType(*it, e->_NET_WM_WINDOW_TYPE_DOCK) || core_->hasType(*it, e->_NET_WM_WINDOW_TYPE_DESKTOP)) continue;
        WindowListEntry entry;
        if (auto names = core_->windowClass(*it)) entry.ownerName = names->second;
        entry.layer = 0;
        if (auto frame = core_->outer(*it)) {
            const auto origin = X11Geometry::toWindowPoint(frame->x, frame->y, first);
            entry.bounds = Rect{origin, {double(frame->width), double(frame->height)}};
        }
        result.push_back(std::move(entry));
    }
    return result;
}

std::unique_ptr<AccessibilityApplication> X11Desktop::application(std::int32_t processIdentifier) {
    return std::make_unique<X11Application>(core_, processIdentifier);
}

} // namespace tavrick

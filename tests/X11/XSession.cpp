#include "X11/XSession.h"

#include "Support/Eventually.h"

#include <xcb/xcb_ewmh.h>
#include <xcb/xtest.h>

#include <csignal>
#include <fcntl.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tavrick::testing {

namespace {

constexpr const char* openboxConfig = R"(<?xml version="1.0" encoding="UTF-8"?>
<openbox_config xmlns="http://openbox.org/3.4/rc">
  <focus><focusNew>yes</focusNew><followMouse>no</followMouse></focus>
  <placement><policy>Smart</policy></placement>
  <desktops><number>1</number></desktops>
  <keyboard></keyboard>
  <mouse></mouse>
</openbox_config>
)";

// The same, except that a left-button drag of a title bar moves the window as a desktop's window
// manager does, with no resistance at the screen edges.
constexpr const char* openboxDragConfig = R"(<?xml version="1.0" encoding="UTF-8"?>
<openbox_config xmlns="http://openbox.org/3.4/rc">
  <focus><focusNew>yes</focusNew><followMouse>no</followMouse></focus>
  <placement><policy>Smart</policy></placement>
  <desktops><number>1</number></desktops>
  <resistance><strength>0</strength><screen_edge_strength>0</screen_edge_strength></resistance>
  <keyboard></keyboard>
  <mouse>
    <dragThreshold>1</dragThreshold>
    <context name="Titlebar">
      <mousebind button="Left" action="Press"><action name="Focus"/><action name="Raise"/></mousebind>
      <mousebind button="Left" action="Drag"><action name="Move"/></mousebind>
    </context>
  </mouse>
</openbox_config>
)";

int spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& environment, int keepFd = -1) {
    const int pid = fork();
    if (pid != 0) return pid;
    // A test program that dies without its destructors takes its server and window manager along.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int devnull = ::open("/dev/null", O_RDWR);
    dup2(devnull, STDIN_FILENO);
    dup2(devnull, STDOUT_FILENO);
    dup2(devnull, STDERR_FILENO);
    // Nothing of the test program's but the display pipe goes to the child.
    for (int fd = 3; fd < 1024; ++fd) {
        if (fd != keepFd) ::close(fd);
    }
    std::vector<char*> argv;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
}

void stopChild(int pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 2000; ++i) {
        if (waitpid(pid, nullptr, WNOHANG) == pid) return;
        usleep(1000);
    }
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

xcb_atom_t intern(xcb_connection_t* c, const char* name) {
    auto* reply = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
    const xcb_atom_t atom = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return atom;
}

xcb_window_t rootOf(xcb_connection_t* c) {
    return xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
}

std::optional<std::uint32_t> windowProperty(xcb_connection_t* c, xcb_window_t window, xcb_atom_t property) {
    auto* reply = xcb_get_property_reply(c, xcb_get_property(c, 0, window, property, XCB_ATOM_WINDOW, 0, 1), nullptr);
    std::optional<std::uint32_t> value;
    if (reply && xcb_get_property_value_length(reply) >= 4) value = *static_cast<std::uint32_t*>(xcb_get_property_value(reply));
    std::free(reply);
    return value;
}

} // namespace

std::unique_ptr<XSession> XSession::start(std::string* skipReason, int splitAt, bool dragMovesWindows) {
    return startArranged(skipReason, [splitAt](const XSession& s) { return splitAt <= 0 || s.splitMonitors(splitAt); },
                         dragMovesWindows);
}

std::unique_ptr<XSession> XSession::start(std::string* skipReason, const std::vector<XRect>& monitors,
                                          bool dragMovesWindows) {
    return startArranged(skipReason, [monitors](const XSession& s) { return s.setMonitors(monitors); }, dragMovesWindows);
}

std::unique_ptr<XSession> XSession::startArranged(std::string* skipReason,
                                                  const std::function<bool(const XSession&)>& arrange,
                                                  bool dragMovesWindows) {
    const int width = 1600;
    const int height = 900;
    for (const char* program : {"/usr/bin/Xvfb", "/usr/bin/openbox"}) {
        if (::access(program, X_OK) != 0) {
            *skipReason = std::string(program) + " is not installed (scripts/setup installs it)";
            return nullptr;
        }
    }
    std::unique_ptr<XSession> session(new XSession());
    char pattern[] = "/tmp/tavrick-x11-XXXXXX";
    if (!mkdtemp(pattern)) {
        *skipReason = "no temporary directory";
        return nullptr;
    }
    session->directory_ = pattern;
    int fds[2];
    if (pipe(fds) != 0) {
        *skipReason = "no pipe";
        return nullptr;
    }
    session->serverPid_ = spawn({"/usr/bin/Xvfb", "-displayfd", std::to_string(fds[1]), "-noreset", "-nolisten", "tcp",
                                 "-screen", "0", std::to_string(width) + "x" + std::to_string(height) + "x24"},
                                {}, fds[1]);
    ::close(fds[1]);
    std::string number;
    pollfd readable{fds[0], POLLIN, 0};
    for (int waited = 0; waited < 100 && number.find('\n') == std::string::npos; ++waited) {
        if (::poll(&readable, 1, 100) > 0) {
            char buffer[32];
            const auto n = ::read(fds[0], buffer, sizeof buffer);
            if (n <= 0) break;
            number.append(buffer, static_cast<std::size_t>(n));
        }
    }
    ::close(fds[0]);
    if (number.find('\n') == std::string::npos) {
        *skipReason = "Xvfb did not start";
        return nullptr;
    }
    session->display_ = ":" + number.substr(0, number.find('\n'));

    if (!arrange(*session)) {
        *skipReason = "xrandr could not split the screen (scripts/setup installs x11-xserver-utils)";
        return nullptr;
    }
    const auto config = std::filesystem::path(session->directory_) / "rc.xml";
    std::ofstream(config) << (dragMovesWindows ? openboxDragConfig : openboxConfig);
    session->windowManagerPid_ =
        spawn({"/usr/bin/openbox", "--sm-disable", "--config-file", config.string()},
              {"DISPLAY=" + session->display_, "HOME=" + session->directory_, "XDG_CONFIG_HOME=" + session->directory_});

    xcb_connection_t* c = xcb_connect(session->display_.c_str(), nullptr);
    const xcb_atom_t check = intern(c, "_NET_SUPPORTING_WM_CHECK");
    // The work area is the last thing the window manager sets as it starts.
    const xcb_atom_t workarea = intern(c, "_NET_WORKAREA");
    const bool managed = eventually(
        [&] {
            if (!windowProperty(c, rootOf(c), check)) return false;
            auto* reply = xcb_get_property_reply(c, xcb_get_property(c, 0, rootOf(c), workarea, XCB_ATOM_CARDINAL, 0, 4), nullptr);
            const bool set = reply && xcb_get_property_value_length(reply) >= 16;
            std::free(reply);
            return set;
        },
        10.0);
    xcb_disconnect(c);
    if (!managed) {
        *skipReason = "openbox did not take the display";
        return nullptr;
    }
    return session;
}

XSession::~XSession() {
    stopChild(windowManagerPid_);
    stopChild(serverPid_);
    if (!directory_.empty()) {
        std::error_code error;
        std::filesystem::remove_all(directory_, error);
    }
}

int XSession::run(const std::vector<std::string>& arguments) const {
    const int pid = spawn(arguments, {"DISPLAY=" + display_, "PATH=/usr/bin:/bin"});
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool XSession::setMonitors(const std::vector<XRect>& monitors) const {
    // The first takes the screen's output and is primary; the physical sizes only keep xrandr happy.
    for (std::size_t i = 0; i < monitors.size(); ++i) {
        const auto& m = monitors[i];
        const std::string geometry = std::to_string(m.width) + "/200x" + std::to_string(m.height) + "/200+" +
                                     std::to_string(m.x) + "+" + std::to_string(m.y);
        const std::string name = (i == 0 ? "*M" : "M") + std::to_string(i);
        if (run({"/usr/bin/xrandr", "--setmonitor", name, geometry, i == 0 ? "screen" : "none"}) != 0) return false;
    }
    return true;
}

bool XSession::splitMonitors(int leftWidth) const {
    // The physical sizes only keep xrandr happy; nothing reads them.
    return run({"/usr/bin/xrandr", "--setmonitor", "L", std::to_string(leftWidth) + "/200x900/225+0+0", "screen"}) == 0 &&
           run({"/usr/bin/xrandr", "--setmonitor", "R", std::to_string(1600 - leftWidth) + "/200x900/225+" +
                                                           std::to_string(leftWidth) + "+0", "none"}) == 0;
}

TestWindow::TestWindow(const std::string& display, Options options) {
    connection_ = xcb_connect(display.c_str(), nullptr);
    auto* c = connection_;
    const auto root = rootOf(c);
    window_ = xcb_generate_id(c);
    const std::uint32_t values[] = {XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window_, root, static_cast<std::int16_t>(options.frame.x),
                      static_cast<std::int16_t>(options.frame.y), static_cast<std::uint16_t>(options.frame.width),
                      static_cast<std::uint16_t>(options.frame.height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, values);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(options.title.size()), options.title.c_str());
    std::string wmClass = options.instance + '\0' + options.className + '\0';
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                        static_cast<std::uint32_t>(wmClass.size()), wmClass.data());
    // Some clients (xmessage) never say their process: a pid of 0 leaves the property out.
    if (options.pid != 0) {
        const auto pid = static_cast<std::uint32_t>(options.pid);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, intern(c, "_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
    }
    // Position hints so the window manager keeps the asked place.
    std::uint32_t hints[18] = {};
    hints[0] = 1 | 2 | 4 | 8;  // user position and size, program position and size
    hints[1] = static_cast<std::uint32_t>(options.frame.x);
    hints[2] = static_cast<std::uint32_t>(options.frame.y);
    hints[3] = static_cast<std::uint32_t>(options.frame.width);
    hints[4] = static_cast<std::uint32_t>(options.frame.height);
    if (options.fixedSize) {
        hints[0] |= 16 | 32;  // minimum and maximum size
        hints[5] = hints[7] = static_cast<std::uint32_t>(options.fixedSize->first);
        hints[6] = hints[8] = static_cast<std::uint32_t>(options.fixedSize->second);
    }
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 32, 18, hints);
    if (options.strut) {
        const auto dock = intern(c, "_NET_WM_WINDOW_TYPE_DOCK");
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, intern(c, "_NET_WM_WINDOW_TYPE"), XCB_ATOM_ATOM, 32, 1, &dock);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, intern(c, "_NET_WM_STRUT_PARTIAL"), XCB_ATOM_CARDINAL, 32,
                            static_cast<std::uint32_t>(options.strut->size()), options.strut->data());
    }
    xcb_map_window(c, window_);
    xcb_flush(c);
}

TestWindow::~TestWindow() {
    if (connection_) xcb_disconnect(connection_);
}

void TestWindow::destroy() {
    xcb_destroy_window(connection_, window_);
    xcb_flush(connection_);
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

bool TestWindow::waitMapped(double timeoutSeconds, bool needsFrame) {
    const auto extents = intern(connection_, "_NET_FRAME_EXTENTS");
    bool viewable = false;
    bool framed = false;
    int asked = 0;
    const bool mapped = eventually(
        [&] {
            auto* attributes = xcb_get_window_attributes_reply(connection_, xcb_get_window_attributes(connection_, window_), nullptr);
            viewable = attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
            std::free(attributes);
            auto* property = xcb_get_property_reply(
                connection_, xcb_get_property(connection_, 0, window_, extents, XCB_ATOM_CARDINAL, 0, 4), nullptr);
            framed = property && xcb_get_property_value_length(property) == 16;
            std::free(property);
            // openbox now and then drops a map request that comes while it settles after its
            // start; asking again once is what a real client's toolkit does on a new map too.
            if (!viewable && ++asked == 1000) {
                xcb_map_window(connection_, window_);
                xcb_flush(connection_);
            }
            return viewable && (framed || !needsFrame);
        },
        timeoutSeconds);
    if (!mapped) {
        std::fprintf(stderr, "window 0x%x: viewable %d, frame extents %d, connection error %d\n", window_, viewable, framed,
                     xcb_connection_has_error(connection_));
    }
    return mapped;
}

void TestWindow::pump() {
    while (auto* event = xcb_poll_for_event(connection_)) {
        const auto type = event->response_type & 0x7f;
        if (type == XCB_KEY_PRESS) keys_.push_back(reinterpret_cast<xcb_key_press_event_t*>(event)->detail);
        if (type == XCB_BUTTON_PRESS) buttons_.push_back(reinterpret_cast<xcb_button_press_event_t*>(event)->detail);
        std::free(event);
    }
}

std::vector<std::uint8_t> TestWindow::keyPresses() {
    pump();
    return keys_;
}

std::vector<std::uint8_t> TestWindow::buttonPresses() {
    pump();
    return buttons_;
}

FakeUser::FakeUser(const std::string& display) {
    connection_ = xcb_connect(display.c_str(), nullptr);
    root_ = rootOf(connection_);
}

FakeUser::~FakeUser() {
    xcb_disconnect(connection_);
}

std::uint8_t FakeUser::keycode(std::uint32_t keysym) {
    const auto* setup = xcb_get_setup(connection_);
    const int count = setup->max_keycode - setup->min_keycode + 1;
    auto* reply = xcb_get_keyboard_mapping_reply(
        connection_, xcb_get_keyboard_mapping(connection_, setup->min_keycode, static_cast<std::uint8_t>(count)), nullptr);
    std::uint8_t found = 0;
    if (reply) {
        const auto* syms = xcb_get_keyboard_mapping_keysyms(reply);
        for (int i = 0; i < count && !found; ++i) {
            if (syms[i * reply->keysyms_per_keycode] == keysym) found = static_cast<std::uint8_t>(setup->min_keycode + i);
        }
    }
    std::free(reply);
    return found;
}

void FakeUser::press(std::uint8_t keycode) {
    xcb_test_fake_input(connection_, XCB_KEY_PRESS, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    xcb_flush(connection_);
}

void FakeUser::release(std::uint8_t keycode) {
    xcb_test_fake_input(connection_, XCB_KEY_RELEASE, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    xcb_flush(connection_);
}

void FakeUser::chord(const std::vector<std::uint32_t>& modifierKeysyms, std::uint32_t keysym) {
    std::vector<std::uint8_t> held;
    for (auto sym : modifierKeysyms) {
        held.push_back(keycode(sym));
        press(held.back());
    }
    const auto key = keycode(keysym);
    press(key);
    release(key);
    for (auto it = held.rbegin(); it != held.rend(); ++it) release(*it);
    sync();
}

void FakeUser::moveTo(int x, int y) {
    xcb_test_fake_input(connection_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root_, static_cast<std::int16_t>(x),
                        static_cast<std::int16_t>(y), 0);
    xcb_flush(connection_);
}

void FakeUser::button(int number, bool press) {
    xcb_test_fake_input(connection_, press ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, static_cast<std::uint8_t>(number),
                        XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    xcb_flush(connection_);
}

std::optional<xcb_window_t> FakeUser::activeWindow() {
    auto value = windowProperty(connection_, root_, intern(connection_, "_NET_ACTIVE_WINDOW"));
    if (!value || *value == 0) return std::nullopt;
    return *value;
}

bool FakeUser::activate(xcb_window_t window, double timeoutSeconds) {
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = window;
    message.type = intern(connection_, "_NET_ACTIVE_WINDOW");
    message.data.data32[0] = 2;
    xcb_send_event(connection_, 0, root_,
                   XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                   reinterpret_cast<const char*>(&message));
    xcb_flush(connection_);
    return eventually([&] { return activeWindow() == window; }, timeoutSeconds);
}

void FakeUser::sync() {
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

} // namespace tavrick::testing

// Drag snapping against a private Xvfb whose openbox moves a window by its title bar.
#include "X11/XSession.h"

#include "ActionKit/SnapPreview.h"
#include "ActionKit/WindowManager.h"
#include "ActionKit/WindowSnapper.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11Desktop.h"
#include "Platform/X11/X11EventSystem.h"
#include "Platform/X11/X11SnapPreview.h"
#include "Support/Eventually.h"
#include "Support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unistd.h>

namespace tavrick {
namespace {

using testing::eventually;
using testing::FakeUser;
using testing::TestWindow;
using testing::XSession;

constexpr std::int32_t clientPid = 41001;

// The preview window as another client sees it: found by its name among the root's children.
struct SeenPreview {
    bool viewable = false;
    bool overrideRedirect = false;
    XRect frame;
};

std::optional<SeenPreview> findPreview(xcb_connection_t* c) {
    const auto root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    auto tree = xcb_query_tree_reply(c, xcb_query_tree(c, root), nullptr);
    if (!tree) return std::nullopt;
    std::optional<SeenPreview> found;
    const auto* children = xcb_query_tree_children(tree);
    for (int i = 0; i < xcb_query_tree_children_length(tree) && !found; ++i) {
        auto name = xcb_get_property_reply(
            c, xcb_get_property(c, 0, children[i], XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 0, 64), nullptr);
        const bool match = name && std::string(static_cast<const char*>(xcb_get_property_value(name)),
                                               static_cast<std::size_t>(xcb_get_property_value_length(name))) ==
                                       X11SnapPreview::windowName;
        std::free(name);
        if (!match) continue;
        auto attributes = xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, children[i]), nullptr);
        auto geometry = xcb_get_geometry_reply(c, xcb_get_geometry(c, children[i]), nullptr);
        if (attributes && geometry) {
            found = SeenPreview{attributes->map_state == XCB_MAP_STATE_VIEWABLE, attributes->override_redirect != 0,
                                XRect{geometry->x, geometry->y, geometry->width, geometry->height}};
        }
        std::free(attributes);
        std::free(geometry);
    }
    std::free(tree);
    return found;
}

// Whether another program can take the pointer and the keyboard now: nothing of ours holds them.
bool nothingGrabbed(const std::string& display) {
    xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
    const auto root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    auto pointer = xcb_grab_pointer_reply(
        c, xcb_grab_pointer(c, 0, root, 0, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC, XCB_NONE, XCB_NONE, XCB_CURRENT_TIME),
        nullptr);
    auto keyboard = xcb_grab_keyboard_reply(
        c, xcb_grab_keyboard(c, 0, root, XCB_CURRENT_TIME, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC), nullptr);
    const bool free = pointer && pointer->status == XCB_GRAB_STATUS_SUCCESS && keyboard &&
                      keyboard->status == XCB_GRAB_STATUS_SUCCESS;
    std::free(pointer);
    std::free(keyboard);
    xcb_disconnect(c);
    return free;
}

class X11Snap : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        session = XSession::start(&why, 0, true);
        if (!session) GTEST_SKIP() << "No X server for this test: " << why;
        begin();
    }

    // Everything over a session that is running: the desktop, the input, the snapper.
    void begin() {
        std::string failure;
        auto requests = X11Connection::open(session->display(), &failure);
        ASSERT_TRUE(requests) << failure;
        connection = std::shared_ptr<X11Connection>(std::move(requests));
        desktop = std::make_shared<X11Desktop>(connection, std::vector<std::filesystem::path>{});
        auto own = X11Connection::open(session->display(), &failure);
        ASSERT_TRUE(own) << failure;
        events = std::make_unique<X11EventSystem>(std::move(own));
        user = std::make_unique<FakeUser>(session->display());
        windows = std::make_unique<WindowManager>(*desktop, scheduler);
        preview = std::make_unique<SnapPreviewWindow>([this]() -> std::unique_ptr<SnapPreviewSurface> {
            return std::make_unique<X11SnapPreview>(connection, [this] { return desktop->monitors().front(); });
        });
        snapper = std::make_unique<WindowSnapper>(
            SnapperEnvironment{*events, scheduler, *desktop, *desktop, *desktop, static_cast<std::int32_t>(::getpid())},
            *windows);
        snapper->onPreview = [this](std::optional<Rect> frame) {
            if (frame) {
                preview->show(*frame);
            } else {
                preview->hide();
            }
        };
        snapper->start();
    }
    void TearDown() override {
        if (snapper) snapper->stop();
        snapper.reset();
        preview.reset();
        windows.reset();
        events.reset();
    }

    // A new server cut into `monitors` (the first primary), and everything over it again.
    void restart(const std::vector<XRect>& monitors) {
        TearDown();
        user.reset();
        desktop.reset();
        connection.reset();
        session.reset();
        std::string why;
        session = XSession::start(&why, monitors, true);
        ASSERT_TRUE(session) << why;
        begin();
    }

    // Runs what the tap handed to the main queue until `condition` holds.
    bool until(const std::function<bool()>& condition) {
        return eventually([&] {
            events->sync(1.0);
            scheduler.runUntilIdle();
            return condition();
        });
    }

    std::optional<Rect> outerFrame() {
        auto window = desktop->application(pid)->focusedWindow();
        if (!window) return std::nullopt;
        auto position = window->position();
        auto size = window->size();
        if (!position || !size) return std::nullopt;
        return Rect{*position, *size};
    }

    // Presses the title bar of the client in front and moves the pointer to `to` in small steps.
    // A loaded window manager now and then lets a press go by without starting its move; the
    // snapper must then see no drag, and the press is made again.
    void pressAndDrag(Point to) {
        for (int attempt = 0; attempt < 3; ++attempt) {
            const auto start = outerFrame();
            ASSERT_TRUE(start);
            // The frame is measured from the primary monitor's corner; the pointer moves in root coordinates.
            const auto primary = desktop->monitors().front();
            Point at{start->midX() + primary.x, start->minY() + 8 + primary.y};
            user->moveTo(int(at.x), int(at.y));
            user->sync();
            user->button(1, true);
            user->sync();
            ASSERT_TRUE(until([&] { return snapper->dragStartWindowFrame().has_value(); }));
            const int steps = 20;
            const Point from = at;
            for (int i = 1; i <= steps; ++i) {
                at = {from.x + (to.x - from.x) * i / steps, from.y + (to.y - from.y) * i / steps};
                user->moveTo(int(std::lround(at.x)), int(std::lround(at.y)));
                user->sync();
                events->sync(1.0);
                scheduler.runUntilIdle();
                if (i == 3 && !eventually([&] { return outerFrame() != start; }, 1.0)) break;
            }
            if (outerFrame() != start) return;
            EXPECT_FALSE(snapper->isDraggingWindow()) << "the window never moved";
            EXPECT_EQ(snapper->armedZone(), std::nullopt);
            user->button(1, false);
            user->sync();
            until([&] { return !snapper->dragStartWindowFrame(); });
        }
        ADD_FAILURE() << "the window manager never moved the window";
    }

    std::unique_ptr<XSession> session;
    std::shared_ptr<X11Connection> connection;
    std::shared_ptr<X11Desktop> desktop;
    std::unique_ptr<X11EventSystem> events;
    std::unique_ptr<FakeUser> user;
    ManualScheduler scheduler;
    std::unique_ptr<WindowManager> windows;
    std::unique_ptr<SnapPreviewWindow> preview;
    std::unique_ptr<WindowSnapper> snapper;
    // The process the client in front says it is.
    std::int32_t pid = clientPid;
};

TEST_F(X11Snap, ATitleBarDraggedToEachEdgeSnapsToTheZonesExactFrameWithThePreviewOnlyDuringTheDrag) {
    auto client = std::make_unique<TestWindow>(session->display(), TestWindow::Options{.pid = clientPid, .frame = {500, 300, 400, 300}});
    ASSERT_TRUE(client->waitMapped());
    ASSERT_TRUE(user->activate(client->window()));
    // One 1600 × 900 monitor with nothing reserved: the zones are halves and quarters of it.
    struct Case {
        Point to;  // root coordinates
        XRect frame;
    } cases[] = {
        {{1, 450}, {0, 0, 800, 900}},       // left edge
        {{1598, 450}, {800, 0, 800, 900}},  // right edge
        {{1598, 1}, {800, 0, 800, 450}},    // top-right corner
        {{800, 898}, {0, 450, 1600, 450}},  // bottom edge
        {{800, 1}, {0, 0, 1600, 900}},      // top edge: maximised
    };
    for (const auto& c : cases) {
        const std::string where = std::to_string(int(c.to.x)) + "," + std::to_string(int(c.to.y));
        pressAndDrag(c.to);
        // The way there may cross another zone first: the preview settles on the one at the end.
        std::optional<SeenPreview> seen;
        EXPECT_TRUE(until([&] {
            seen = findPreview(user->connection());
            return seen && seen->viewable && seen->frame == c.frame;
        })) << where << ": " << (seen ? std::to_string(seen->frame.x) + "," + std::to_string(seen->frame.y) + " " +
                                            std::to_string(seen->frame.width) + "x" + std::to_string(seen->frame.height)
                                      : "no preview");
        ASSERT_TRUE(seen) << where;
        EXPECT_TRUE(seen->overrideRedirect) << where;

        user->button(1, false);
        user->sync();
        const Rect expected{{double(c.frame.x), double(c.frame.y)}, {double(c.frame.width), double(c.frame.height)}};
        EXPECT_TRUE(until([&] { return outerFrame() == expected; })) << where;
        EXPECT_FALSE(findPreview(user->connection())->viewable) << where;
        EXPECT_FALSE(snapper->isDraggingWindow()) << where;
        EXPECT_TRUE(nothingGrabbed(session->display())) << where;
        // Back to the middle before the next drag, and only once the window manager has put it
        // there: a press aimed at a title bar still on its way would land on the frame's edge.
        windows->performApply(WindowCommand::center, clientPid, ScreenSnapshot::current(*desktop));
        const Rect centered{{(1600.0 - c.frame.width) / 2, (900.0 - c.frame.height) / 2},
                            {double(c.frame.width), double(c.frame.height)}};
        ASSERT_TRUE(until([&] { return outerFrame() == centered; })) << where;
    }
}

TEST_F(X11Snap, AClientThatRefusesASizeOrVanishesMidDragEndsCleanlyWithNothingHeld) {
    testing::LogCapture logs{LogLevel::info};
    auto fixed = std::make_unique<TestWindow>(
        session->display(), TestWindow::Options{.title = "fixed", .pid = clientPid, .frame = {500, 300, 400, 300},
                                                .fixedSize = std::pair<int, int>{400, 300}});
    ASSERT_TRUE(fixed->waitMapped());
    ASSERT_TRUE(user->activate(fixed->window()));
    pressAndDrag({1, 450});
    ASSERT_TRUE(until([&] { return snapper->armedZone() == SnapZone::leftHalf; }));
    user->button(1, false);
    user->sync();
    // It goes to the zone's corner at its own size.
    EXPECT_TRUE(until([&] {
        auto frame = outerFrame();
        return frame && frame->minX() == 0 && frame->minY() == 0;
    }));
    auto client = xcb_get_geometry_reply(user->connection(), xcb_get_geometry(user->connection(), fixed->window()), nullptr);
    ASSERT_TRUE(client);
    EXPECT_EQ(client->width, 400);
    EXPECT_EQ(client->height, 300);
    std::free(client);
    EXPECT_TRUE(logs.contains("windows", "Snapping to Left Half"));
    EXPECT_TRUE(nothingGrabbed(session->display()));

    // The window goes away between the drag's last read and the release.
    windows->performApply(WindowCommand::center, clientPid, ScreenSnapshot::current(*desktop));
    pressAndDrag({1, 450});
    ASSERT_TRUE(until([&] { return snapper->armedZone() == SnapZone::leftHalf; }));
    fixed->destroy();
    user->button(1, false);
    user->sync();
    EXPECT_TRUE(until([&] { return !snapper->isDraggingWindow() && !findPreview(user->connection())->viewable; }));
    // Whether the window manager had told of the loss before the release or not, it is said.
    EXPECT_TRUE(until([&] {
        for (const auto& line : logs.messages("windows")) {
            if (line == "Nothing to snap: no application is in front any more" ||
                line.starts_with("No focused window for pid 41001") ||
                line.starts_with("Could not read window frame for pid 41001")) {
                return true;
            }
        }
        return false;
    }));
    EXPECT_TRUE(events->isServerAlive());
    EXPECT_TRUE(connection->isAlive());
    EXPECT_TRUE(nothingGrabbed(session->display()));
}

TEST_F(X11Snap, ADragToAnEdgeOfAMonitorBesideOrAboveThePrimarySnapsToThatMonitorsZone) {
    struct Case {
        const char* what;
        std::vector<XRect> monitors;  // the primary first
        XRect start;                  // the client, on the primary
        Point to;                     // root coordinates
        XRect frame;                  // the outer frame it snaps to
    };
    const std::vector<Case> cases{
        {"left of the primary", {{600, 0, 1000, 900}, {0, 0, 600, 900}}, {900, 300, 400, 300}, {1, 450}, {0, 0, 300, 900}},
        {"right edge of the primary, right of the other", {{600, 0, 1000, 900}, {0, 0, 600, 900}}, {900, 300, 400, 300},
         {1598, 450}, {1100, 0, 500, 900}},
        {"above the primary", {{0, 300, 1600, 600}, {0, 0, 1600, 300}}, {600, 500, 400, 200}, {1, 150}, {0, 0, 800, 300}},
        {"left edge of the primary, below the other", {{0, 300, 1600, 600}, {0, 0, 1600, 300}}, {600, 500, 400, 200},
         {1, 600}, {0, 300, 800, 600}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        restart(c.monitors);
        ASSERT_EQ(desktop->monitors(), c.monitors);
        auto client = std::make_unique<TestWindow>(session->display(), TestWindow::Options{.pid = clientPid, .frame = c.start});
        ASSERT_TRUE(client->waitMapped());
        ASSERT_TRUE(user->activate(client->window()));
        pressAndDrag(c.to);
        EXPECT_TRUE(until([&] {
            auto seen = findPreview(user->connection());
            return seen && seen->viewable && seen->frame == c.frame;
        }));
        // The command goes to the monitor that holds the window at release: a window manager behind
        // the pointer is waited for until the window's middle has reached the zone's monitor.
        const auto& primary = c.monitors.front();
        const auto target = *std::find_if(c.monitors.begin(), c.monitors.end(), [&](const XRect& m) {
            return c.frame.x >= m.x && c.frame.x < m.x + m.width && c.frame.y >= m.y && c.frame.y < m.y + m.height;
        });
        EXPECT_TRUE(until([&] {
            auto frame = outerFrame();
            if (!frame) return false;
            const double x = frame->midX() + primary.x, y = frame->midY() + primary.y;
            return x >= target.x && x < target.x + target.width && y >= target.y && y < target.y + target.height;
        }));
        user->button(1, false);
        user->sync();
        const Rect expected{{double(c.frame.x - primary.x), double(c.frame.y - primary.y)},
                            {double(c.frame.width), double(c.frame.height)}};
        EXPECT_TRUE(until([&] { return outerFrame() == expected; }));
        EXPECT_TRUE(nothingGrabbed(session->display()));
    }
}

TEST_F(X11Snap, AWindowThatNeverSaysItsProcessIsSnappedAsTheOneInFront) {
    pid = X11Desktop::noProcess;
    auto client = std::make_unique<TestWindow>(
        session->display(), TestWindow::Options{.instance = "xmessage", .className = "Xmessage", .pid = 0,
                                                .frame = {500, 300, 400, 300}});
    ASSERT_TRUE(client->waitMapped());
    ASSERT_TRUE(user->activate(client->window()));
    pressAndDrag({1598, 450});
    ASSERT_TRUE(until([&] { return snapper->armedZone() == SnapZone::rightHalf; }));
    user->button(1, false);
    user->sync();
    EXPECT_TRUE(until([&] { return outerFrame() == Rect{{800, 0}, {800, 900}}; }));
    EXPECT_FALSE(snapper->isDraggingWindow());
}

} // namespace
} // namespace tavrick

// These run against a private Xvfb with openbox on it, one test at a time.
#include "X11/XSession.h"

#include "ActionKit/ScreenSnapshot.h"
#include "ActionKit/WindowLayout.h"
#include "ActionKit/WindowManager.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/EventTap.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/SyntheticEvents.h"
#include "HotkeyEngine/HotkeyEngine.h"
#include "MouseGestureKit/MouseGestureEngine.h"
#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11Desktop.h"
#include "Platform/X11/X11EventSystem.h"
#include "Platform/X11/X11KeyMap.h"
#include "Support/Eventually.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <xcb/xcb_ewmh.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <atomic>
#include <cmath>
#include <fstream>
#include <mutex>
#include <set>

namespace tavrick {
namespace {

using testing::eventually;
using testing::FakeUser;
using testing::TestWindow;
using testing::XSession;

constexpr std::int32_t editorPid = 40001;
constexpr std::int32_t otherPid = 40002;

std::shared_ptr<X11Connection> connect(const XSession& session) {
    std::string failure;
    auto connection = X11Connection::open(session.display(), &failure);
    EXPECT_TRUE(connection) << failure;
    return std::shared_ptr<X11Connection>(std::move(connection));
}

// The outer frame of a window as the server reports it, read independently of the adapter.
XRect serverOuterFrame(xcb_connection_t* c, xcb_window_t window) {
    const auto root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    auto* geometry = xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr);
    auto* origin = xcb_translate_coordinates_reply(c, xcb_translate_coordinates(c, window, root, 0, 0), nullptr);
    const char name[] = "_NET_FRAME_EXTENTS";
    auto* atom = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, sizeof name - 1, name), nullptr);
    auto* extents = xcb_get_property_reply(c, xcb_get_property(c, 0, window, atom->atom, XCB_ATOM_CARDINAL, 0, 4), nullptr);
    XRect result{};
    if (geometry && origin && extents && xcb_get_property_value_length(extents) == 16) {
        const auto* e = static_cast<const std::uint32_t*>(xcb_get_property_value(extents));
        result = XRect{origin->dst_x - std::int32_t(e[0]), origin->dst_y - std::int32_t(e[2]),
                       geometry->width + std::int32_t(e[0] + e[1]), geometry->height + std::int32_t(e[2] + e[3])};
    }
    std::free(geometry);
    std::free(origin);
    std::free(atom);
    std::free(extents);
    return result;
}

std::string describe(XRect r) {
    return std::to_string(r.x) + "," + std::to_string(r.y) + " " + std::to_string(r.width) + "x" + std::to_string(r.height);
}

class X11Session : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        session = XSession::start(&why, 1000);
        if (!session) GTEST_SKIP() << "No X server for this test: " << why;
        connection = connect(*session);
        ASSERT_TRUE(connection);
        std::filesystem::create_directories(applications.path());
        std::ofstream(applications.path() / "editor.desktop") << "[Desktop Entry]\nName=Editor\nType=Application\n";
        desktop = std::make_shared<X11Desktop>(connection, std::vector<std::filesystem::path>{applications.path()});
        user = std::make_unique<FakeUser>(session->display());
    }

    std::unique_ptr<TestWindow> openWindow(TestWindow::Options options) {
        auto window = std::make_unique<TestWindow>(session->display(), options);
        EXPECT_TRUE(window->waitMapped());
        return window;
    }

    std::unique_ptr<TestWindow> openDock() {
        // A 30-pixel panel along the top of the right monitor.
        TestWindow::Options dock{.title = "panel", .instance = "panel", .className = "Panel", .pid = 40009,
                                 .frame = {1000, 0, 600, 30},
                                 .strut = std::vector<std::uint32_t>{0, 0, 30, 0, 0, 0, 0, 0, 1000, 1599, 0, 0}};
        auto window = std::make_unique<TestWindow>(session->display(), dock);
        EXPECT_TRUE(window->waitMapped(5.0, false));
        EXPECT_TRUE(eventually([&] { return desktop->screens().size() == 2 && desktop->screens()[1].visibleFrame.size.height == 870; }));
        return window;
    }

    std::unique_ptr<XSession> session;
    std::shared_ptr<X11Connection> connection;
    testing::TempDir applications;
    std::shared_ptr<X11Desktop> desktop;
    std::unique_ptr<FakeUser> user;
};

TEST_F(X11Session, ScreensAreTheMonitorsLessTheDocksOnThemFlippedToTheBottomLeft) {
    EXPECT_EQ(desktop->screens(), (std::vector<ScreenInfo>{
                                      {{{0, 0}, {1000, 900}}, {{0, 0}, {1000, 900}}},
                                      {{{1000, 0}, {600, 900}}, {{1000, 0}, {600, 900}}},
                                  }));
    auto dock = openDock();
    EXPECT_EQ(desktop->screens(), (std::vector<ScreenInfo>{
                                      {{{0, 0}, {1000, 900}}, {{0, 0}, {1000, 900}}},
                                      {{{1000, 0}, {600, 900}}, {{1000, 0}, {600, 870}}},
                                  }));
    // The dock is no window of the list.
    for (const auto& entry : desktop->onScreenWindows()) EXPECT_NE(entry.ownerName, "Panel");
}

TEST_F(X11Session, TheFrontmostApplicationIsTheActiveWindowsProcessNamedByItsDesktopEntry) {
    auto editor = openWindow({.title = "notes", .instance = "editor", .className = "Editor", .pid = editorPid});
    auto other = openWindow({.title = "x", .instance = "other", .className = "Other", .pid = otherPid, .frame = {500, 400, 200, 200}});
    ASSERT_TRUE(user->activate(other->window()));
    auto front = desktop->frontmostApplication();
    ASSERT_TRUE(front);
    EXPECT_EQ(front->processIdentifier, otherPid);
    EXPECT_EQ(front->bundleIdentifier, "Other");  // no desktop entry: the window's class

    ASSERT_TRUE(desktop->activate(editorPid));
    ASSERT_TRUE(eventually([&] { return user->activeWindow() == editor->window(); }));
    front = desktop->frontmostApplication();
    ASSERT_TRUE(front);
    EXPECT_EQ(front->processIdentifier, editorPid);
    EXPECT_EQ(front->bundleIdentifier, "editor");
    EXPECT_EQ(front->localizedName, "Editor");

    auto running = desktop->runningApplications("editor");
    ASSERT_EQ(running.size(), 1u);
    EXPECT_EQ(running[0].processIdentifier, editorPid);
    EXPECT_TRUE(desktop->runningApplications("org.example.Missing").empty());
    EXPECT_FALSE(desktop->activate(49999));
    EXPECT_FALSE(desktop->terminate(49999));
    // Front to back: the editor, now active, is listed first.
    auto windows = desktop->onScreenWindows();
    ASSERT_GE(windows.size(), 2u);
    EXPECT_EQ(windows[0].ownerName, "Editor");
}

TEST_F(X11Session, AFrameIsReadAndWrittenAsTheOuterFrameWithItsDecoration) {
    auto client = openWindow({.pid = editorPid, .frame = {120, 140, 400, 300}});
    ASSERT_TRUE(user->activate(client->window()));
    auto app = desktop->application(editorPid);
    auto window = app->focusedWindow();
    ASSERT_TRUE(window);
    const auto before = serverOuterFrame(client->connection(), client->window());
    EXPECT_EQ(window->position(), (Point{double(before.x), double(before.y)}));
    EXPECT_EQ(window->size(), (Size{double(before.width), double(before.height)}));
    // The decoration is part of the frame: the outer frame is larger than the client.
    EXPECT_GT(before.height, 300);

    EXPECT_TRUE(window->setPosition({1100, 200}));
    EXPECT_TRUE(window->setSize({420, 333}));
    EXPECT_EQ(serverOuterFrame(client->connection(), client->window()), (XRect{1100, 200, 420, 333}));
    EXPECT_EQ(window->position(), (Point{1100, 200}));
    EXPECT_EQ(window->size(), (Size{420, 333}));
    // Another application's window is not this one's focused window.
    EXPECT_FALSE(desktop->application(otherPid)->focusedWindow());
}

TEST_F(X11Session, AWindowThatNeverSaysItsProcessIsInFrontByItsClassAndIsMoved) {
    auto message = openWindow({.title = "note", .instance = "xmessage", .className = "Xmessage", .pid = 0,
                               .frame = {150, 120, 300, 200}});
    auto editor = openWindow({.title = "notes", .instance = "editor", .className = "Editor", .pid = editorPid,
                              .frame = {500, 400, 200, 200}});
    struct Case {
        const TestWindow* active;
        RunningApplication front;
        std::int32_t owner;     // whose focused window is the active one
        std::int32_t notOwner;  // and whose is not
    };
    const std::vector<Case> cases{
        {message.get(), {X11Desktop::noProcess, "Xmessage", "Xmessage"}, X11Desktop::noProcess, editorPid},
        {editor.get(), {editorPid, "editor", "Editor"}, editorPid, X11Desktop::noProcess},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(*c.front.localizedName);
        ASSERT_TRUE(user->activate(c.active->window()));
        // The window manager may still be settling the focus of the windows it just mapped.
        // All three are read together, once the focus stays where it was put.
        EXPECT_TRUE(eventually([&] {
            return desktop->frontmostApplication() == c.front && desktop->application(c.owner)->focusedWindow() &&
                   !desktop->application(c.notOwner)->focusedWindow();
        }))
            << desktop->frontmostApplication().value_or(RunningApplication{}).localizedName.value_or("nothing");
    }

    // A window command acts on it: the left half of the left monitor, exactly.
    ASSERT_TRUE(user->activate(message->window()));
    ASSERT_TRUE(eventually([&] { return desktop->application(X11Desktop::noProcess)->focusedWindow() != nullptr; }));
    ManualScheduler scheduler;
    WindowManager windows(*desktop, scheduler);
    windows.performApply(WindowCommand::leftHalf, X11Desktop::noProcess, ScreenSnapshot::current(*desktop));
    EXPECT_TRUE(eventually([&] { return serverOuterFrame(message->connection(), message->window()) == XRect{0, 0, 500, 900}; }))
        << describe(serverOuterFrame(message->connection(), message->window()));
    // The editor, which says its process, was left where it was.
    EXPECT_EQ(serverOuterFrame(editor->connection(), editor->window()).x, 500);

    // Without a process there is nothing to bring forward or to end: never a signal to process 0,
    // which would reach this program's own group.
    EXPECT_FALSE(desktop->activate(X11Desktop::noProcess));
    EXPECT_FALSE(desktop->terminate(X11Desktop::noProcess));
    EXPECT_TRUE(eventually([&] { return user->activeWindow() == message->window(); }));

    // Once it is gone it is nobody's window, whatever the active window still names.
    message->destroy();
    EXPECT_TRUE(eventually([&] {
        auto front = desktop->frontmostApplication();
        return (!front || front->processIdentifier == editorPid) &&
               !desktop->application(X11Desktop::noProcess)->focusedWindow();
    }));
}

TEST_F(X11Session, AMaximizedWindowIsTakenOutOfItsStateAndMoved) {
    auto client = openWindow({.pid = editorPid, .frame = {120, 140, 400, 300}});
    ASSERT_TRUE(user->activate(client->window()));
    xcb_ewmh_connection_t* e = connection->ewmh();
    xcb_ewmh_request_change_wm_state(e, 0, client->window(), XCB_EWMH_WM_STATE_ADD, e->_NET_WM_STATE_MAXIMIZED_VERT,
                                     e->_NET_WM_STATE_MAXIMIZED_HORZ, XCB_EWMH_CLIENT_SOURCE_TYPE_OTHER);
    xcb_flush(connection->xcb());
    ASSERT_TRUE(eventually([&] { return serverOuterFrame(client->connection(), client->window()).width == 1000; }));

    auto window = desktop->application(editorPid)->focusedWindow();
    ASSERT_TRUE(window);
    EXPECT_TRUE(window->setPosition({1000, 0}));
    EXPECT_TRUE(window->setSize({300, 450}));
    EXPECT_EQ(serverOuterFrame(client->connection(), client->window()), (XRect{1000, 0, 300, 450}));
    auto state = connection->cardinals(client->window(), e->_NET_WM_STATE).value_or(std::vector<std::uint32_t>{});
    EXPECT_EQ(std::count(state.begin(), state.end(), e->_NET_WM_STATE_MAXIMIZED_HORZ), 0);
}

TEST_F(X11Session, AClientThatRefusesASizeKeepsItsOwnAndTheRefusalIsSaid) {
    auto client = openWindow({.pid = editorPid, .frame = {120, 140, 400, 300}, .fixedSize = std::make_pair(400, 300)});
    ASSERT_TRUE(user->activate(client->window()));
    auto window = desktop->application(editorPid)->focusedWindow();
    ASSERT_TRUE(window);
    const auto before = window->size();
    EXPECT_FALSE(window->setSize({700, 600}));
    EXPECT_EQ(window->size(), before);
    // Moving it is still fine.
    EXPECT_TRUE(window->setPosition({10, 20}));
    EXPECT_EQ(window->position(), (Point{10, 20}));
}

TEST_F(X11Session, AWindowThatVanishesBetweenReadAndWriteFailsCleanly) {
    auto client = openWindow({.pid = editorPid});
    ASSERT_TRUE(user->activate(client->window()));
    auto window = desktop->application(editorPid)->focusedWindow();
    ASSERT_TRUE(window);
    ASSERT_TRUE(window->position());
    client->destroy();
    EXPECT_FALSE(window->setPosition({10, 10}));
    EXPECT_FALSE(window->setSize({100, 100}));
    EXPECT_EQ(window->position(), std::nullopt);
    EXPECT_EQ(window->size(), std::nullopt);
    EXPECT_TRUE(connection->isAlive());
}

// The program's keyboard side against the same server: the hotkey engine, its grabs and the
// window logic behind them.
class X11Keys : public X11Session {
protected:
    void SetUp() override {
        X11Session::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        testing::installTestPlatform(home.path());
        std::string failure;
        auto own = X11Connection::open(session->display(), &failure);
        ASSERT_TRUE(own) << failure;
        events = std::make_unique<X11EventSystem>(std::move(own));
        engine = std::make_unique<HotkeyEngine>(*events, DispatchScheduler::shared(), DiagnosticLog::shared());
        windows = std::make_shared<WindowManager>(*desktop, DispatchScheduler::shared());
        // The trigger runs on the global queue and may outlive the test's last line: it holds
        // what it uses.
        std::weak_ptr<WindowManager> manager = windows;
        std::weak_ptr<Fired> record = fired;
        std::weak_ptr<X11Desktop> weakDesktop = desktop;
        engine->setOnTrigger([manager, record, weakDesktop](const Mapping& mapping) {
            auto log = record.lock();
            auto windows = manager.lock();
            auto front = weakDesktop.lock();
            if (!log || !windows || !front) return;
            {
                std::lock_guard guard(log->lock);
                log->names.push_back(mapping.name);
            }
            if (const auto* window = std::get_if<ActionSpec::Window>(&mapping.action.value)) {
                if (auto app = front->frontmostApplication()) {
                    windows->apply(window->command, app->processIdentifier, ScreenSnapshot::current(*front));
                }
            }
        });
        engine->start();
    }

    void TearDown() override {
        if (engine) {
            engine->setOnTrigger(nullptr);
            engine->stop();
        }
        engine.reset();
        // A trigger still running holds the manager; once none does, the manager finishes what it
        // was asked before it goes, while the desktop it works on is still there.
        if (windows) {
            EXPECT_TRUE(eventually([&] { return windows.use_count() == 1; }));
            windows->queue().sync([] {});
        }
        windows.reset();
        events.reset();
    }

    static Mapping mapping(std::string name, std::uint16_t keyCode, Modifiers modifiers, ActionSpec action) {
        Mapping m;
        m.id = UUID::random();
        m.name = std::move(name);
        m.trigger = Trigger::hotkey(HotkeySpec{keyCode, modifiers});
        m.action = std::move(action);
        return m;
    }

    std::size_t firedCount() {
        std::lock_guard guard(fired->lock);
        return fired->names.size();
    }

    // Key presses that reached the window, modifier keys left out.
    std::vector<std::uint8_t> plainKeys(TestWindow& window) {
        std::set<std::uint8_t> modifiers;
        for (auto sym : {XKB_KEY_Control_L, XKB_KEY_Alt_L, XKB_KEY_Super_L, XKB_KEY_Shift_L, XKB_KEY_Num_Lock}) {
            modifiers.insert(user->keycode(sym));
        }
        auto keys = window.keyPresses();
        std::erase_if(keys, [&](std::uint8_t key) { return modifiers.contains(key); });
        return keys;
    }

    struct Fired {
        std::mutex lock;
        std::vector<std::string> names;
    };

    testing::TempDir home;
    std::unique_ptr<X11EventSystem> events;
    std::unique_ptr<HotkeyEngine> engine;
    std::shared_ptr<WindowManager> windows;
    std::shared_ptr<Fired> fired = std::make_shared<Fired>();
};

const Modifiers controlOption = Modifiers::control | Modifiers::option;

TEST_F(X11Keys, EveryWindowCommandOnABoundKeyGivesTheExactOuterFrameOnBothMonitors) {
    auto dock = openDock();
    auto client = openWindow({.pid = editorPid, .frame = {100, 100, 400, 300}});
    ASSERT_TRUE(user->activate(client->window()));
    // One key a command: the letters in the order of the program's key codes.
    const std::uint32_t letters[] = {XKB_KEY_a, XKB_KEY_s, XKB_KEY_d, XKB_KEY_f, XKB_KEY_h, XKB_KEY_g, XKB_KEY_z,
                                     XKB_KEY_x, XKB_KEY_c, XKB_KEY_v, XKB_KEY_b, XKB_KEY_q, XKB_KEY_w, XKB_KEY_e,
                                     XKB_KEY_r, XKB_KEY_y, XKB_KEY_t, XKB_KEY_o};
    const auto commands = allCases<WindowCommand>();
    ASSERT_LE(commands.size(), std::size(letters));
    std::vector<Mapping> table;
    for (std::size_t i = 0; i < commands.size(); ++i) {
        table.push_back(mapping(std::string(rawValue(commands[i])), *X11KeyMap::keyCode(letters[i]), controlOption,
                                ActionSpec::window(commands[i])));
    }
    engine->update(table);
    EXPECT_TRUE(engine->unavailable().empty());

    const auto screens = desktop->screens();
    const double primaryHeight = WindowLayout::primaryDisplayHeight(screens);
    for (const bool onRight : {false, true}) {
        // Start each round on one monitor, then run every command but the display moves.
        XRect start = onRight ? XRect{1100, 100, 400, 300} : XRect{150, 120, 400, 300};
        for (std::size_t i = 0; i < commands.size(); ++i) {
            const auto command = commands[i];
            if (command == WindowCommand::nextDisplay || command == WindowCommand::previousDisplay ||
                command == WindowCommand::restore) {
                continue;
            }
            auto window = desktop->application(editorPid)->focusedWindow();
            ASSERT_TRUE(window);
            ASSERT_TRUE(window->setPosition({double(start.x), double(start.y)}));
            ASSERT_TRUE(window->setSize({double(start.width), double(start.height)}));
            const auto visible = screens[onRight ? 1 : 0].visibleFrame;
            const auto target = WindowLayout::frame(command, visible, Size{double(start.width), double(start.height)});
            ASSERT_TRUE(target);
            const auto expected = WindowLayout::accessibilityFrame(*target, primaryHeight);
            const XRect wanted{int(std::lround(expected.origin.x)), int(std::lround(expected.origin.y)),
                               int(std::lround(expected.size.width)), int(std::lround(expected.size.height))};
            ASSERT_TRUE(eventually([&] { return serverOuterFrame(client->connection(), client->window()) == start; }))
                << describe(serverOuterFrame(client->connection(), client->window())) << " before " << rawValue(command);
            const auto before = serverOuterFrame(client->connection(), client->window());
            user->chord({XKB_KEY_Control_L, XKB_KEY_Alt_L}, letters[i]);
            EXPECT_TRUE(eventually([&] { return serverOuterFrame(client->connection(), client->window()) == wanted; }))
                << describe(serverOuterFrame(client->connection(), client->window())) << " " << rawValue(command) << (onRight ? " on the right" : " on the left");
            // The manager may still be finishing its last write; the next round starts after it.
            windows->queue().sync([] {});

            if (command == WindowCommand::leftHalf) {
                // Restore brings back the frame from before the command.
                const auto restoreIndex = std::find(commands.begin(), commands.end(), WindowCommand::restore) - commands.begin();
                user->chord({XKB_KEY_Control_L, XKB_KEY_Alt_L}, letters[restoreIndex]);
                EXPECT_TRUE(eventually([&] { return serverOuterFrame(client->connection(), client->window()) == before; }))
                    << "restore to " << describe(before) << ": " << describe(serverOuterFrame(client->connection(), client->window()));
                windows->queue().sync([] {});
            }
        }
    }
    // Every shortcut was swallowed: the client never saw a letter.
    EXPECT_EQ(plainKeys(*client), std::vector<std::uint8_t>{});
}

TEST_F(X11Keys, TheSeededChordIsCtrlAltLeftAndWorksWithNumLockOnWhileOtherKeysReachTheWindow) {
    auto client = openWindow({.pid = editorPid, .frame = {100, 100, 400, 300}});
    ASSERT_TRUE(user->activate(client->window()));
    engine->update({mapping("Left half", 123, controlOption, ActionSpec::window(WindowCommand::leftHalf))});
    user->chord({XKB_KEY_Control_L, XKB_KEY_Alt_L}, XKB_KEY_Left);
    EXPECT_TRUE(eventually([&] { return firedCount() == 1; }));
    EXPECT_TRUE(eventually([&] { return serverOuterFrame(client->connection(), client->window()) == XRect{0, 0, 500, 900}; }));

    // Num Lock on: the same chord still fires.
    const auto numLock = user->keycode(XKB_KEY_Num_Lock);
    ASSERT_NE(numLock, 0);
    user->press(numLock);
    user->release(numLock);
    user->chord({XKB_KEY_Control_L, XKB_KEY_Alt_L}, XKB_KEY_Left);
    EXPECT_TRUE(eventually([&] { return firedCount() == 2; }));
    user->press(numLock);
    user->release(numLock);

    // A plain key and a chord nobody owns reach the window untouched.
    const auto k = user->keycode(XKB_KEY_k);
    user->chord({}, XKB_KEY_k);
    user->chord({XKB_KEY_Control_L, XKB_KEY_Alt_L}, XKB_KEY_Right);
    EXPECT_TRUE(eventually([&] { return plainKeys(*client).size() == 2; }));
    EXPECT_EQ(plainKeys(*client), (std::vector<std::uint8_t>{k, user->keycode(XKB_KEY_Right)}));
    EXPECT_EQ(firedCount(), 2u);
}

TEST_F(X11Keys, AKeyAnActiveTapPassesOnIsReplayedToTheWindow) {
    auto client = openWindow({.pid = editorPid});
    ASSERT_TRUE(user->activate(client->window()));
    std::atomic<int> seen{0};
    EventTap tap(*events, "pass", eventMaskBit(EventType::keyDown), TapOptions::active,
                 [&](EventType, const Event& event) -> std::optional<Event> {
                     if (event.keyCode == 4) ++seen;
                     return event;
                 });
    tap.start();
    ASSERT_TRUE(events->ownKeyCombinations("pass", {HotkeySpec{4, Modifiers::command}}).empty());
    EXPECT_EQ(events->grabCount(), 4u);  // no lock, Caps Lock, Num Lock, both
    user->chord({XKB_KEY_Super_L}, XKB_KEY_h);
    EXPECT_TRUE(eventually([&] { return seen == 1 && plainKeys(*client).size() == 1; }));
    EXPECT_EQ(plainKeys(*client), std::vector<std::uint8_t>{user->keycode(XKB_KEY_h)});
    events->ownKeyCombinations("pass", {});
    EXPECT_EQ(events->grabCount(), 0u);
    tap.stop();
}

TEST_F(X11Keys, ACombinationAnotherProgramHoldsIsReportedPerBinding) {
    const auto j = user->keycode(XKB_KEY_j);
    // Another program grabs Ctrl+Alt+J first (Alt is Mod1 on this server).
    auto cookie = xcb_grab_key_checked(user->connection(), 1, connection->root(), 0x04 | 0x08, j, XCB_GRAB_MODE_ASYNC,
                                       XCB_GRAB_MODE_ASYNC);
    ASSERT_EQ(xcb_request_check(user->connection(), cookie), nullptr);
    engine->update({mapping("Taken", 38, controlOption, ActionSpec::window(WindowCommand::center)),
                    mapping("Free", 40, controlOption, ActionSpec::window(WindowCommand::center))});
    auto unavailable = engine->unavailable();
    ASSERT_EQ(unavailable.size(), 1u);
    EXPECT_EQ(unavailable[0].name, "Taken");
    // Only the free combination holds grabs, each lock variant once.
    EXPECT_EQ(events->grabCount(), 4u);
    // Stopping the engine gives every grab back.
    engine->stop();
    EXPECT_EQ(events->grabCount(), 0u);
}

TEST_F(X11Keys, ALayoutChangeRegrabsSoTheShortcutFollowsTheLetter) {
    auto client = openWindow({.pid = editorPid});
    ASSERT_TRUE(user->activate(client->window()));
    engine->update({mapping("Center", 0 /* A */, controlOption, ActionSpec::window(WindowCommand::center))});
    std::atomic<int> changes{0};
    auto observation = events->layoutSource().observeChanges([&] { ++changes; });

    // Swap the A and Q keys, as a French layout has them.
    const auto a = user->keycode(XKB_KEY_a);
    const auto q = user->keycode(XKB_KEY_q);
    auto* c = user->connection();
    const std::uint32_t toQ[] = {XKB_KEY_q, XKB_KEY_Q};
    const std::uint32_t toA[] = {XKB_KEY_a, XKB_KEY_A};
    xcb_change_keyboard_mapping(c, 1, a, 2, toQ);
    xcb_change_keyboard_mapping(c, 1, q, 2, toA);
    user->sync();
    ASSERT_TRUE(eventually([&] { return changes >= 1; }));

    // The key that now types A fires; the one that types Q reaches the window.
    user->press(user->keycode(XKB_KEY_Control_L));
    user->press(user->keycode(XKB_KEY_Alt_L));
    user->press(q);
    user->release(q);
    user->press(a);
    user->release(a);
    user->release(user->keycode(XKB_KEY_Alt_L));
    user->release(user->keycode(XKB_KEY_Control_L));
    user->sync();
    EXPECT_TRUE(eventually([&] { return firedCount() == 1 && plainKeys(*client).size() == 1; }));
    EXPECT_EQ(plainKeys(*client), std::vector<std::uint8_t>{a});
}

TEST_F(X11Keys, AKeystrokeThisProgramSendsReachesTheWindowAndFiresNothing) {
    auto client = openWindow({.pid = editorPid});
    ASSERT_TRUE(user->activate(client->window()));
    engine->update({mapping("Left half", 123, controlOption, ActionSpec::window(WindowCommand::leftHalf))});
    std::vector<Event> heard;
    std::mutex heardLock;
    EventTap listener(*events, "listen", eventMaskBit(EventType::keyDown), TapOptions::listenOnly,
                      [&](EventType, const Event& event) -> std::optional<Event> {
                          std::lock_guard guard(heardLock);
                          heard.push_back(event);
                          return event;
                      });
    listener.start();
    // The user still holds Control from the shortcut that asked for the keystroke.
    const auto control = user->keycode(XKB_KEY_Control_L);
    user->press(control);
    user->sync();
    ASSERT_TRUE(events->sync());
    // Sent the way the keystroke action sends: both halves marked as the program's own.
    auto send = [&](std::uint16_t keyCode, Modifiers modifiers) {
        for (bool down : {true, false}) {
            auto event = events->makeKeyboardEvent(keyCode, down);
            ASSERT_TRUE(event);
            event->flags = modifiers.cgFlags();
            SyntheticEvents::mark(*event);
            events->post(*event);
        }
    };
    send(7 /* X */, Modifiers::command);
    send(123, controlOption);
    ASSERT_TRUE(events->sync());
    user->release(control);
    user->sync();
    EXPECT_TRUE(eventually([&] { return plainKeys(*client).size() == 2; }));
    EXPECT_EQ(firedCount(), 0u);
    EXPECT_EQ(plainKeys(*client), (std::vector<std::uint8_t>{user->keycode(XKB_KEY_x), user->keycode(XKB_KEY_Left)}));
    // The listener heard the X as the program's own, with command and without the user's control.
    ASSERT_TRUE(eventually([&] {
        std::lock_guard guard(heardLock);
        return std::any_of(heard.begin(), heard.end(), [](const Event& e) { return e.keyCode == 7; });
    }));
    std::lock_guard guard(heardLock);
    const auto it = std::find_if(heard.begin(), heard.end(), [](const Event& e) { return e.keyCode == 7; });
    EXPECT_TRUE(SyntheticEvents::isOurs(*it));
    EXPECT_EQ(Modifiers::fromCGFlags(it->flags), Modifiers::command);
}

TEST_F(X11Keys, AnUnmarkedSyntheticChordFiresLikeTheUsersOwnAsTheSelfTestNeeds) {
    engine->update({mapping("Self-test", 1 /* S */, Modifiers::option, ActionSpec::toggleAwake())});
    ASSERT_TRUE(events->postKeyPress(1, EventFlags::option));
    EXPECT_TRUE(eventually([&] { return firedCount() == 1; }));
    // Nothing is left held: a plain S afterwards carries no modifier and fires nothing.
    ASSERT_TRUE(events->postKeyPress(1, 0));
    ASSERT_TRUE(events->sync());
    xcb_query_keymap_reply_t* keymap = xcb_query_keymap_reply(user->connection(), xcb_query_keymap(user->connection()), nullptr);
    ASSERT_TRUE(keymap);
    const auto alt = user->keycode(XKB_KEY_Alt_L);
    EXPECT_EQ(keymap->keys[alt / 8] & (1 << (alt % 8)), 0) << "Alt is still held";
    std::free(keymap);
    EXPECT_EQ(firedCount(), 1u);
}

TEST_F(X11Keys, ARightClickReachesTheWindowWhileAStrokeFiresItsMapping) {
    auto client = openWindow({.pid = editorPid, .frame = {100, 100, 400, 300}});
    ASSERT_TRUE(user->activate(client->window()));
    MouseGestureEngine strokes(*events, DispatchScheduler::shared());
    std::atomic<int> ran{0};
    strokes.setOnGesture([&](const Mapping&) { ++ran; });
    Mapping right;
    right.id = UUID::random();
    right.name = "Stroke right";
    right.trigger = Trigger::mouseGesture(MouseGestureSpec{{GestureDirection::right}});
    right.action = ActionSpec::toggleAwake();
    strokes.setMasterEnabled(true);
    strokes.update({right});
    ASSERT_TRUE(events->sync());

    // A stroke to the right: it runs the mapping and the window never sees the button.
    user->moveTo(200, 250);
    user->button(3, true);
    for (int x = 210; x <= 330; x += 10) user->moveTo(x, 250);
    user->button(3, false);
    user->sync();
    // The engine runs a mapping from the main queue.
    EXPECT_TRUE(eventually([&] {
        DispatchScheduler::shared().runMainFor(0.005);
        return ran == 1;
    }));
    ASSERT_TRUE(events->sync());
    EXPECT_EQ(client->buttonPresses(), std::vector<std::uint8_t>{});

    // A plain right click still reaches the window, and runs nothing.
    user->moveTo(220, 260);
    user->button(3, true);
    user->button(3, false);
    user->sync();
    EXPECT_TRUE(eventually([&] { return client->buttonPresses().size() == 1; }));
    EXPECT_EQ(client->buttonPresses(), std::vector<std::uint8_t>{3});
    DispatchScheduler::shared().runMainFor(0.05);
    EXPECT_EQ(ran, 1);

    // With the engine stopped the button is no longer grabbed: a click goes straight through.
    strokes.setMasterEnabled(false);
    user->button(3, true);
    user->button(3, false);
    user->sync();
    EXPECT_TRUE(eventually([&] { return client->buttonPresses().size() == 2; }));
}

TEST_F(X11Keys, TheServerGoingAwayIsToldOnceAndLeavesNothingHanging) {
    std::atomic<int> told{0};
    std::string why;
    std::mutex whyLock;
    events->setOnServerLost([&](const std::string& reason) {
        std::lock_guard guard(whyLock);
        why = reason;
        ++told;
    });
    engine->update({mapping("Left half", 123, controlOption, ActionSpec::window(WindowCommand::leftHalf))});
    const auto display = session->display();
    session.reset();
    EXPECT_TRUE(eventually([&] { return told == 1; }));
    std::lock_guard guard(whyLock);
    EXPECT_EQ(why, "the X server at " + display + " went away");
    EXPECT_FALSE(events->isServerAlive());
    EXPECT_FALSE(events->hasEventSource());
    // Updating after the loss neither blocks nor crashes.
    engine->update({});
}

} // namespace
} // namespace tavrick

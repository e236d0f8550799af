// Keep-awake over the desktop's inhibitors: a screen saver on a private session bus and a logind
// on a second bus standing in for the system bus, both of which hold and release.
#include "Platform/DBus/DesktopInhibitors.h"

#include "AwakeKit/AwakeController.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/DesktopBus.h"
#include "PlatformDBus/Buses.h"
#include "Support/Eventually.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// The screen saver's Inhibit and UnInhibit: cookies handed out and taken back.
struct FakeScreenSaver {
    explicit FakeScreenSaver(const std::string& address) : connection(address) {
        object = sdbus::createObject(*connection, "/org/freedesktop/ScreenSaver");
        object->registerMethod("Inhibit").onInterface("org.freedesktop.ScreenSaver").implementedAs(
            [this](const std::string& who, const std::string& why) {
                std::lock_guard lock(mutex);
                if (refuse) throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied", "inhibiting is not allowed");
                calls.push_back(who + "|" + why);
                held.insert(++lastCookie);
                return lastCookie;
            });
        object->registerMethod("UnInhibit").onInterface("org.freedesktop.ScreenSaver").implementedAs([this](std::uint32_t cookie) {
            std::lock_guard lock(mutex);
            if (!held.erase(cookie)) throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "no such cookie");
        });
        object->finishRegistration();
        connection.run("org.freedesktop.ScreenSaver");
    }
    ~FakeScreenSaver() { connection.stop(); }
    std::size_t holding() {
        std::lock_guard lock(mutex);
        return held.size();
    }
    ServiceConnection connection;
    std::unique_ptr<sdbus::IObject> object;
    std::mutex mutex;
    std::vector<std::string> calls;
    std::set<std::uint32_t> held;
    std::uint32_t lastCookie = 100;
    bool refuse = false;
};

// logind's Inhibit: hands back one end of a pipe; the other shows when every holder let go.
struct FakeLogind {
    explicit FakeLogind(const std::string& address) : connection(address) {
        object = sdbus::createObject(*connection, "/org/freedesktop/login1");
        object->registerMethod("Inhibit").onInterface("org.freedesktop.login1.Manager").implementedAs(
            [this](const std::string& what, const std::string& who, const std::string& why, const std::string& mode) {
                std::lock_guard lock(mutex);
                if (refuse) throw sdbus::Error("org.freedesktop.DBus.Error.AccessDenied", "Permission denied");
                calls.push_back(what + "|" + who + "|" + why + "|" + mode);
                int ends[2];
                if (::pipe2(ends, O_CLOEXEC) != 0) throw sdbus::Error("org.freedesktop.DBus.Error.Failed", "pipe");
                reads.push_back(ends[0]);
                return sdbus::UnixFd(ends[1], sdbus::adopt_fd);
            });
        object->finishRegistration();
        connection.run("org.freedesktop.login1");
    }
    ~FakeLogind() {
        connection.stop();
        for (int fd : reads) ::close(fd);
    }
    // How many of the locks handed out are still held by somebody.
    std::size_t holding() {
        std::lock_guard lock(mutex);
        std::size_t count = 0;
        for (int fd : reads) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 0) == 0) ++count;
        }
        return count;
    }
    std::vector<std::string> callList() {
        std::lock_guard lock(mutex);
        return calls;
    }
    ServiceConnection connection;
    std::unique_ptr<sdbus::IObject> object;
    std::mutex mutex;
    std::vector<std::string> calls;
    std::vector<int> reads;
    bool refuse = false;
};

struct NoProcesses final : ProcessWatcher {
    std::optional<Instance> find(const std::string&) override { return std::nullopt; }
    std::unique_ptr<Watch> watchExit(const Instance&, std::function<void()>) override { return nullptr; }
};

class DesktopInhibitorsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (sessionBus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
        session = &loop.adopt(sdbus::createSessionBusConnectionWithAddress(sessionBus.address()));
        system = &loop.adopt(sdbus::createSessionBusConnectionWithAddress(systemBus.address()));
    }
    PrivateBus sessionBus;
    PrivateBus systemBus;
    Notes notes;
    BusLoop loop;
    sdbus::IConnection* session = nullptr;
    sdbus::IConnection* system = nullptr;
};

} // namespace

TEST_F(DesktopInhibitorsTest, EachModeTakesItsLocksAndGivesThemBack) {
    FakeScreenSaver saver(sessionBus.address());
    FakeLogind logind(systemBus.address());
    DesktopInhibitors inhibitors(loop, session, system, notes.sink());
    struct Case {
        const char* type;
        std::size_t saverLocks;
        std::string logindCall;
        std::string heldNote;
    };
    const std::vector<Case> cases{
        {"PreventUserIdleDisplaySleep", 1, "idle|Tavrick|Tavrick: Indefinitely|block",
         "holding the screen saver's inhibitor (cookie 101) and logind's “idle” lock for “Tavrick: Indefinitely”"},
        {"PreventUserIdleSystemSleep", 0, "sleep|Tavrick|Tavrick: Indefinitely|block",
         "holding logind's “sleep” lock for “Tavrick: Indefinitely”"},
    };
    for (const auto& c : cases) {
        int error = 0;
        const auto logindBefore = logind.callList().size();
        auto id = inhibitors.create(c.type, "Tavrick: Indefinitely", error);
        ASSERT_TRUE(id) << c.type;
        EXPECT_NE(*id, 0u);
        EXPECT_EQ(saver.holding(), c.saverLocks) << c.type;
        EXPECT_EQ(logind.holding(), 1u) << c.type;
        ASSERT_EQ(logind.callList().size(), logindBefore + 1);
        EXPECT_EQ(logind.callList().back(), c.logindCall);
        EXPECT_TRUE(notes.contains(c.heldNote)) << c.type;
        EXPECT_EQ(inhibitors.heldCount(), 1u);

        inhibitors.release(*id);
        EXPECT_EQ(saver.holding(), 0u) << c.type;
        EXPECT_TRUE(eventually([&] { return logind.holding() == 0; })) << c.type;
        EXPECT_EQ(inhibitors.heldCount(), 0u);
        EXPECT_EQ(notes.lines().back(), "released " + c.heldNote.substr(std::string("holding ").size()));
        // Releasing twice, or an id never given, changes nothing.
        inhibitors.release(*id);
        inhibitors.release(9999);
        EXPECT_EQ(inhibitors.heldCount(), 0u);
    }
}

TEST_F(DesktopInhibitorsTest, ARefusedPartReleasesTheOtherAndTheWholeIsRefused) {
    struct Case {
        const char* name;
        bool saverRefuses, logindRefuses;
        std::string note;
    };
    const std::vector<Case> cases{
        {"logind refuses", false, true,
         "logind refused the “idle” lock: Permission denied; keep-awake is off"},
        {"the screen saver refuses", true, false, "the screen saver refused to stay off: inhibiting is not allowed; keep-awake is off"},
    };
    for (const auto& c : cases) {
        FakeScreenSaver saver(sessionBus.address());
        FakeLogind logind(systemBus.address());
        saver.refuse = c.saverRefuses;
        logind.refuse = c.logindRefuses;
        DesktopInhibitors inhibitors(loop, session, system, notes.sink());
        int error = 0;
        EXPECT_FALSE(inhibitors.create("PreventUserIdleDisplaySleep", "Tavrick: Indefinitely", error)) << c.name;
        EXPECT_EQ(error, EPERM) << c.name;
        EXPECT_EQ(saver.holding(), 0u) << c.name;
        EXPECT_TRUE(eventually([&] { return logind.holding() == 0; })) << c.name;
        EXPECT_EQ(inhibitors.heldCount(), 0u) << c.name;
        EXPECT_EQ(notes.lines().back(), c.note) << c.name;
    }
}

TEST_F(DesktopInhibitorsTest, HeldExactlyWhileAKeepAwakeSessionRuns) {
    FakeScreenSaver saver(sessionBus.address());
    FakeLogind logind(systemBus.address());
    DesktopInhibitors inhibitors(loop, session, system, notes.sink());
    ManualScheduler scheduler;
    NoProcesses processes;
    {
        AwakeController awake(inhibitors, processes, scheduler, "Tavrick");
        EXPECT_TRUE(eventually([&] { return logind.holding() == 0; }));
        const double now = scheduler.clock().now();
        awake.start(AwakeMode::keepDisplayOn, AwakeSession::until(now + 60));
        EXPECT_TRUE(awake.isActive().get());
        EXPECT_EQ(logind.holding(), 1u);
        EXPECT_EQ(saver.holding(), 1u);
        scheduler.advance(59);
        EXPECT_EQ(logind.holding(), 1u);
        EXPECT_EQ(saver.holding(), 1u);
        scheduler.advance(1.5);
        EXPECT_FALSE(awake.isActive().get());
        EXPECT_TRUE(eventually([&] { return logind.holding() == 0; }));
        EXPECT_EQ(saver.holding(), 0u);

        // A session with a refused lock never becomes active and holds nothing.
        logind.refuse = true;
        awake.start(AwakeMode::allowDisplaySleep, AwakeSession::indefinite());
        EXPECT_FALSE(awake.isActive().get());
        EXPECT_EQ(saver.holding(), 0u);
        logind.refuse = false;

        // A session still running when the program quits is let go with it.
        awake.start(AwakeMode::allowDisplaySleep, AwakeSession::indefinite());
        EXPECT_EQ(logind.holding(), 1u);
    }
    EXPECT_TRUE(eventually([&] { return logind.holding() == 0; }));
    EXPECT_EQ(inhibitors.heldCount(), 0u);
}

TEST_F(DesktopInhibitorsTest, QuittingReleasesWhatTheControllerStillHolds) {
    FakeLogind logind(systemBus.address());
    {
        DesktopInhibitors inhibitors(loop, nullptr, system, notes.sink());
        int error = 0;
        ASSERT_TRUE(inhibitors.create("PreventUserIdleSystemSleep", "Tavrick: While Firefox is running", error));
        EXPECT_EQ(logind.holding(), 1u);
    }
    EXPECT_TRUE(eventually([&] { return logind.holding() == 0; }));
    EXPECT_EQ(notes.lines().back(), "released logind's “sleep” lock for “Tavrick: While Firefox is running” (quitting)");
}

TEST_F(DesktopInhibitorsTest, TheChoiceFollowsWhatTheBusesOffer) {
    ScopedEnvironment sessionAddress("DBUS_SESSION_BUS_ADDRESS", sessionBus.address());
    ScopedEnvironment systemAddress("DBUS_SYSTEM_BUS_ADDRESS", systemBus.address());
    {
        auto desktop = DesktopBus::open(notes.sink());
        EXPECT_EQ(desktop->inhibitors()->describe(),
                  "an assertion held in memory only (the system bus has no logind), so nothing stops the machine idling");
    }
    FakeLogind logind(systemBus.address());
    {
        auto desktop = DesktopBus::open(notes.sink());
        EXPECT_EQ(desktop->inhibitors()->describe(), "logind's idle and sleep locks on the system bus");
    }
    FakeScreenSaver saver(sessionBus.address());
    auto desktop = DesktopBus::open(notes.sink());
    auto assertions = desktop->inhibitors();
    EXPECT_EQ(assertions->describe(),
              "the screen saver's inhibitor on the session bus and logind's idle and sleep locks on the system bus");
    int error = 0;
    auto id = assertions->create("PreventUserIdleDisplaySleep", "Tavrick: Indefinitely", error);
    ASSERT_TRUE(id);
    EXPECT_EQ(saver.holding(), 1u);
    EXPECT_EQ(logind.holding(), 1u);
    assertions->release(*id);
    EXPECT_TRUE(eventually([&] { return logind.holding() == 0; }));
}

TEST_F(DesktopInhibitorsTest, ASystemBusThatWentAwayRefusesInsteadOfHanging) {
    FakeLogind logind(systemBus.address());
    DesktopInhibitors inhibitors(loop, nullptr, system, notes.sink());
    logind.connection.stop();
    systemBus.stop();
    ASSERT_TRUE(eventually([&] { return !loop.isAlive(*system); }));
    int error = 0;
    EXPECT_FALSE(inhibitors.create("PreventUserIdleSystemSleep", "Tavrick: Indefinitely", error));
    EXPECT_EQ(error, EPERM);
    EXPECT_EQ(notes.lines().back(), "logind refused the “sleep” lock: the system bus is gone; keep-awake is off");
}

// Notices and toasts through a notification server that records, on a private session bus; the
// terminal line when the server errs or is not there.
#include "Platform/DBus/DBusNotifications.h"

#include "CoreKit/ManualScheduler.h"
#include "Platform/DBus/BusLoop.h"
#include "Platform/DBus/DesktopBus.h"
#include "Platform/Linux/TerminalNotifications.h"
#include "Platform/Linux/TerminalToast.h"
#include "PlatformDBus/Buses.h"
#include "Support/Eventually.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

constexpr const char* notificationsInterface = "org.freedesktop.Notifications";

struct Shown {
    std::string app;
    std::uint32_t replaces;
    std::string summary;
    std::string body;
    std::uint8_t urgency;
    std::int32_t timeout;
};

// A notification server that records what it is asked to show, or answers with an error.
struct FakeNotificationServer {
    explicit FakeNotificationServer(const std::string& address) : connection(address) {
        object = sdbus::createObject(*connection, "/org/freedesktop/Notifications");
        object->registerMethod("Notify").onInterface(notificationsInterface).implementedAs(
            [this](const std::string& app, std::uint32_t replaces, const std::string&, const std::string& summary,
                   const std::string& body, const std::vector<std::string>&, const std::map<std::string, sdbus::Variant>& hints,
                   std::int32_t timeout) {
                std::lock_guard lock(mutex);
                if (refuse) throw sdbus::Error("org.freedesktop.Notifications.Error.Overloaded", "too many notifications");
                shown.push_back({app, replaces, summary, body, hints.at("urgency").get<std::uint8_t>(), timeout});
                return replaces ? replaces : ++lastID;
            });
        object->finishRegistration();
        connection.run("org.freedesktop.Notifications");
    }
    ~FakeNotificationServer() { connection.stop(); }
    std::vector<Shown> all() {
        std::lock_guard lock(mutex);
        return shown;
    }

    ServiceConnection connection;
    std::unique_ptr<sdbus::IObject> object;
    std::mutex mutex;
    std::vector<Shown> shown;
    std::uint32_t lastID = 40;
    bool refuse = false;
};

// The terminal face's lines, read back from a temporary file.
struct TerminalLines {
    TerminalLines() : file(std::tmpfile()), notices(file), toasts(file) {}
    ~TerminalLines() { std::fclose(file); }
    std::string text() {
        std::fflush(file);
        std::rewind(file);
        std::string out;
        char buffer[512];
        while (auto n = std::fread(buffer, 1, sizeof buffer, file)) out.append(buffer, n);
        return out;
    }
    std::FILE* file;
    TerminalNotifications notices;
    TerminalToast toasts;
};

class DBusNotificationsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
        connection = &loop.adopt(sdbus::createSessionBusConnectionWithAddress(bus.address()));
        center = std::make_unique<DBusNotifications>(loop, *connection, terminal.notices, terminal.toasts, notes.sink());
    }
    PrivateBus bus;
    Notes notes;
    TerminalLines terminal;
    BusLoop loop;
    sdbus::IConnection* connection = nullptr;
    std::unique_ptr<DBusNotifications> center;
};

} // namespace

TEST_F(DBusNotificationsTest, NoticesArriveWithTheirWordsAndTheSameIdentifierReplaces) {
    FakeNotificationServer server(bus.address());
    struct Case {
        std::string identifier, title, body;
        std::uint32_t replaces;
    };
    // Pomodoro phases come under fresh identifiers; a network alert for the same app replaces
    // the one before it.
    const std::vector<Case> cases{
        {"7C1A", "Time for a break", "Focus finished.", 0},
        {"net.com.example.app", "New connection", "Example reached api.example.com", 0},
        {"9B2F", "Back to work", "Short Break finished.", 0},
        {"net.com.example.app", "New connection", "Example reached cdn.example.com", 42},
        {"net.org.other", "New connection", "Other reached example.org", 0},
    };
    for (const auto& c : cases) center->add(c.identifier, c.title, c.body);
    ASSERT_TRUE(eventually([&] { return server.all().size() == cases.size(); }));
    const auto shown = server.all();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(shown[i].app, "Tavrick");
        EXPECT_EQ(shown[i].summary, cases[i].title) << i;
        EXPECT_EQ(shown[i].body, cases[i].body) << i;
        EXPECT_EQ(shown[i].replaces, cases[i].replaces) << i;
        EXPECT_EQ(shown[i].timeout, -1) << i;
        EXPECT_EQ(shown[i].urgency, 1) << i;
    }
    EXPECT_EQ(terminal.text(), "");
}

TEST_F(DBusNotificationsTest, ToastsAreShortAndWarningsStandOut) {
    FakeNotificationServer server(bus.address());
    center->present("Finder relaunched", Toast::Kind::done, std::nullopt);
    center->present("Finder did not come back", Toast::Kind::warning, std::string("Open it from the Dock"));
    ASSERT_TRUE(eventually([&] { return server.all().size() == 2; }));
    const auto shown = server.all();
    EXPECT_EQ(shown[0].summary, "Finder relaunched");
    EXPECT_EQ(shown[0].body, "");
    EXPECT_EQ(shown[0].urgency, 0);
    EXPECT_EQ(shown[0].timeout, DBusNotifications::toastMilliseconds);
    EXPECT_EQ(shown[1].summary, "Finder did not come back");
    EXPECT_EQ(shown[1].body, "Open it from the Dock");
    EXPECT_EQ(shown[1].urgency, 1);
}

TEST_F(DBusNotificationsTest, AServerThatErrsOrIsGoneSendsTheLineToTheTerminal) {
    struct Case {
        const char* name;
        bool serverThere;
        std::string expectedNote;
    };
    const std::vector<Case> cases{
        {"server answers with an error", true,
         "the notification server refused “Back to work” (org.freedesktop.Notifications.Error.Overloaded: too many "
         "notifications); shown on the terminal"},
        {"no server owns the name", false, "the notification server refused “Back to work” (org.freedesktop.DBus.Error.ServiceUnknown"},
    };
    for (const auto& c : cases) {
        std::unique_ptr<FakeNotificationServer> server;
        if (c.serverThere) {
            server = std::make_unique<FakeNotificationServer>(bus.address());
            server->refuse = true;
        }
        TerminalLines lines;
        DBusNotifications notices(loop, *connection, lines.notices, lines.toasts, notes.sink());
        notices.add("id", "Back to work", "Long Break finished.");
        notices.present("Finder did not come back", Toast::Kind::warning, std::string("Open it from the Dock"));
        loop.sync([] {});
        EXPECT_EQ(lines.text(), "🔔 Back to work — Long Break finished.\n" +
                                    TerminalToast::line("Finder did not come back", Toast::Kind::warning,
                                                        std::string("Open it from the Dock")) +
                                    "\n")
            << c.name;
        EXPECT_TRUE(notes.contains(c.expectedNote)) << c.name;
        if (server) {
            EXPECT_TRUE(server->all().empty()) << c.name;
        }
    }
}

TEST_F(DBusNotificationsTest, AfterTheBusEndsEveryNoticeStillReachesTheTerminal) {
    FakeNotificationServer server(bus.address());
    center->add("a", "Time for a break", "Focus finished.");
    ASSERT_TRUE(eventually([&] { return server.all().size() == 1; }));
    server.connection.stop();
    bus.stop();
    ASSERT_TRUE(eventually([&] { return !loop.isAlive(*connection); }));
    center->add("b", "Back to work", "Short Break finished.");
    ASSERT_TRUE(eventually([&] { return terminal.text().find("Back to work") != std::string::npos; }));
    EXPECT_EQ(terminal.text(), "🔔 Back to work — Short Break finished.\n");
    EXPECT_TRUE(notes.contains("the session bus is gone; “Back to work” is shown on the terminal"));
}

TEST(DesktopBusChoice, NotificationsOnlyWhereAServerIsOffered) {
    PrivateBus bus;
    if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
    ScopedEnvironment session("DBUS_SESSION_BUS_ADDRESS", bus.address());
    ScopedEnvironment system("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavrick-test-bus");
    Notes notes;
    TerminalLines terminal;
    auto desktop = DesktopBus::open(notes.sink());
    ASSERT_NE(desktop->session(), nullptr);
    EXPECT_EQ(desktop->system(), nullptr);
    EXPECT_TRUE(notes.contains("no system bus ("));
    EXPECT_EQ(desktop->notifications(terminal.notices, terminal.toasts), nullptr);
    EXPECT_TRUE(notes.contains("notices and toasts: on the terminal (no notification server on the session bus)"));
    FakeNotificationServer server(bus.address());
    EXPECT_NE(desktop->notifications(terminal.notices, terminal.toasts), nullptr);
    EXPECT_TRUE(notes.contains("notices and toasts: desktop notifications (org.freedesktop.Notifications)"));
}

TEST(DesktopBusChoice, WithoutASessionBusEverythingStaysInTheTerminal) {
    ScopedEnvironment session("DBUS_SESSION_BUS_ADDRESS", "");
    ScopedEnvironment system("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/tavrick-test-bus");
    Notes notes;
    TerminalLines terminal;
    auto desktop = DesktopBus::open(notes.sink());
    EXPECT_EQ(desktop->session(), nullptr);
    EXPECT_EQ(notes.lines().front(), "no session bus (DBUS_SESSION_BUS_ADDRESS is not set); the desktop services stay in the terminal");
    EXPECT_EQ(desktop->notifications(terminal.notices, terminal.toasts), nullptr);
    EXPECT_EQ(desktop->secretService(), nullptr);
    ManualScheduler scheduler;
    EXPECT_EQ(desktop->tray(scheduler), nullptr);
    auto assertions = desktop->inhibitors();
    EXPECT_NE(assertions->describe().find("in memory"), std::string::npos) << assertions->describe();
}

// The inhibitor adapter against a private bus that the test starts, with a stand-in for logind
// on it: the adapter's calls, the descriptor it keeps and the choice of adapter are all real.
#include "Platform/Linux/LogindPowerAssertions.h"
#include "Support/Eventually.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// A private bus daemon; its address, or an empty one when dbus-daemon is not installed.
class PrivateBus {
public:
    PrivateBus() {
        if (::access("/usr/bin/dbus-daemon", X_OK) != 0) return;
        daemon_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/bin/dbus-daemon", "--session", "--nofork", "--print-address"},
            std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"}});
        if (!daemon_->waitForOutput("\n", 10)) return;
        address_ = daemon_->output().substr(0, daemon_->output().find('\n'));
    }
    ~PrivateBus() {
        if (daemon_) {
            daemon_->signal(SIGTERM);
            daemon_->wait(5);
        }
    }
    const std::string& address() const { return address_; }

private:
    std::unique_ptr<ChildProcess> daemon_;
    std::string address_;
};

// What logind does for Inhibit: remembers the call and hands back one end of a pipe, whose other
// end shows when every holder has let go.
struct FakeLogind {
    explicit FakeLogind(const std::string& address) : connection(sdbus::createSessionBusConnectionWithAddress(address)) {
        object = sdbus::createObject(*connection, "/org/freedesktop/login1");
        object->registerMethod("Inhibit")
            .onInterface("org.freedesktop.login1.Manager")
            .implementedAs([this](const std::string& what, const std::string& who, const std::string& why,
                                  const std::string& mode) {
                std::lock_guard lock(mutex);
                calls.push_back(what + "|" + who + "|" + why + "|" + mode);
                int ends[2];
                if (::pipe2(ends, O_CLOEXEC) != 0) throw sdbus::Error("org.freedesktop.DBus.Error.Failed", "pipe");
                reads.push_back(ends[0]);
                return sdbus::UnixFd(ends[1], sdbus::adopt_fd);
            });
        object->finishRegistration();
        connection->requestName("org.freedesktop.login1");
        connection->enterEventLoopAsync();
    }
    ~FakeLogind() {
        connection->leaveEventLoop();
        for (int fd : reads) ::close(fd);
    }
    // The lock behind the nth call is still held by somebody.
    bool isHeld(std::size_t index) {
        std::lock_guard lock(mutex);
        pollfd p{reads.at(index), POLLIN, 0};
        return ::poll(&p, 1, 0) == 0;
    }

    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IObject> object;
    std::mutex mutex;
    std::vector<std::string> calls;
    std::vector<int> reads;
};

// Points the system bus at `address` for one test.
class SystemBusAddress {
public:
    explicit SystemBusAddress(const std::string& address) {
        if (auto* old = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) old_ = old;
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    }
    ~SystemBusAddress() { old_ ? ::setenv("DBUS_SYSTEM_BUS_ADDRESS", old_->c_str(), 1) : ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

private:
    std::optional<std::string> old_;
};

} // namespace

TEST(LogindPowerAssertions, WithoutASystemBusTheStandInHoldsAndSaysSo) {
    TempDir root;
    SystemBusAddress address("unix:path=" + (root / "nobody-listens").string());
    auto assertions = LogindPowerAssertions::makeBest();
    EXPECT_EQ(assertions->describe().rfind("an assertion held in memory only (no system bus: ", 0), 0u)
        << assertions->describe();
    int error = 0;
    EXPECT_TRUE(assertions->create("PreventUserIdleSystemSleep", "Tavrick: Indefinitely", error));
}

TEST(LogindPowerAssertions, HoldsAnIdleInhibitorUntilReleasedWhenLogindIsOnTheBus) {
    PrivateBus bus;
    if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
    SystemBusAddress address(bus.address());
    EXPECT_EQ(LogindPowerAssertions::makeBest()->describe(),
              "an assertion held in memory only (the system bus has no logind), so nothing stops the machine idling");
    FakeLogind logind(bus.address());
    auto assertions = LogindPowerAssertions::makeBest();
    ASSERT_EQ(assertions->describe(), "a logind idle inhibitor on the system bus");

    int error = 0;
    auto first = assertions->create("PreventUserIdleDisplaySleep", "Tavrick: Indefinitely", error);
    auto second = assertions->create("PreventUserIdleSystemSleep", "Tavrick: While Firefox is running", error);
    ASSERT_TRUE(first && second);
    EXPECT_NE(*first, *second);
    EXPECT_EQ(logind.calls, (std::vector<std::string>{"idle|Tavrick|Tavrick: Indefinitely|block",
                                                      "idle|Tavrick|Tavrick: While Firefox is running|block"}));
    // The stand-in's own copy of a descriptor goes when its handler has returned, which may be a
    // moment after the reply arrived here.
    EXPECT_TRUE(logind.isHeld(0));
    assertions->release(*first);
    EXPECT_TRUE(eventually([&] { return !logind.isHeld(0); }));
    EXPECT_TRUE(logind.isHeld(1));
    assertions->release(*first);  // twice is harmless
    EXPECT_TRUE(logind.isHeld(1));
    assertions.reset();           // going away lets go of everything
    EXPECT_TRUE(eventually([&] { return !logind.isHeld(1); }));
}

// The bus thread: blocks in order on one thread, a throwing block that does not stop it, and a
// bus that goes away.
#include "Platform/DBus/BusLoop.h"
#include "PlatformDBus/Buses.h"
#include "Support/Eventually.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace tavrick;
using namespace tavrick::testing;

TEST(BusLoop, BlocksRunInOrderOnTheBusThreadAndAThrowingOneDoesNotStopIt) {
    BusLoop loop;
    std::vector<int> order;
    std::thread::id where;
    for (int i = 0; i < 50; ++i) {
        loop.post([&order, i] { order.push_back(i); });
        if (i == 25) loop.post([] { throw std::runtime_error("a failing block"); });
    }
    loop.sync([&] { where = std::this_thread::get_id(); });
    EXPECT_NE(where, std::this_thread::get_id());
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(order[i], i);
    // A sync that throws hands the failure to its caller.
    EXPECT_THROW(loop.sync([] { throw std::runtime_error("from the bus"); }), std::runtime_error);
    // A sync from the bus thread runs inline instead of waiting for itself.
    bool inner = false;
    loop.sync([&] { loop.sync([&] { inner = loop.isCurrent(); }); });
    EXPECT_TRUE(inner);
}

TEST(BusLoop, ABusThatGoesAwayIsReportedOnceAndLeftAlone) {
    PrivateBus bus;
    if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
    BusLoop loop;
    std::atomic<int> lost{0};
    auto& connection = loop.adopt(sdbus::createSessionBusConnectionWithAddress(bus.address()), [&] { ++lost; });
    EXPECT_TRUE(loop.isAlive(connection));
    bus.stop();
    ASSERT_TRUE(eventually([&] { return lost.load() == 1; }));
    EXPECT_FALSE(loop.isAlive(connection));
    // The loop still runs blocks after the loss, and reports it no more.
    bool ran = false;
    loop.sync([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_EQ(lost.load(), 1);
}

TEST(BusLoop, AnUnknownConnectionIsNotAlive) {
    PrivateBus bus;
    if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
    BusLoop loop;
    auto stranger = sdbus::createSessionBusConnectionWithAddress(bus.address());
    EXPECT_FALSE(loop.isAlive(*stranger));
}

#include "CoreKit/ManualScheduler.h"
#include "NetKit/LibprocFlowSource.h"
#include "NetFakes.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

struct FakeTable : SocketTableReader {
    std::vector<SocketTable::Scanned> result;
    std::vector<std::optional<std::int32_t>> excluded;
    std::vector<std::set<FlowState>> asked;
    std::vector<SocketTable::Scanned> scan(std::optional<std::int32_t> excluding,
                                           const std::set<FlowState>& wanted) override {
        excluded.push_back(excluding);
        asked.push_back(wanted);
        return result;
    }
    std::vector<SocketTable::Entry> sockets(std::int32_t, const std::set<FlowState>&) override { return {}; }
    SocketTable::Visibility visibility() override { return {}; }
};

SocketTable::Scanned process(std::int32_t pid, double startedAt, std::vector<std::string> hosts) {
    SocketTable::Scanned s;
    s.process = {pid, "comm", "preferred", "/opt/bin/app", startedAt, 1};
    std::uint16_t port = 40000;
    for (auto& host : hosts) s.sockets.push_back({{"127.0.0.1", port++, false}, {host, 443, false}, FlowState::established});
    return s;
}

struct LibprocTest : ::testing::Test {
    ManualScheduler scheduler;
    std::shared_ptr<FakeTable> table = std::make_shared<FakeTable>();
    std::shared_ptr<LibprocFlowSource> source = LibprocFlowSource::make(3, table, scheduler, 4242);
    std::vector<std::vector<Flow>> batches;
    void SetUp() override {
        source->setOnFlows([this](const std::vector<Flow>& flows) { batches.push_back(flows); });
    }
};

} // namespace

TEST_F(LibprocTest, TheFirstTickComesAtOnceThenEveryPeriod) {
    EXPECT_EQ(source->scope(), FlowScope::ownUserPolled(3));
    EXPECT_FALSE(source->canBlock());
    table->result = {process(10, 500, {"1.1.1.1"})};
    source->start();
    source->start();  // a second start does nothing
    EXPECT_TRUE(source->isRunning());
    scheduler.runUntilIdle();
    ASSERT_EQ(batches.size(), 1u);
    scheduler.advance(2.9);
    EXPECT_EQ(batches.size(), 1u);
    scheduler.advance(0.1);
    EXPECT_EQ(batches.size(), 2u);
    scheduler.advance(6);
    EXPECT_EQ(batches.size(), 4u);
    // Itself left out, and listening sockets never asked for.
    EXPECT_EQ(table->excluded.front(), std::optional<std::int32_t>(4242));
    EXPECT_EQ(table->asked.front(), (std::set<FlowState>{FlowState::established, FlowState::datagram}));
}

TEST_F(LibprocTest, AFlowKeepsItsFirstSightingUntilItClosesOrItsPidIsReused) {
    auto ten = process(10, 500, {"1.1.1.1", "2.2.2.2"});
    ten.sockets.push_back(ten.sockets.front());  // a duplicate socket is one flow
    table->result = {ten, process(11, 500, {"3.3.3.3"})};
    const double t0 = scheduler.clock().now();
    source->start();
    scheduler.runUntilIdle();
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches[0].size(), 3u);
    table->result = {process(10, 500, {"1.1.1.1"}), process(11, 777, {"3.3.3.3"})};
    scheduler.advance(3);
    ASSERT_EQ(batches.size(), 2u);
    ASSERT_EQ(batches[1].size(), 2u);
    const Flow& kept = batches[1][0].pid == 10 ? batches[1][0] : batches[1][1];
    const Flow& reused = batches[1][0].pid == 10 ? batches[1][1] : batches[1][0];
    EXPECT_EQ(kept.firstSeen, t0);
    EXPECT_EQ(kept.lastSeen, t0 + 3);
    EXPECT_EQ(kept.name, "preferred");
    EXPECT_EQ(kept.executablePath, "/opt/bin/app");
    EXPECT_EQ(kept.processStartedAt, 500);
    EXPECT_EQ(reused.firstSeen, t0 + 3);
    EXPECT_EQ(reused.processStartedAt, 777);
}

TEST_F(LibprocTest, StopOrTheSourceGoingAwayEndsItsTicks) {
    table->result = {process(10, 500, {"1.1.1.1"})};
    source->start();
    scheduler.runUntilIdle();
    source->stop();
    EXPECT_FALSE(source->isRunning());
    scheduler.advance(10);
    EXPECT_EQ(batches.size(), 1u);
    source->start();
    scheduler.advance(1);
    ASSERT_EQ(batches.size(), 2u);
    // What stop forgot is first seen again.
    EXPECT_EQ(batches[1][0].firstSeen, scheduler.clock().now() - 1);
    source.reset();
    scheduler.advance(30);
    EXPECT_EQ(batches.size(), 2u);
    EXPECT_EQ(scheduler.pendingTimers(), 0u);
}

TEST_F(LibprocTest, DuplicateSocketsOfOneProcessAreOneFlow) {
    auto p = process(10, 500, {"1.1.1.1"});
    p.sockets.push_back(p.sockets.front());
    table->result = {p};
    source->start();
    scheduler.runUntilIdle();
    EXPECT_EQ(batches.at(0).size(), 1u);
}


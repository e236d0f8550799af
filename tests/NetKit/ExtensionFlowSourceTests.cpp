#include "CoreKit/ManualScheduler.h"
#include "NetKit/ExtensionFlowSource.h"
#include "NetFakes.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

struct FakeConnection : NetFilterConnection {
    struct Call {
        std::string method;
        std::optional<std::int64_t> argument;
        Reply reply;
        ErrorHandler onError;
    };
    std::vector<Call> calls;
    bool invalidated = false;
    void call(std::string_view method, std::optional<std::int64_t> argument, Reply reply, ErrorHandler onError) override {
        calls.push_back({std::string(method), argument, std::move(reply), std::move(onError)});
    }
    void invalidate() override { invalidated = true; }
};

struct FakeLink : NetFilterLink {
    std::optional<std::string> team = "TEAM123456";
    bool canBuildRequirement = true;
    std::string connectedService;
    std::string pinnedRequirement;
    std::function<void()> onGone;
    std::shared_ptr<FakeConnection> connection = std::make_shared<FakeConnection>();
    std::optional<std::string> ownTeamID() override { return team; }
    std::optional<std::string> identifierRequirement(const std::string& t, std::string_view identifier) override {
        if (!canBuildRequirement) return std::nullopt;
        return "identifier \"" + std::string(identifier) + "\" and team \"" + t + "\"";
    }
    std::shared_ptr<NetFilterConnection> connect(const std::string& service, const std::string& requirement,
                                                std::function<void()> gone) override {
        connectedService = service;
        pinnedRequirement = requirement;
        onGone = std::move(gone);
        return connection;
    }
};

NetFilterReply::Flow wire(std::int32_t pid, const std::string& remote, double lastSeen, std::int64_t token) {
    NetFilterReply::Flow f;
    f.pid = pid;
    f.processStartedAt = 1;
    f.executablePath = "/opt/app";
    f.processName = "app";
    f.localAddress = "10.0.0.2";
    f.localPort = 50000;
    f.remoteAddress = remote;
    f.remotePort = 443;
    f.firstSeen = lastSeen - 1;
    f.lastSeen = lastSeen;
    f.token = token;
    return f;
}

struct ExtensionTest : ::testing::Test {
    TempDir root;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(root / "logs", scheduler);
    std::shared_ptr<FakeLink> link = std::make_shared<FakeLink>();
    std::shared_ptr<ExtensionFlowSource> source = ExtensionFlowSource::make(2, link, scheduler, log.get());
    std::vector<std::vector<Flow>> batches;
    void SetUp() override {
        source->setOnFlows([this](const std::vector<Flow>& flows) { batches.push_back(flows); });
    }
    double now() { return scheduler.clock().now(); }
};

} // namespace

TEST_F(ExtensionTest, ACopyWithoutATeamOrRequirementCannotStart) {
    link->team.reset();
    try {
        source->start();
        FAIL() << "started without a team";
    } catch (const ExtensionFlowSource::Failure& failure) {
        EXPECT_EQ(failure.kind, ExtensionFlowSource::Failure::Kind::noTeam);
        EXPECT_STREQ(failure.what(), "This copy of Tavrick is not signed by a team, so it cannot pin the filter.");
    }
    link->team = "T";
    link->canBuildRequirement = false;
    try {
        source->start();
        FAIL() << "started without a requirement";
    } catch (const ExtensionFlowSource::Failure& failure) {
        EXPECT_EQ(failure.kind, ExtensionFlowSource::Failure::Kind::noRequirement);
        EXPECT_STREQ(failure.what(), "The requirement that pins the filter could not be built.");
    }
    EXPECT_FALSE(source->isRunning());
    auto unsigned_ = ExtensionFlowSource::make(2, std::make_shared<UnsignedNetFilterLink>(), scheduler, nullptr);
    EXPECT_THROW(unsigned_->start(), ExtensionFlowSource::Failure);
}

TEST_F(ExtensionTest, StartPinsThePeerSaysHelloAndAsksByTokenEachTick) {
    source->start();
    EXPECT_EQ(link->connectedService, "TEAM123456.com.orvell.tavrick.netfilter");
    EXPECT_EQ(link->pinnedRequirement, "identifier \"com.orvell.tavrick.netfilter\" and team \"TEAM123456\"");
    EXPECT_EQ(source->scope(), FlowScope::systemWideLive());
    EXPECT_FALSE(source->canBlock());
    auto& calls = link->connection->calls;
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].method, "helloWithReply:");
    calls[0].reply(R"({"protocolVersion":1,"build":"42","shortVersion":"1.3"})");
    EXPECT_EQ(notesOf(*log), (std::vector<std::string>{"[netfilter] connected to 1.3 (42), protocol 1"}));

    scheduler.advance(2);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].method, "flowsSinceToken:reply:");
    EXPECT_EQ(calls[1].argument, 0);
    NetFilterReply::Flows reply{{wire(1, "1.1.1.1", now(), 5)}, 6, false};
    calls[1].reply(NetFilterReply::encode(reply));
    scheduler.runUntilIdle();
    EXPECT_EQ(source->token(), 6);
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches[0].size(), 1u);
    scheduler.advance(2);
    EXPECT_EQ(calls.back().argument, 6);
}

TEST_F(ExtensionTest, AHelloThatDoesNotDecodeIsLoggedForDevelopersOnly) {
    LogCapture capture;
    source->start();
    link->connection->calls[0].reply("{}");
    EXPECT_TRUE(capture.contains("network", "Network filter: hello was not understood"));
    EXPECT_TRUE(notesOf(*log).empty());
}

TEST_F(ExtensionTest, UndecodableRepliesAndSmallerTokensLeaveTheTokenAlone) {
    source->merge(NetFilterReply::encode(NetFilterReply::Flows{{}, 10, false}));
    EXPECT_EQ(source->token(), 10);
    source->merge("not json at all");
    source->merge(R"({"flows":[],"token":99})");
    EXPECT_EQ(source->token(), 10);
    EXPECT_EQ(batches.size(), 1u);
    source->merge(NetFilterReply::encode(NetFilterReply::Flows{{wire(1, "1.1.1.1", now(), 3)}, 4, false}));
    EXPECT_EQ(source->token(), 10);
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[1].size(), 1u);
}

TEST_F(ExtensionTest, DroppedOlderIsNotedOncePerReplyAndItsFlowsStillCount) {
    source->merge(NetFilterReply::encode(
        NetFilterReply::Flows{{wire(1, "1.1.1.1", now(), 1), wire(2, "2.2.2.2", now(), 2)}, 3, true}));
    source->merge(NetFilterReply::encode(NetFilterReply::Flows{{}, 3, true}));
    source->merge(NetFilterReply::encode(NetFilterReply::Flows{{}, 3, false}));
    EXPECT_EQ(notesOf(*log), (std::vector<std::string>{"[netfilter] the filter dropped flows before they were read",
                                                       "[netfilter] the filter dropped flows before they were read"}));
    EXPECT_EQ(batches.at(0).size(), 2u);
}

TEST_F(ExtensionTest, FlowsNotSeenForHalfAMinuteArePruned) {
    source->merge(NetFilterReply::encode(NetFilterReply::Flows{{wire(1, "1.1.1.1", now(), 1)}, 1, false}));
    scheduler.advance(30);
    source->merge(NetFilterReply::encode(NetFilterReply::Flows{{wire(2, "2.2.2.2", now(), 2)}, 2, false}));
    EXPECT_EQ(batches.back().size(), 2u);
    scheduler.advance(0.5);
    source->merge(NetFilterReply::encode(NetFilterReply::Flows{{}, 2, false}));
    ASSERT_EQ(batches.back().size(), 1u);
    EXPECT_EQ(batches.back()[0].remote.address, "2.2.2.2");
}

TEST_F(ExtensionTest, ALostConnectionIsDroppedAndTicksAskNothing) {
    LogCapture capture;
    source->start();
    link->onGone();
    EXPECT_TRUE(capture.contains("network", "Network filter: the connection went away"));
    EXPECT_FALSE(source->isConnected());
    scheduler.advance(10);
    EXPECT_EQ(link->connection->calls.size(), 1u);
    source->stop();
    EXPECT_FALSE(source->isRunning());
}

TEST_F(ExtensionTest, StopInvalidatesTheConnection) {
    source->start();
    source->stop();
    EXPECT_TRUE(link->connection->invalidated);
    scheduler.advance(10);
    EXPECT_EQ(link->connection->calls.size(), 1u);
}

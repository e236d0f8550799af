#include "NetKit/ExtensionFlowSource.h"
#include "NetFakes.h"
#include "Support/LogCapture.h"

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
    return {.pid = pid, .processStartedAt = 1, .executablePath = "/opt/app", .processName = "app",
            .signingIdentifier = std::nullopt, .teamIdentifier = std::nullopt, .localAddress = "10.0.0.2",
            .localPort = 50000, .remoteAddress = remote, .remotePort = 443, .remoteHostname = std::nullopt,
            .firstSeen = lastSeen - 1, .lastSeen = lastSeen, .token = token};
}

struct ExtensionTest : LoggedTest {
    std::shared_ptr<FakeLink> link = std::make_shared<FakeLink>();
    std::shared_ptr<ExtensionFlowSource> source = ExtensionFlowSource::make(2, link, scheduler, log.get());
    std::vector<std::vector<Flow>> batches;
    void SetUp() override {
        source->setOnFlows([this](const std::vector<Flow>& flows) { batches.push_back(flows); });
    }
    static std::string reply(NetFilterReply::Flows flows) { return NetFilterReply::encode(flows); }
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
    LogCapture capture;
    source->start();
    EXPECT_EQ(link->connectedService, "TEAM123456.com.orvell.tavrick.netfilter");
    EXPECT_EQ(link->pinnedRequirement, "identifier \"com.orvell.tavrick.netfilter\" and team \"TEAM123456\"");
    EXPECT_EQ(source->scope(), FlowScope::systemWideLive());
    EXPECT_FALSE(source->canBlock());
    auto& calls = link->connection->calls;
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].method, "helloWithReply:");
    // A hello that does not decode is told to developers only.
    calls[0].reply("{}");
    EXPECT_TRUE(capture.contains("network", "Network filter: hello was not understood"));
    EXPECT_TRUE(notes().empty());
    calls[0].reply(R"({"protocolVersion":1,"build":"42","shortVersion":"1.3"})");
    EXPECT_EQ(notes(), (std::vector<std::string>{"[netfilter] connected to 1.3 (42), protocol 1"}));

    scheduler.advance(2);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].method, "flowsSinceToken:reply:");
    EXPECT_EQ(calls[1].argument, 0);
    calls[1].reply(reply({{wire(1, "1.1.1.1", now(), 5)}, 6, false}));
    scheduler.runUntilIdle();
    EXPECT_EQ(source->token(), 6);
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches[0].size(), 1u);
    scheduler.advance(2);
    EXPECT_EQ(calls.back().argument, 6);
}

TEST_F(ExtensionTest, UndecodableRepliesAndSmallerTokensLeaveTheTokenAlone) {
    source->merge(reply({{}, 10, false}));
    EXPECT_EQ(source->token(), 10);
    source->merge("not json at all");
    source->merge(R"({"flows":[],"token":99})");
    EXPECT_EQ(source->token(), 10);
    EXPECT_EQ(batches.size(), 1u);
    source->merge(reply({{wire(1, "1.1.1.1", now(), 3)}, 4, false}));
    EXPECT_EQ(source->token(), 10);
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[1].size(), 1u);
}

TEST_F(ExtensionTest, DroppedOlderIsNotedOncePerReplyAndItsFlowsStillCount) {
    source->merge(reply({{wire(1, "1.1.1.1", now(), 1), wire(2, "2.2.2.2", now(), 2)}, 3, true}));
    source->merge(reply({{}, 3, true}));
    source->merge(reply({{}, 3, false}));
    EXPECT_EQ(notes(), (std::vector<std::string>{"[netfilter] the filter dropped flows before they were read",
                                                       "[netfilter] the filter dropped flows before they were read"}));
    EXPECT_EQ(batches.at(0).size(), 2u);
}

TEST_F(ExtensionTest, FlowsNotSeenForHalfAMinuteArePruned) {
    source->merge(reply({{wire(1, "1.1.1.1", now(), 1)}, 1, false}));
    scheduler.advance(30);
    source->merge(reply({{wire(2, "2.2.2.2", now(), 2)}, 2, false}));
    EXPECT_EQ(batches.back().size(), 2u);
    scheduler.advance(0.5);
    source->merge(reply({{}, 2, false}));
    ASSERT_EQ(batches.back().size(), 1u);
    EXPECT_EQ(batches.back()[0].remote.address, "2.2.2.2");
}

TEST_F(ExtensionTest, ALostConnectionIsDroppedAndStopInvalidatesTheConnection) {
    LogCapture capture;
    source->start();
    link->onGone();
    EXPECT_TRUE(capture.contains("network", "Network filter: the connection went away"));
    EXPECT_FALSE(source->isConnected());
    scheduler.advance(10);
    EXPECT_EQ(link->connection->calls.size(), 1u);
    source->stop();
    EXPECT_FALSE(source->isRunning());

    // Connected again, then stopped: the connection is closed and ticks ask nothing.
    link->connection = std::make_shared<FakeConnection>();
    source->start();
    source->stop();
    EXPECT_TRUE(link->connection->invalidated);
    scheduler.advance(10);
    EXPECT_EQ(link->connection->calls.size(), 1u);
}

#include "NetCore/NetFilterProtocol.h"

#include <gtest/gtest.h>

using namespace tavrick;

TEST(NetFilterIdentity, ServiceNameAndBundlePath) {
    EXPECT_EQ(NetFilterIdentity::machServiceName("ABCDE12345"), "ABCDE12345.com.orvell.tavrick.netfilter");
    EXPECT_EQ(NetFilterIdentity::bundlePath("/Applications/Tavrick.app"),
              "/Applications/Tavrick.app/Contents/Library/SystemExtensions/com.orvell.tavrick.netfilter.systemextension");
    EXPECT_EQ(NetFilterIdentity::bundlePath("/Applications/Tavrick.app/"),
              NetFilterIdentity::bundlePath("/Applications/Tavrick.app"));
}

TEST(NetFilterReply, FlowsRoundTripAndBecomeAppFlows) {
    NetFilterReply::Flow wire{.pid = 77, .processStartedAt = 1700000000.25, .executablePath = "/usr/bin/curl",
                              .processName = "curl", .signingIdentifier = std::nullopt, .teamIdentifier = "TEAM",
                              .localAddress = "10.0.0.2", .localPort = 50000, .remoteAddress = "1.1.1.1",
                              .remotePort = 53, .remoteHostname = std::nullopt, .isUDP = true, .firstSeen = 10,
                              .lastSeen = 20, .bytesOut = 18446744073709551615ULL, .token = 9};
    NetFilterReply::Flows flows{{wire}, 10, true};
    auto decoded = NetFilterReply::decode<NetFilterReply::Flows>(NetFilterReply::encode(flows));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, flows);

    Flow flow = wire.toFlow();
    EXPECT_EQ(flow.name, "curl");
    EXPECT_EQ(flow.state, FlowState::datagram);
    EXPECT_EQ(flow.remote, (Endpoint{"1.1.1.1", 53, false}));
    EXPECT_EQ(flow.firstSeen, 10);
    wire.isUDP = false;
    EXPECT_EQ(wire.toFlow().state, FlowState::established);
}

TEST(NetFilterReply, WhatDoesNotDecodeIsNothing) {
    EXPECT_FALSE(NetFilterReply::decode<NetFilterReply::Hello>("not json"));
    EXPECT_FALSE(NetFilterReply::decode<NetFilterReply::Hello>(R"({"build":"1","shortVersion":"1.0"})"));
    EXPECT_FALSE(NetFilterReply::decode<NetFilterReply::Flows>(R"({"flows":[{}],"token":1,"droppedOlder":false})"));
    EXPECT_FALSE(NetFilterReply::decode<NetFilterReply::Status>(R"({"flowsSeen":"many","startedAt":1,"canBlock":false})"));
    auto hello = NetFilterReply::decode<NetFilterReply::Hello>(R"({"protocolVersion":1,"build":"7","shortVersion":"1.2"})");
    ASSERT_TRUE(hello);
    EXPECT_FALSE(hello->cdHash);
    auto status = NetFilterReply::decode<NetFilterReply::Status>(
        R"({"secondsSinceLastFlow":null,"flowsSeen":3,"startedAt":1,"canBlock":false})");
    ASSERT_TRUE(status);
    EXPECT_FALSE(status->secondsSinceLastFlow);
    EXPECT_EQ(status->flowsSeen, 3);
}

#include "NetCore/Flow.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace tavrick;

TEST(Endpoint, DisplayBracketsIPv6Only) {
    EXPECT_EQ((Endpoint{"2001:db8::1", 443, true}).display(), "[2001:db8::1]:443");
    EXPECT_EQ((Endpoint{"1.2.3.4", 80, false}).display(), "1.2.3.4:80");
    EXPECT_EQ((Endpoint{"::1", 0, true}).display(), "[::1]:0");
}

TEST(Endpoint, PrivateAddressesAtTheEdgesOfEachRange) {
    struct Case {
        const char* address;
        bool isPrivate;
    };
    const Case cases[] = {
        {"0.1.2.3", true},       {"10.0.0.1", true},        {"11.0.0.1", false},      {"127.0.0.1", true},
        {"100.63.0.1", false},   {"100.64.0.1", true},      {"100.200.0.1", true},    {"100.255.255.255", true},
        {"99.64.0.1", false},    {"169.254.1.1", true},     {"169.253.1.1", false},   {"172.15.0.1", false},
        {"172.16.0.1", true},    {"172.31.0.1", true},      {"172.32.0.1", false},    {"192.168.0.1", true},
        {"192.169.0.1", false},  {"223.255.255.255", false}, {"224.0.0.1", true},     {"255.255.255.255", true},
        {"8.8.8.8", false},      {"::", true},              {"::1", true},            {"::2", false},
        {"fc00::1", true},       {"fd12:3456::1", true},    {"fe80::1", true},        {"fec0::1", true},
        {"fe7f::1", false},      {"ff02::1", true},         {"2001:db8::1", false},   {"example", false},
        {"", false},             {"1.2.3", false},          {"::ffff:10.0.0.1", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Endpoint::isPrivateAddress(c.address), c.isPrivate) << c.address;
        EXPECT_EQ((Endpoint{c.address, 1, false}).isPrivate(), c.isPrivate) << c.address;
    }
}

TEST(Endpoint, ServiceNamesForWellKnownPortsAndNothingElse) {
    EXPECT_EQ(Endpoint::service(465), "Mail");
    EXPECT_EQ(Endpoint::service(19302), "STUN");
    EXPECT_EQ(Endpoint::service(8443), "HTTP (alt)");
    for (std::uint16_t port : {0, 21, 444, 8000, 65535}) EXPECT_FALSE(Endpoint::service(port)) << port;
}

TEST(Endpoint, JSONHasExactlyThreeKeysAndRoundTrips) {
    nlohmann::json json = Endpoint{"::1", 8080, true};
    EXPECT_EQ(json.dump(), R"({"address":"::1","isIPv6":true,"port":8080})");
    EXPECT_EQ(json.get<Endpoint>(), (Endpoint{"::1", 8080, true}));
    EXPECT_THROW((void)nlohmann::json::parse(R"({"address":"::1","port":1})").get<Endpoint>(), nlohmann::json::exception);
}

TEST(FlowState, RawValuesAndUnknownTextGivesNothing) {
    for (auto state : {FlowState::established, FlowState::listening, FlowState::datagram}) {
        EXPECT_EQ(fromRaw<FlowState>(rawValue(state)), state);
    }
    EXPECT_FALSE(fromRaw<FlowState>("Established"));
    EXPECT_FALSE(fromRaw<FlowState>(""));
}

TEST(Flow, KeyTellsApartAReusedPidAndAgeNeverNegative) {
    Flow a{.pid = 42, .processStartedAt = 100.5, .name = "curl", .executablePath = "/usr/bin/curl",
           .local = {"127.0.0.1", 50000, false}, .remote = {"1.2.3.4", 443, false},
           .state = FlowState::established, .firstSeen = 200, .lastSeen = 210};
    Flow b = a;
    b.lastSeen = 300;
    b.name = "renamed";
    EXPECT_EQ(a.id(), b.id());
    b.processStartedAt = 150.25;
    EXPECT_NE(a.id(), b.id());

    EXPECT_EQ(a.age(250), 50);
    EXPECT_EQ(a.age(200), 0);
    EXPECT_EQ(a.age(150), 0);
}

TEST(AppKey, EqualityAndHashUsePathOnly) {
    AppKey a{"/opt/x/bin/x", "x"};
    AppKey b{"/opt/x/bin/x", "renamed"};
    AppKey c{"/opt/y", "x"};
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    EXPECT_EQ(std::hash<AppKey>{}(a), std::hash<AppKey>{}(b));
    EXPECT_EQ(a.stableIdentifier(), "/opt/x/bin/x");
    EXPECT_EQ((AppKey{"", "daemon"}).stableIdentifier(), "daemon");
    nlohmann::json json = a;
    EXPECT_EQ(json.dump(), R"({"executablePath":"/opt/x/bin/x","fallbackName":"x"})");
    EXPECT_EQ(json.get<AppKey>().fallbackName, "x");
}

TEST(ProcessIdentity, TheOutermostBundleNamesTheAppThenTheProcessThenUnknown) {
    using ProcessIdentity::owningApp;
    EXPECT_EQ(owningApp("/Applications/Foo.app/Contents/Frameworks/Bar.app/Contents/MacOS/Bar"), "Foo");
    EXPECT_EQ(owningApp("//Applications//Foo.app"), "Foo");
    EXPECT_FALSE(owningApp("/Applications/.app/Contents/MacOS/x"));
    EXPECT_FALSE(owningApp("/usr/bin/curl"));
    EXPECT_FALSE(owningApp("/opt/app/bin"));
    EXPECT_FALSE(owningApp(""));
    using ProcessIdentity::displayName;
    EXPECT_EQ(displayName("/Applications/Safari.app/Contents/MacOS/Safari", "com.apple.WebKit"), "Safari");
    EXPECT_EQ(displayName("/usr/bin/curl", "curl"), "curl");
    EXPECT_EQ(displayName("", ""), "Unknown");
}

TEST(ProcessIdentity, SystemPathsByPrefix) {
    for (const char* path : {"/System/Library/x", "/usr/libexec/x", "/usr/sbin/x", "/usr/bin/x", "/sbin/x", "/bin/x"}) {
        EXPECT_TRUE(ProcessIdentity::isSystemPath(path)) << path;
    }
    for (const char* path : {"/usr/local/bin/x", "/usr/bin", "/binx/y", "/home/u/bin/x", ""}) {
        EXPECT_FALSE(ProcessIdentity::isSystemPath(path)) << path;
    }
}

TEST(ProcessIdentity, LastComponent) {
    using ProcessIdentity::lastComponent;
    EXPECT_EQ(lastComponent("/usr/bin/curl"), "curl");
    EXPECT_EQ(lastComponent("/usr/bin/"), "bin");
    EXPECT_EQ(lastComponent("curl"), "curl");
    EXPECT_EQ(lastComponent("///"), "///");
    EXPECT_FALSE(lastComponent(""));
}

TEST(FlowScope, ScopesCompareByKindAndSeconds) {
    EXPECT_EQ(FlowScope::ownUserPolled(3), FlowScope::ownUserPolled(3));
    EXPECT_NE(FlowScope::ownUserPolled(3), FlowScope::ownUserPolled(5));
    EXPECT_NE(FlowScope::ownUserPolled(3), FlowScope::systemWideLive());
    EXPECT_FALSE(FlowScope::systemWideLive().isOwnUserPolled());
}

#include "NetCore/SocketTable.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {
const std::set<FlowState> all{FlowState::established, FlowState::listening, FlowState::datagram};
// Real lines from /proc/net/tcp and tcp6.
const char* tcpListen =
    "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000        0 31337 1 "
    "0000000000000000 100 0 0 10 0";
const char* tcpEstablished =
    "   1: 0100007F:D431 0100007F:1F90 01 00000000:00000000 02:000A7C6B 00000000  1000        0 424242 2 "
    "0000000000000000 20 4 30 10 -1";
const char* tcp6Mapped =
    "   0: 0000000000000000FFFF00000100007F:1F90 0000000000000000FFFF00000100007F:A2B4 01 00000000:00000000 "
    "00:00000000 00000000  1000        0 555 1 0000000000000000 20 4 30 10 -1";
const char* tcp6Loopback =
    "   2: 00000000000000000000000001000000:0016 00000000000000000000000000000000:0000 0A 00000000:00000000 "
    "00:00000000 00000000     0        0 777 1 0000000000000000 100 0 0 10 0";
const char* tcp6Global =
    "   3: B80D0120000000000000000001000000:01BB B80D0120000000000000000002000000:C350 01 00000000:00000000 "
    "00:00000000 00000000  1000        0 888 1 0000000000000000 20 4 30 10 -1";
} // namespace

TEST(ProcNet, ReadsIPv4AndIPv6LinesAndFoldsMappedAddressesToIPv4) {
    const struct {
        const char* line;
        bool isIPv6;
        Endpoint local, remote;
        int state;
    } cases[] = {
        {tcpListen, false, {"127.0.0.1", 8080, false}, {"0.0.0.0", 0, false}, ProcNet::tcpListen},
        {tcpEstablished, false, {"127.0.0.1", 54321, false}, {"127.0.0.1", 8080, false}, ProcNet::tcpEstablished},
        {tcp6Mapped, true, {"127.0.0.1", 8080, false}, {"127.0.0.1", 41652, false}, ProcNet::tcpEstablished},
        {tcp6Loopback, true, {"::1", 22, true}, {"::", 0, true}, ProcNet::tcpListen},
        {tcp6Global, true, {"2001:db8::1", 443, true}, {"2001:db8::2", 50000, true}, ProcNet::tcpEstablished},
    };
    for (const auto& c : cases) {
        auto socket = ProcNet::parseLine(c.line, c.isIPv6);
        ASSERT_TRUE(socket) << c.line;
        EXPECT_EQ(socket->local, c.local) << c.line;
        EXPECT_EQ(socket->remote, c.remote) << c.line;
        EXPECT_EQ(socket->state, c.state) << c.line;
    }
    auto listen = ProcNet::parseLine(tcpListen, false);
    EXPECT_EQ(listen->uid, 1000u);
    EXPECT_EQ(listen->inode, 31337u);
}

TEST(ProcNet, GarbageAndTruncatedLinesReadAsNothing) {
    const std::string good = tcpEstablished;
    std::vector<std::string> bad = {
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode",
        "garbage",
        "   1: 0100007Z:D431 0100007F:1F90 01 00000000:00000000 02:000A7C6B 00000000  1000 0 42 2",
        "   1: 0100007F:D4 0100007F:1F90 01 00000000:00000000 02:000A7C6B 00000000  1000 0 42 2",
        "   1: 0100007F:D431 0100007F1F90 01 00000000:00000000 02:000A7C6B 00000000  1000 0 42 2",
        "   x: 0100007F:D431 0100007F:1F90 01 00000000:00000000 02:000A7C6B 00000000  1000 0 42 2",
        "   1: 0100007F:D431 0100007F:1F90 01 00000000:00000000 02:000A7C6B 00000000  -1 0 42 2",
        "   1: 0100007F:D431 0100007F:1F90 01 00000000:00000000 02:000A7C6B 00000000  1000 0 4x2 2",
        std::string(tcp6Global),  // an IPv6 line read as IPv4
    };
    // Every prefix of a good line that stops before the inode.
    for (std::size_t cut = 0; cut < good.find("424242"); cut += 7) bad.push_back(good.substr(0, cut));
    for (const auto& line : bad) EXPECT_FALSE(ProcNet::parseLine(line, false)) << "[" << line << "]";
    EXPECT_FALSE(ProcNet::parseLine(tcpEstablished, true));
}

TEST(ProcNet, ClassifyCountsEstablishedListeningAndConnectedDatagramsOnly) {
    auto socket = [](const char* remote, std::uint16_t port, int state) {
        ProcNet::Socket s;
        s.local = {"10.0.0.2", 5000, false};
        s.remote = {remote, port, false};
        s.state = state;
        return s;
    };
    struct Case {
        ProcNet::Socket socket;
        bool isUDP;
        std::optional<FlowState> state;
    };
    const Case cases[] = {
        {socket("1.2.3.4", 443, 1), false, FlowState::established},
        {socket("0.0.0.0", 0, 10), false, FlowState::listening},
        {socket("1.2.3.4", 443, 8), false, std::nullopt},  // CLOSE_WAIT: any other TCP state
        {socket("1.2.3.4", 53, 1), true, FlowState::datagram},
        {socket("1.2.3.4", 53, 7), true, FlowState::datagram},
        {socket("1.2.3.4", 0, 1), true, std::nullopt},
        {socket("0.0.0.0", 53, 1), true, std::nullopt},
        {socket("::", 53, 1), true, std::nullopt},
    };
    for (const auto& c : cases) {
        auto entry = ProcNet::classify(c.socket, c.isUDP, all);
        EXPECT_EQ(entry ? std::optional(entry->state) : std::nullopt, c.state)
            << c.socket.remote.display() << " state " << c.socket.state << (c.isUDP ? " udp" : " tcp");
    }
    auto listening = ProcNet::classify(socket("0.0.0.0", 0, 10), false, all);
    ASSERT_TRUE(listening);
    EXPECT_EQ(listening->remote, Endpoint{});
    EXPECT_FALSE(ProcNet::classify(socket("0.0.0.0", 0, 10), false, {FlowState::established, FlowState::datagram}));
    EXPECT_FALSE(ProcNet::classify(socket("1.2.3.4", 443, 1), false, {FlowState::listening}));
}

TEST(ProcNet, StatTakesTheNameBetweenTheFirstAndLastParenthesis) {
    const std::string tail =
        " S 1234 5678 5678 0 -1 4194560 100 0 0 0 1 2 0 0 20 0 1 0 987654 10000000 200 18446744073709551615";
    auto stat = ProcNet::parseStat("4321 (my) (odd) name)" + tail);
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->name, "my) (odd) name");
    EXPECT_EQ(stat->state, 'S');
    EXPECT_EQ(stat->parentPID, 1234);
    EXPECT_EQ(stat->startTicks, 987654u);
    EXPECT_FALSE(ProcNet::parseStat("4321 (x) S 1234 5678"));
    EXPECT_FALSE(ProcNet::parseStat("4321 x S 1"));
    EXPECT_FALSE(ProcNet::parseStat(""));
    EXPECT_FALSE(ProcNet::parseStat("4321 (x) S abc 5678 5678 0 -1 4194560 100 0 0 0 1 2 0 0 20 0 1 0 987654"));
}

TEST(ProcNet, BootTimeAndStartTimeFromTicks) {
    auto boot = ProcNet::parseBootTime("cpu  1 2 3\nintr 5\nbtime 1763200000\nprocesses 99\n");
    ASSERT_TRUE(boot);
    EXPECT_EQ(*boot, 1763200000);
    EXPECT_FALSE(ProcNet::parseBootTime("cpu 1\nbtime x\n"));
    EXPECT_FALSE(ProcNet::parseBootTime(""));
    EXPECT_DOUBLE_EQ(ProcNet::startedAt(1763200000, 12345, 100), 1763200123.45);
    EXPECT_DOUBLE_EQ(ProcNet::startedAt(1763200000, 0, 100), 1763200000.0);
}

TEST(ProcNet, ArgumentZeroIsTheFirstArgumentsLastComponent) {
    using namespace std::string_literals;
    EXPECT_EQ(ProcNet::argumentZero("/usr/bin/python3\0script.py\0"s), "python3");
    EXPECT_EQ(ProcNet::argumentZero("curl"s), "curl");
    EXPECT_FALSE(ProcNet::argumentZero(""s));
    EXPECT_FALSE(ProcNet::argumentZero("\0x\0"s));
}

TEST(SocketTable, TextStopsAtTheFirstNulAndRepairsBadUTF8) {
    auto bytes = [](std::string s) {
        return std::vector<signed char>(s.begin(), s.end());
    };
    using namespace std::string_literals;
    EXPECT_EQ(SocketTable::text(bytes("curl\0junk"s)), "curl");
    EXPECT_EQ(SocketTable::text(bytes("no-nul")), "no-nul");
    EXPECT_EQ(SocketTable::text(bytes("caf\xc3\xa9")), "caf\xc3\xa9");
    EXPECT_EQ(SocketTable::text(bytes("bad\xff!")), "bad\xef\xbf\xbd!");
    EXPECT_EQ(SocketTable::text({}), "");
}

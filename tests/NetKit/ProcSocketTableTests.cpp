#include "Platform/Linux/ProcSocketTable.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

using namespace tavrick;
using namespace tavrick::testing;
namespace fs = std::filesystem;

namespace {

const std::set<FlowState> flows{FlowState::established, FlowState::datagram};
const std::set<FlowState> everything{FlowState::established, FlowState::listening, FlowState::datagram};

const char* header = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

std::string statLine(int pid, const std::string& name, int parent, unsigned long long ticks) {
    return std::to_string(pid) + " (" + name + ") S " + std::to_string(parent) +
           " 1 1 0 -1 4194560 100 0 0 0 1 2 0 0 20 0 1 0 " + std::to_string(ticks) + " 1000 200 18446744073709551615\n";
}

// A /proc the test writes: one process with sockets, one that vanished, one without sockets.
struct FakeProc {
    TempDir dir;
    fs::path root = dir.path();
    FakeProc() {
        writeFile(root / "stat", "cpu 1 2 3\nbtime 1763200000\n");
        fs::create_directories(root / "net");
        writeFile(root / "net" / "tcp",
                  std::string(header) +
                      "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000 0 31337 1 0 100 0 0 10 0\n"
                      "   1: 0100007F:D431 0100007F:1F90 01 00000000:00000000 02:000A7C6B 00000000  1000 0 424242 2 0 20 4 30 10 -1\n"
                      "   2: 0100007F:D432 0100007F:1F90 08 00000000:00000000 02:000A7C6B 00000000  1000 0 424243 2 0 20 4 30 10 -1\n"
                      "   3: garbage that is not a socket line\n"
                      "   4: 0100007F:D433 0100007F:1F9\n");
        writeFile(root / "net" / "tcp6",
                  std::string(header) +
                      "   0: 0000000000000000FFFF00000100007F:1F90 0000000000000000FFFF00000200007F:A2B4 01 00000000:00000000 "
                      "00:00000000 00000000  1000 0 555 1 0 20 4 30 10 -1\n");
        writeFile(root / "net" / "udp",
                  std::string(header) +
                      "  10: 0100007F:9C40 0800A8C0:0035 01 00000000:00000000 00:00000000 00000000  1000 0 600 2 0\n"
                      "  11: 00000000:0044 00000000:0000 07 00000000:00000000 00:00000000 00000000  1000 0 601 2 0\n");
        writeFile(root / "net" / "udp6", header);

        process(100, "app", {"424242", "31337", "424243", "600", "601", "555", "999"});
        fs::create_symlink("/opt/bin/app (deleted)", root / "100" / "exe");
        writeFile(root / "100" / "cmdline", std::string("/opt/bin/app-wrapper\0--flag\0", 28));
        fs::create_symlink("/dev/null", root / "100" / "fd" / "20");

        // The process ended between the listing and the reading of its files.
        process(200, "", {"424242"});
        process(300, "idle", {});
        fs::create_directories(root / "self");
        fs::create_directories(root / "not-a-pid");
    }
    void process(int pid, const std::string& name, const std::vector<std::string>& inodes) {
        const fs::path dir = root / std::to_string(pid);
        fs::create_directories(dir / "fd");
        if (!name.empty()) writeFile(dir / "stat", statLine(pid, name, 1, 12345));
        int fd = 3;
        for (auto& inode : inodes) fs::create_symlink("socket:[" + inode + "]", dir / "fd" / std::to_string(fd++));
    }
    ProcSocketTable table(uid_t uid = getuid()) {
        return ProcSocketTable({.procRoot = root, .tables = ProcSocketTable::Tables::procText, .uid = uid});
    }
};

std::vector<std::string> describe(const std::vector<SocketTable::Entry>& entries) {
    std::vector<std::string> out;
    for (auto& e : entries) out.push_back(std::string(rawValue(e.state)) + " " + e.local.display() + " → " + e.remote.display());
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace

TEST(ProcSocketTable, AScanMatchesDescriptorsToSocketsByInode) {
    FakeProc proc;
    auto table = proc.table();
    auto scanned = table.scan(std::nullopt, flows);
    ASSERT_EQ(scanned.size(), 1u);
    const auto& [process, sockets] = scanned[0];
    EXPECT_EQ(process.pid, 100);
    EXPECT_EQ(process.name, "app");
    EXPECT_EQ(process.preferredName, "app-wrapper");
    EXPECT_EQ(process.executablePath, "/opt/bin/app");
    EXPECT_EQ(process.parentPID, 1);
    EXPECT_DOUBLE_EQ(process.startedAt, 1763200000 + 12345.0 / static_cast<double>(sysconf(_SC_CLK_TCK)));
    EXPECT_EQ(describe(sockets), (std::vector<std::string>{
                                     "datagram 127.0.0.1:40000 → 192.168.0.8:53",
                                     "established 127.0.0.1:54321 → 127.0.0.1:8080",
                                     "established 127.0.0.1:8080 → 127.0.0.2:41652",
                                 }));
    // Listening sockets only when asked for.
    auto withListening = table.scan(std::nullopt, everything);
    ASSERT_EQ(withListening.size(), 1u);
    EXPECT_EQ(withListening[0].sockets.size(), 4u);
    EXPECT_EQ(describe(table.sockets(100, {FlowState::listening})),
              std::vector<std::string>{"listening 127.0.0.1:8080 → :0"});
}

TEST(ProcSocketTable, ExcludedAndOtherUsersProcessesMissingTablesAndAMissingProcGiveNothing) {
    FakeProc proc;
    EXPECT_TRUE(proc.table().scan(100, flows).empty());
    auto others = proc.table(getuid() + 1);
    EXPECT_TRUE(others.scan(std::nullopt, flows).empty());
    EXPECT_EQ(others.visibility(), (SocketTable::Visibility{0, 3, 0}));
    EXPECT_EQ(proc.table().visibility(), (SocketTable::Visibility{3, 0, 0}));
    ProcSocketTable nowhere({.procRoot = proc.root / "absent", .tables = ProcSocketTable::Tables::procText});
    EXPECT_TRUE(nowhere.scan(std::nullopt, flows).empty());
    EXPECT_EQ(nowhere.visibility(), SocketTable::Visibility{});
    fs::remove_all(proc.root / "net");
    EXPECT_TRUE(proc.table().scan(std::nullopt, flows).empty());
}

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// Real sockets of this process: a listener, a connection to it, a connected and an unconnected
// datagram socket.
struct RealSockets {
    int listener = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0), server = -1;
    int udpConnected = socket(AF_INET, SOCK_DGRAM, 0), udpLoose = socket(AF_INET, SOCK_DGRAM, 0);
    std::uint16_t port = 0;
    RealSockets() {
        sockaddr_in address = loopback(0), peer = loopback(9), any{};
        socklen_t length = sizeof address;
        bind(listener, reinterpret_cast<sockaddr*>(&address), length);
        listen(listener, 4);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        connect(client, reinterpret_cast<sockaddr*>(&address), length);
        server = accept(listener, nullptr, nullptr);
        connect(udpConnected, reinterpret_cast<sockaddr*>(&peer), sizeof peer);
        any.sin_family = AF_INET;
        bind(udpLoose, reinterpret_cast<sockaddr*>(&any), sizeof any);
    }
    ~RealSockets() {
        for (int fd : {listener, client, server, udpConnected, udpLoose}) close(fd);
    }
};

// This process as a scan saw it.
std::optional<SocketTable::Process> self(const std::vector<SocketTable::Scanned>& scanned) {
    auto it = std::find_if(scanned.begin(), scanned.end(), [](auto& s) { return s.process.pid == getpid(); });
    return it == scanned.end() ? std::nullopt : std::optional(it->process);
}

} // namespace

TEST(ProcSocketTable, ThisProcessesRealSocketsReadTheSameThroughBothTables) {
    RealSockets real;
    ASSERT_GE(real.server, 0);
    const std::string p = std::to_string(real.port);
    for (auto tables : {ProcSocketTable::Tables::procText, ProcSocketTable::Tables::sockDiag}) {
        SCOPED_TRACE(tables == ProcSocketTable::Tables::sockDiag ? "sock_diag" : "/proc/net");
        ProcSocketTable table({.tables = tables});
        auto mine = describe(table.sockets(getpid(), everything));
        auto count = [&](const std::string& prefix, const std::string& suffix = "") {
            return std::count_if(mine.begin(), mine.end(), [&](auto& l) { return l.starts_with(prefix) && l.ends_with(suffix); });
        };
        EXPECT_EQ(count("listening 127.0.0.1:" + p + " → :0"), 1);
        EXPECT_EQ(count("established 127.0.0.1:" + p + " → 127.0.0.1:"), 1);
        EXPECT_EQ(count("established", "→ 127.0.0.1:" + p), 1);
        // The unconnected datagram socket says nothing.
        EXPECT_EQ(count("datagram"), 1);
        EXPECT_EQ(count("datagram", "→ 127.0.0.1:9"), 1);

        auto first = self(table.scan(std::nullopt, flows));
        ASSERT_TRUE(first);
        EXPECT_FALSE(first->executablePath.empty());
        EXPECT_LT(std::fabs(first->startedAt - static_cast<double>(time(nullptr))), 86400.0);
        // The start time does not drift between scans.
        auto again = self(table.scan(std::nullopt, flows));
        ASSERT_TRUE(again);
        EXPECT_EQ(again->startedAt, first->startedAt);
        EXPECT_FALSE(self(table.scan(getpid(), flows)));
    }
}

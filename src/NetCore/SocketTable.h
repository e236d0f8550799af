#pragma once

#include "NetCore/Flow.h"

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// The kernel's process and socket tables, as far as this user may read them.
namespace SocketTable {

struct Entry {
    Endpoint local;
    Endpoint remote;
    FlowState state = FlowState::established;
    bool operator==(const Entry&) const = default;
    auto operator<=>(const Entry& other) const {
        return std::tie(local.address, local.port, local.isIPv6, remote.address, remote.port, remote.isIPv6, state) <=>
               std::tie(other.local.address, other.local.port, other.local.isIPv6, other.remote.address,
                        other.remote.port, other.remote.isIPv6, other.state);
    }
};

struct Process {
    std::int32_t pid = 0;
    std::string name;
    std::string preferredName;
    std::string executablePath;
    // Seconds since 1970.
    double startedAt = 0;
    std::int32_t parentPID = 0;
    bool operator==(const Process&) const = default;
};

struct Scanned {
    Process process;
    std::vector<Entry> sockets;
};

// Processes by owner: how much of the machine is out of reach.
struct Visibility {
    int mine = 0;
    int others = 0;
    int unreadable = 0;
    bool operator==(const Visibility&) const = default;
};

// A process table holds room for this many processes; beyond it nothing is seen.
constexpr std::size_t processCap = 8192;

// The bytes up to the first NUL, or all of them, as UTF-8 with each ill-formed sequence
// replaced by U+FFFD.
std::string text(std::span<const signed char> bytes);

} // namespace SocketTable

// The port over the kernel's tables. `scan` lists this user's processes that have at least one
// socket in a wanted state; a process that vanishes or cannot be read mid-scan is left out.
class SocketTableReader {
public:
    virtual ~SocketTableReader() = default;
    virtual std::vector<SocketTable::Scanned> scan(std::optional<std::int32_t> excluding,
                                                   const std::set<FlowState>& wanted) = 0;
    virtual std::vector<SocketTable::Entry> sockets(std::int32_t pid, const std::set<FlowState>& wanted) = 0;
    virtual SocketTable::Visibility visibility() = 0;
};

// The text forms of Linux's /proc socket and process files, read without touching the system.
namespace ProcNet {

// TCP states as /proc/net/tcp numbers them.
constexpr int tcpEstablished = 1;
constexpr int tcpListen = 10;

// One line of /proc/net/tcp, tcp6, udp or udp6.
struct Socket {
    Endpoint local;
    Endpoint remote;
    int state = 0;
    std::uint32_t uid = 0;
    std::uint64_t inode = 0;
    bool operator==(const Socket&) const = default;
};

// Nothing for the header, a truncated line or anything that does not read as a socket.
std::optional<Socket> parseLine(std::string_view line, bool isIPv6);
// "0100007F" (IPv4, 8 hex digits) or 32 hex digits (IPv6), in the kernel's byte order, to text;
// an IPv4-mapped IPv6 address comes back as IPv4.
std::optional<Endpoint> parseEndpoint(std::string_view field, bool isIPv6);
// What a socket counts as: TCP ESTABLISHED and LISTEN, and UDP with a connected peer.
std::optional<SocketTable::Entry> classify(const Socket& socket, bool isUDP, const std::set<FlowState>& wanted);

// The fields of /proc/<pid>/stat this program uses.
struct Stat {
    std::string name;
    char state = '?';
    std::int32_t parentPID = 0;
    // Clock ticks after boot.
    std::uint64_t startTicks = 0;
};
// The name is the text between the first "(" and the last ")", since a process may put either
// in its own name.
std::optional<Stat> parseStat(std::string_view text);
// "btime" of /proc/stat: boot time in whole seconds since 1970.
std::optional<std::int64_t> parseBootTime(std::string_view procStat);
// The start time from the boot time and ticks: the same every scan, unlike anything derived
// from the current uptime.
double startedAt(std::int64_t bootTime, std::uint64_t startTicks, long ticksPerSecond);
// The first argument of a NUL-separated command line, by its last component.
std::optional<std::string> argumentZero(std::string_view cmdline);

} // namespace ProcNet

} // namespace tavrick

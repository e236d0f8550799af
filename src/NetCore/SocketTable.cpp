#include "NetCore/SocketTable.h"

#include <arpa/inet.h>
#include <unicode/ustring.h>

#include <charconv>
#include <cstring>

namespace tavrick {

namespace SocketTable {

std::string text(std::span<const signed char> bytes) {
    std::size_t length = 0;
    while (length < bytes.size() && bytes[length] != 0) ++length;
    const char* data = reinterpret_cast<const char*>(bytes.data());
    const auto size = static_cast<std::int32_t>(length);
    UErrorCode status = U_ZERO_ERROR;
    std::int32_t units = 0;
    u_strFromUTF8WithSub(nullptr, 0, &units, data, size, 0xFFFD, nullptr, &status);
    std::u16string wide(static_cast<std::size_t>(units), u'\0');
    status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(wide.data(), units, &units, data, size, 0xFFFD, nullptr, &status);
    if (U_FAILURE(status)) return {};
    std::int32_t out = 0;
    status = U_ZERO_ERROR;
    u_strToUTF8(nullptr, 0, &out, wide.data(), units, &status);
    std::string result(static_cast<std::size_t>(out), '\0');
    status = U_ZERO_ERROR;
    u_strToUTF8(result.data(), out, &out, wide.data(), units, &status);
    return U_FAILURE(status) ? std::string() : result;
}

} // namespace SocketTable

namespace ProcNet {

namespace {

std::string_view nextField(std::string_view& rest) {
    std::size_t start = rest.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        rest = {};
        return {};
    }
    std::size_t end = rest.find_first_of(" \t", start);
    if (end == std::string_view::npos) end = rest.size();
    std::string_view field = rest.substr(start, end - start);
    rest = rest.substr(end);
    return field;
}

template <class T>
bool parseNumber(std::string_view text, T& value, int base = 10) {
    if (text.empty()) return false;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size();
}

} // namespace

std::optional<Endpoint> parseEndpoint(std::string_view field, bool isIPv6) {
    const std::size_t colon = field.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view address = field.substr(0, colon);
    std::uint16_t port = 0;
    if (field.size() - colon - 1 != 4 || !parseNumber(field.substr(colon + 1), port, 16)) return std::nullopt;

    char text[INET6_ADDRSTRLEN] = {};
    if (!isIPv6) {
        std::uint32_t word = 0;
        if (address.size() != 8 || !parseNumber(address, word, 16)) return std::nullopt;
        // The kernel prints the address as it lies in memory, read as one host-order word.
        in_addr raw{};
        std::memcpy(&raw, &word, sizeof word);
        if (!inet_ntop(AF_INET, &raw, text, sizeof text)) return std::nullopt;
        return Endpoint{text, port, false};
    }
    if (address.size() != 32) return std::nullopt;
    in6_addr raw{};
    for (int i = 0; i < 4; ++i) {
        std::uint32_t word = 0;
        if (!parseNumber(address.substr(static_cast<std::size_t>(i) * 8, 8), word, 16)) return std::nullopt;
        std::memcpy(reinterpret_cast<unsigned char*>(&raw) + i * 4, &word, sizeof word);
    }
    if (IN6_IS_ADDR_V4MAPPED(&raw)) {
        // A dual-stack socket talking IPv4: the same connection as its IPv4 form.
        in_addr v4{};
        std::memcpy(&v4, reinterpret_cast<unsigned char*>(&raw) + 12, 4);
        if (!inet_ntop(AF_INET, &v4, text, sizeof text)) return std::nullopt;
        return Endpoint{text, port, false};
    }
    if (!inet_ntop(AF_INET6, &raw, text, sizeof text)) return std::nullopt;
    return Endpoint{text, port, true};
}

std::optional<Socket> parseLine(std::string_view line, bool isIPv6) {
    // "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode"
    std::string_view rest = line;
    std::string_view slot = nextField(rest);
    if (slot.size() < 2 || slot.back() != ':') return std::nullopt;
    std::uint64_t slotNumber = 0;
    if (!parseNumber(slot.substr(0, slot.size() - 1), slotNumber)) return std::nullopt;

    Socket socket;
    auto local = parseEndpoint(nextField(rest), isIPv6);
    auto remote = parseEndpoint(nextField(rest), isIPv6);
    if (!local || !remote) return std::nullopt;
    socket.local = *local;
    socket.remote = *remote;
    if (!parseNumber(nextField(rest), socket.state, 16)) return std::nullopt;
    // tx_queue:rx_queue, tr:tm->when, retrnsmt
    for (int i = 0; i < 3; ++i) {
        if (nextField(rest).empty()) return std::nullopt;
    }
    if (!parseNumber(nextField(rest), socket.uid)) return std::nullopt;
    if (nextField(rest).empty()) return std::nullopt;  // timeout
    if (!parseNumber(nextField(rest), socket.inode)) return std::nullopt;
    return socket;
}

std::optional<SocketTable::Entry> classify(const Socket& socket, bool isUDP, const std::set<FlowState>& wanted) {
    SocketTable::Entry entry{socket.local, socket.remote, FlowState::established};
    const bool remoteEmpty =
        socket.remote.address.empty() || socket.remote.address == "0.0.0.0" || socket.remote.address == "::";
    if (isUDP) {
        // An unconnected datagram socket says nothing about where it talks.
        if (remoteEmpty || socket.remote.port == 0) return std::nullopt;
        entry.state = FlowState::datagram;
    } else if (socket.state == tcpEstablished) {
        entry.state = FlowState::established;
    } else if (socket.state == tcpListen) {
        entry.state = FlowState::listening;
        entry.remote = Endpoint{};
    } else {
        return std::nullopt;
    }
    if (!wanted.count(entry.state)) return std::nullopt;
    return entry;
}

std::optional<Stat> parseStat(std::string_view text) {
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
    Stat stat;
    stat.name = std::string(text.substr(open + 1, close - open - 1));
    std::string_view rest = text.substr(close + 1);
    // Fields after the name, counted from 3 as proc(5) does: state (3), ppid (4), ...,
    // starttime (22).
    std::string_view state = nextField(rest);
    if (state.size() != 1) return std::nullopt;
    stat.state = state[0];
    if (!parseNumber(nextField(rest), stat.parentPID)) return std::nullopt;
    for (int field = 5; field < 22; ++field) {
        if (nextField(rest).empty()) return std::nullopt;
    }
    if (!parseNumber(nextField(rest), stat.startTicks)) return std::nullopt;
    return stat;
}

std::optional<std::int64_t> parseBootTime(std::string_view procStat) {
    std::size_t at = 0;
    while (at < procStat.size()) {
        std::size_t end = procStat.find('\n', at);
        if (end == std::string_view::npos) end = procStat.size();
        std::string_view line = procStat.substr(at, end - at);
        if (line.starts_with("btime ")) {
            std::string_view rest = line.substr(6);
            std::int64_t value = 0;
            if (parseNumber(nextField(rest), value)) return value;
            return std::nullopt;
        }
        at = end + 1;
    }
    return std::nullopt;
}

double startedAt(std::int64_t bootTime, std::uint64_t startTicks, long ticksPerSecond) {
    if (ticksPerSecond <= 0) ticksPerSecond = 100;
    const auto whole = static_cast<std::int64_t>(startTicks / static_cast<std::uint64_t>(ticksPerSecond));
    const auto part = startTicks % static_cast<std::uint64_t>(ticksPerSecond);
    return static_cast<double>(bootTime + whole) + static_cast<double>(part) / static_cast<double>(ticksPerSecond);
}

std::optional<std::string> argumentZero(std::string_view cmdline) {
    std::size_t end = cmdline.find('\0');
    if (end == std::string_view::npos) end = cmdline.size();
    std::string_view first = cmdline.substr(0, end);
    if (first.empty()) return std::nullopt;
    return ProcessIdentity::lastComponent(first);
}

} // namespace ProcNet

} // namespace tavrick

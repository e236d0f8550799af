#include "Platform/Linux/ProcSocketTable.h"

#include "CoreKit/FileIO.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <set>

namespace tavrick {

namespace {

std::optional<std::string> readText(const std::filesystem::path& path) {
    int error = 0;
    return FileIO::readAll(path, error);
}

bool isNumber(const char* name, std::int32_t& value) {
    const char* end = name + std::strlen(name);
    if (name == end) return false;
    auto [at, error] = std::from_chars(name, end, value);
    return error == std::errc() && at == end && value > 0;
}

void readTextTable(const std::filesystem::path& path, bool isIPv6, bool isUDP, const std::set<FlowState>& wanted,
                   ProcSocketTable::SocketsByInode& out) {
    auto text = readText(path);
    if (!text) return;
    std::string_view rest(*text);
    while (!rest.empty()) {
        std::size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
        // The header and anything garbled read as nothing.
        auto socket = ProcNet::parseLine(line, isIPv6);
        if (!socket || socket->inode == 0) continue;
        if (auto entry = ProcNet::classify(*socket, isUDP, wanted)) out[socket->inode].push_back(*entry);
    }
}

Endpoint endpointFrom(const __be32* address, __be16 port, int family) {
    char text[INET6_ADDRSTRLEN] = {};
    if (family == AF_INET6) {
        in6_addr raw{};
        std::memcpy(&raw, address, sizeof raw);
        if (IN6_IS_ADDR_V4MAPPED(&raw)) {
            in_addr v4{};
            std::memcpy(&v4, reinterpret_cast<const unsigned char*>(&raw) + 12, 4);
            inet_ntop(AF_INET, &v4, text, sizeof text);
            return Endpoint{text, ntohs(port), false};
        }
        inet_ntop(AF_INET6, &raw, text, sizeof text);
        return Endpoint{text, ntohs(port), true};
    }
    in_addr v4{};
    std::memcpy(&v4, address, sizeof v4);
    inet_ntop(AF_INET, &v4, text, sizeof text);
    return Endpoint{text, ntohs(port), false};
}

// One sock_diag dump of a family and protocol. False when the kernel would not answer.
bool readDiag(int family, int protocol, std::uint32_t states, const std::set<FlowState>& wanted,
              ProcSocketTable::SocketsByInode& out) {
    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) return false;
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message.request.sdiag_family = static_cast<std::uint8_t>(family);
    message.request.sdiag_protocol = static_cast<std::uint8_t>(protocol);
    message.request.idiag_states = states;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
        close(fd);
        return false;
    }
    const bool isUDP = protocol == IPPROTO_UDP;
    alignas(nlmsghdr) static thread_local char buffer[65536];
    bool done = false, ok = true;
    while (!done) {
        ssize_t length = recv(fd, buffer, sizeof buffer, 0);
        if (length <= 0) {
            ok = false;
            break;
        }
        auto* header = reinterpret_cast<nlmsghdr*>(buffer);
        for (; NLMSG_OK(header, static_cast<unsigned>(length)); header = NLMSG_NEXT(header, length)) {
            if (header->nlmsg_type == NLMSG_DONE) {
                done = true;
                break;
            }
            if (header->nlmsg_type == NLMSG_ERROR) {
                done = true;
                ok = false;
                break;
            }
            auto* diag = static_cast<inet_diag_msg*>(NLMSG_DATA(header));
            if (diag->idiag_inode == 0) continue;
            ProcNet::Socket socket;
            socket.local = endpointFrom(diag->id.idiag_src, diag->id.idiag_sport, diag->idiag_family);
            socket.remote = endpointFrom(diag->id.idiag_dst, diag->id.idiag_dport, diag->idiag_family);
            socket.state = diag->idiag_state;
            socket.uid = diag->idiag_uid;
            socket.inode = diag->idiag_inode;
            if (auto entry = ProcNet::classify(socket, isUDP, wanted)) out[socket.inode].push_back(*entry);
        }
    }
    close(fd);
    return ok;
}

} // namespace

ProcSocketTable::ProcSocketTable() : ProcSocketTable(Options{}) {}

ProcSocketTable::ProcSocketTable(Options options) : options_(std::move(options)), ticksPerSecond_(sysconf(_SC_CLK_TCK)) {
    if (options_.uid == static_cast<uid_t>(-1)) options_.uid = getuid();
}

ProcSocketTable::SocketsByInode ProcSocketTable::readSockets(const std::set<FlowState>& wanted, Tables tables) const {
    SocketsByInode byInode;
    if (tables == Tables::sockDiag && options_.procRoot == "/proc") {
        // TCP asks the kernel only for the two states that count; UDP for every socket, since
        // a connected datagram socket is told apart by its peer.
        std::uint32_t tcpStates = 0;
        if (wanted.count(FlowState::established)) tcpStates |= 1u << ProcNet::tcpEstablished;
        if (wanted.count(FlowState::listening)) tcpStates |= 1u << ProcNet::tcpListen;
        bool ok = true;
        for (int family : {AF_INET, AF_INET6}) {
            if (tcpStates) ok = ok && readDiag(family, IPPROTO_TCP, tcpStates, wanted, byInode);
            if (wanted.count(FlowState::datagram)) ok = ok && readDiag(family, IPPROTO_UDP, ~0u, wanted, byInode);
        }
        if (ok) return byInode;
        // A kernel without sock_diag still has the text tables.
        byInode.clear();
    }
    const auto net = options_.procRoot / "net";
    readTextTable(net / "tcp", false, false, wanted, byInode);
    readTextTable(net / "tcp6", true, false, wanted, byInode);
    readTextTable(net / "udp", false, true, wanted, byInode);
    readTextTable(net / "udp6", true, true, wanted, byInode);
    return byInode;
}

std::vector<std::int32_t> ProcSocketTable::listPIDs() const {
    std::vector<std::int32_t> pids;
    DIR* dir = opendir(options_.procRoot.c_str());
    if (!dir) return pids;
    while (dirent* entry = readdir(dir)) {
        std::int32_t pid = 0;
        if (isNumber(entry->d_name, pid)) pids.push_back(pid);
        if (pids.size() >= SocketTable::processCap) break;
    }
    closedir(dir);
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::optional<uid_t> ProcSocketTable::owner(std::int32_t pid) const {
    struct stat info {};
    if (stat((options_.procRoot / std::to_string(pid)).c_str(), &info) != 0) return std::nullopt;
    return info.st_uid;
}

std::vector<SocketTable::Entry> ProcSocketTable::matched(std::int32_t pid, const SocketsByInode& byInode) const {
    std::set<SocketTable::Entry> found;
    const auto fdPath = options_.procRoot / std::to_string(pid) / "fd";
    int dirFD = open(fdPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFD < 0) return {};
    DIR* dir = fdopendir(dirFD);
    if (!dir) {
        close(dirFD);
        return {};
    }
    char target[64];
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        ssize_t length = readlinkat(dirFD, entry->d_name, target, sizeof target - 1);
        if (length <= 8) continue;
        std::string_view link(target, static_cast<std::size_t>(length));
        if (!link.starts_with("socket:[") || link.back() != ']') continue;
        std::uint64_t inode = 0;
        auto digits = link.substr(8, link.size() - 9);
        auto [at, error] = std::from_chars(digits.data(), digits.data() + digits.size(), inode);
        if (error != std::errc() || at != digits.data() + digits.size()) continue;
        auto it = byInode.find(inode);
        if (it == byInode.end()) continue;
        found.insert(it->second.begin(), it->second.end());
    }
    closedir(dir);
    return {found.begin(), found.end()};
}

double ProcSocketTable::bootTime() const {
    if (!bootTime_) {
        auto text = readText(options_.procRoot / "stat");
        bootTime_ = text ? ProcNet::parseBootTime(*text).value_or(0) : 0;
    }
    return static_cast<double>(*bootTime_);
}

std::optional<SocketTable::Process> ProcSocketTable::describe(std::int32_t pid) const {
    const auto dir = options_.procRoot / std::to_string(pid);
    auto statText = readText(dir / "stat");
    if (!statText) return std::nullopt;
    auto stat = ProcNet::parseStat(*statText);
    if (!stat) return std::nullopt;
    SocketTable::Process process;
    process.pid = pid;
    process.name = stat->name;
    process.parentPID = stat->parentPID;
    process.startedAt = ProcNet::startedAt(static_cast<std::int64_t>(bootTime()), stat->startTicks, ticksPerSecond_);
    std::error_code code;
    auto exe = std::filesystem::read_symlink(dir / "exe", code);
    if (!code) {
        process.executablePath = exe.string();
        // A replaced binary still runs from its old inode; the path is what a person knows.
        constexpr std::string_view deleted = " (deleted)";
        if (process.executablePath.ends_with(deleted)) {
            process.executablePath.resize(process.executablePath.size() - deleted.size());
        }
    }
    std::optional<std::string> preferred;
    if (auto cmdline = readText(dir / "cmdline")) preferred = ProcNet::argumentZero(*cmdline);
    if (!preferred) preferred = ProcessIdentity::lastComponent(process.executablePath);
    process.preferredName = preferred.value_or(process.name);
    return process;
}

std::vector<SocketTable::Scanned> ProcSocketTable::scan(std::optional<std::int32_t> excluding,
                                                        const std::set<FlowState>& wanted) {
    std::vector<SocketTable::Scanned> result;
    const auto pids = listPIDs();
    if (pids.empty()) return result;
    const auto byInode = readSockets(wanted, options_.tables);
    for (std::int32_t pid : pids) {
        if (excluding && pid == *excluding) continue;
        auto uid = owner(pid);
        if (!uid || *uid != options_.uid) continue;
        auto sockets = matched(pid, byInode);
        if (sockets.empty()) continue;
        // Names are read only for processes with sockets, which keeps a scan cheap. A process
        // that ended since its descriptors were read is left out.
        auto process = describe(pid);
        if (!process) continue;
        result.push_back({std::move(*process), std::move(sockets)});
    }
    return result;
}

std::vector<SocketTable::Entry> ProcSocketTable::sockets(std::int32_t pid, const std::set<FlowState>& wanted) {
    return matched(pid, readSockets(wanted, options_.tables));
}

SocketTable::Visibility ProcSocketTable::visibility() {
    SocketTable::Visibility counts;
    for (std::int32_t pid : listPIDs()) {
        auto uid = owner(pid);
        if (!uid) {
            counts.unreadable += 1;
        } else if (*uid == options_.uid) {
            counts.mine += 1;
        } else {
            counts.others += 1;
        }
    }
    return counts;
}

} // namespace tavrick

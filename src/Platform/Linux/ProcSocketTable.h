#pragma once

#include "NetCore/SocketTable.h"

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <unordered_map>
#include <vector>

namespace tavrick {

// The socket table of a Linux machine: this user's processes from /proc, their descriptors
// matched by inode to the kernel's TCP and UDP sockets. The sockets come either from the text
// tables /proc/net/{tcp,tcp6,udp,udp6} or from the sock_diag netlink interface; both give the
// same entries.
class ProcSocketTable final : public SocketTableReader {
public:
    enum class Tables { procText, sockDiag };

    struct Options {
        std::filesystem::path procRoot = "/proc";
        Tables tables = Tables::sockDiag;
        // The user whose processes are listed.
        uid_t uid = static_cast<uid_t>(-1);  // -1: the real user id of this process
    };

    ProcSocketTable();
    explicit ProcSocketTable(Options options);

    std::vector<SocketTable::Scanned> scan(std::optional<std::int32_t> excluding,
                                           const std::set<FlowState>& wanted) override;
    std::vector<SocketTable::Entry> sockets(std::int32_t pid, const std::set<FlowState>& wanted) override;
    SocketTable::Visibility visibility() override;

    using SocketsByInode = std::unordered_map<std::uint64_t, std::vector<SocketTable::Entry>>;
    // Every socket in a wanted state, by inode. Public for the benchmark that compares the two.
    SocketsByInode readSockets(const std::set<FlowState>& wanted, Tables tables) const;

private:
    std::vector<std::int32_t> listPIDs() const;
    std::optional<uid_t> owner(std::int32_t pid) const;
    std::vector<SocketTable::Entry> matched(std::int32_t pid, const SocketsByInode& byInode) const;
    std::optional<SocketTable::Process> describe(std::int32_t pid) const;
    double bootTime() const;

    Options options_;
    long ticksPerSecond_;
    mutable std::optional<std::int64_t> bootTime_;
};

} // namespace tavrick

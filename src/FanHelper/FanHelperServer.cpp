#include "FanHelper/FanHelperServer.h"

#include "FanHelper/FanWatchdog.h"

#include "Platform/Linux/FanHelperSocket.h"
#include "SigningCore/CodeIdentity.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace tavrick {

namespace {
double monotonic() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
double wall() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}
// Time that passes while the machine sleeps counts on the boot clock and not on the monotonic one.
double bootTime() {
    timespec ts{};
    ::clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}
void logLine(const std::string& line) { std::fprintf(stderr, "fanhelper: %s\n", line.c_str()); }

struct Client {
    int fd;
    FanHelperSocket::FrameReader reader{FanWire::maximumFrame};
    TokenBucket bucket;
    double connectedAt;
    bool hasCalled = false;
};
} // namespace

FanHelperServer::FanHelperServer(FanHelperCore& core, Options options) : core_(core), options_(std::move(options)) {}

int FanHelperServer::run(const std::atomic<bool>& stopRequested) {
    std::string error;
    auto listener = FanHelperSocket::listen(options_.socketPath, &error);
    if (!listener) {
        logLine(error);
        return 1;
    }
    const auto ownTeam = CodeIdentity::ownTeamID();
    // Without a requirement there is no connection at all.
    const auto requirement = FanHelperIdentity::clientRequirement(ownTeam, "");
    if (!requirement || !CodeIdentity::isValidRequirement(*requirement)) logLine("no client requirement can be built; every client will be refused");
    logLine("listening at " + options_.socketPath.string());

    std::map<FanHelperCore::ClientID, Client> clients;
    FanHelperCore::ClientID nextID = 1;
    double nextTick = monotonic();

    auto drop = [&](FanHelperCore::ClientID id) {
        auto it = clients.find(id);
        if (it == clients.end()) return;
        ::close(it->second.fd);
        clients.erase(it);
        core_.clientLeft(id, monotonic(), wall());
    };
    auto sendReply = [&](Client& client, std::uint64_t callID, std::optional<std::string> data, std::optional<std::string> word) {
        return FanHelperSocket::writeAll(client.fd, FanWire::frame(FanWire::encodeReply({callID, std::move(data), std::move(word)})));
    };

    std::unique_ptr<FanWatchdog> watchdog;
    if (options_.emergency) {
        auto emergency = options_.emergency;
        watchdog = std::make_unique<FanWatchdog>(FanPolicy::watchdogStall, FanPolicy::watchdogDeadline, [emergency] {
            logLine("the control loop stalled; handing every fan back and ending");
            emergency();
        }, [] { ::_exit(70); });
    }

    int status = 0;
    double lastMonotonic = monotonic();
    double lastBoot = bootTime();
    while (!stopRequested && !core_.wantsExit()) {
        std::vector<pollfd> fds{{*listener, POLLIN, 0}};
        std::vector<FanHelperCore::ClientID> order;
        for (auto& [id, client] : clients) {
            fds.push_back({client.fd, POLLIN, 0});
            order.push_back(id);
        }
        const double wait = std::max(0.0, nextTick - monotonic());
        const int ready = ::poll(fds.data(), fds.size(), static_cast<int>(wait * 1000) + 1);
        if (ready < 0 && errno != EINTR) {
            logLine("poll failed; stopping");
            status = 1;
            break;
        }
        const double now = monotonic();
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            int fd = ::accept4(*listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                auto peer = FanHelperSocket::peer(fd);
                auto hash = peer ? CodeIdentity::cdHash(peer->executable) : std::nullopt;
                auto team = peer ? CodeIdentity::teamOfExecutable(peer->executable) : std::nullopt;
                const bool trusted = requirement && hash && options_.allowedClients.count(*hash) && team && team == ownTeam;
                if (!trusted) {
                    // Turned away without an answer: the client reads that as a refusal.
                    logLine("turned away a client that does not meet the requirement (pid " +
                            std::to_string(peer ? peer->pid : 0) + ")");
                    ::close(fd);
                } else if (static_cast<int>(clients.size()) >= FanPolicy::maxConnections) {
                    Client busy{fd, FanHelperSocket::FrameReader(FanWire::maximumFrame), TokenBucket(0, 0, now), now};
                    sendReply(busy, 0, std::nullopt, std::string(FanWire::busy));
                    ::close(fd);
                } else {
                    clients.emplace(nextID++, Client{fd, FanHelperSocket::FrameReader(FanWire::maximumFrame),
                                                     TokenBucket(FanPolicy::callsPerSecond, FanPolicy::callBurst, now), now});
                }
            }
        }
        for (std::size_t i = 1; i < fds.size(); ++i) {
            const auto id = order[i - 1];
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            auto& client = clients.at(id);
            char buffer[8192];
            const ssize_t n = ::recv(client.fd, buffer, sizeof buffer, 0);
            if (n <= 0) {
                drop(id);
                continue;
            }
            client.reader.append(buffer, static_cast<std::size_t>(n));
            bool keep = true;
            while (keep) {
                auto payload = client.reader.next();
                if (client.reader.isOversized()) {
                    sendReply(client, 0, std::nullopt, std::string(FanWire::tooLarge));
                    keep = false;
                    break;
                }
                if (!payload) break;
                client.hasCalled = true;
                bool unknown = false;
                std::uint64_t callID = 0;
                auto call = FanWire::decodeCall(*payload, &unknown, &callID);
                if (!call) {
                    keep = sendReply(client, callID, std::nullopt, std::string(unknown ? FanWire::unknownCall : FanWire::malformed));
                    continue;
                }
                if (!client.bucket.take(monotonic())) {
                    keep = sendReply(client, call->id, std::nullopt, std::string(FanWire::rateLimited));
                    continue;
                }
                keep = sendReply(client, call->id, core_.handle(id, *call, monotonic(), wall()), std::nullopt);
            }
            if (!keep) drop(id);
        }
        // A client that connected and never said anything.
        std::vector<FanHelperCore::ClientID> silent;
        for (auto& [id, client] : clients) {
            if (!client.hasCalled && now - client.connectedAt >= options_.silentClientTimeout) silent.push_back(id);
        }
        for (auto id : silent) drop(id);

        if (monotonic() >= nextTick) {
            const double boot = bootTime();
            const double mono = monotonic();
            if ((boot - lastBoot) - (mono - lastMonotonic) > 2.0) {
                logLine("the machine slept");
                core_.woke(mono, wall());
            }
            lastBoot = boot;
            lastMonotonic = mono;
            core_.tick(monotonic(), wall());
            if (watchdog) {
                watchdog->beat();
                const auto s = core_.status();
                watchdog->setArmed(s.controlling || s.safeHold);
            }
            nextTick += FanPolicy::tickInterval;
            if (nextTick < monotonic()) nextTick = monotonic() + FanPolicy::tickInterval;
            if (core_.isIdle(monotonic(), static_cast<int>(clients.size())) &&
                options_.idleExitAfter <= FanPolicy::idleExitAfter) {
                logLine("idle; exiting");
                break;
            }
        }
    }
    for (auto& [id, client] : clients) ::close(client.fd);
    clients.clear();
    core_.shutDown(monotonic(), wall());
    ::close(*listener);
    ::unlink(options_.socketPath.c_str());
    logLine("stopped; the fans are macOS's");
    return status;
}

} // namespace tavrick

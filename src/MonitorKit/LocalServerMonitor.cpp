#include "MonitorKit/LocalServerMonitor.h"

#include "NetCore/Flow.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <map>

namespace tavrick {

namespace {

std::string joinedPorts(const std::vector<std::uint16_t>& ports) {
    std::string text;
    for (auto port : ports) {
        if (!text.empty()) text += ", ";
        text += std::to_string(port);
    }
    return text;
}

StopOutcome outcome(StopOutcome::Kind kind, std::string message, std::optional<std::string> detail = std::nullopt) {
    return StopOutcome{kind, std::move(message), std::move(detail), 0};
}

} // namespace

std::string LocalServer::refusalReason() const {
    if (auto app = ProcessIdentity::owningApp(executablePath)) {
        if (*app == name) return name + " is an app, not something started in a terminal. Quitting " + *app + " stops it.";
        return name + " is part of " + *app + ". Quitting " + *app + " stops it too.";
    }
    if (parentPID == 1) return "macOS started this one and will start it again, so stopping it here does not keep it away.";
    return name + " did not respond to a request to quit.";
}

std::optional<std::string> LocalServer::refusalAdvice(bool afterForceStop) const {
    if (afterForceStop) return "It did not go even when ended outright. Stop it where it was started.";
    if (ProcessIdentity::owningApp(executablePath)) return std::nullopt;
    if (parentPID == 1) {
        return "Force Stop ends it now, but macOS starts it again within a second. Turning the service off where it was "
               "set up — brew services stop, or unloading the LaunchAgent — is what leaves the port free.";
    }
    return "Force Stop ends it immediately, without letting it finish what it was writing.";
}

std::vector<LocalServer> listening(const std::vector<SocketTable::Scanned>& scanned, std::optional<std::int32_t> excluding) {
    std::map<std::int32_t, LocalServer> byPID;
    std::map<std::int32_t, std::string> names;
    for (const auto& item : scanned) names[item.process.pid] = item.process.preferredName;
    for (const auto& item : scanned) {
        const auto& p = item.process;
        if (excluding && p.pid == *excluding) continue;
        for (const auto& socket : item.sockets) {
            if (socket.state != FlowState::listening) continue;
            auto [it, fresh] = byPID.try_emplace(p.pid);
            auto& server = it->second;
            if (fresh) {
                server.pid = p.pid;
                server.name = p.preferredName.empty() ? p.name : p.preferredName;
                server.executablePath = p.executablePath;
                server.startedAt = p.startedAt;
                server.parentPID = p.parentPID;
                if (auto parent = names.find(p.parentPID); parent != names.end()) server.parentName = parent->second;
            }
            server.ports.push_back(socket.local.port);
        }
    }
    std::vector<LocalServer> servers;
    for (auto& [pid, server] : byPID) {
        std::sort(server.ports.begin(), server.ports.end());
        server.ports.erase(std::unique(server.ports.begin(), server.ports.end()), server.ports.end());
        servers.push_back(std::move(server));
    }
    std::sort(servers.begin(), servers.end(), [](const LocalServer& a, const LocalServer& b) {
        return a.ports.front() != b.ports.front() ? a.ports.front() < b.ports.front() : a.pid < b.pid;
    });
    return servers;
}

std::shared_ptr<LocalServerMonitor> LocalServerMonitor::make(ProcessControl control, std::int32_t selfPID, DiagnosticLog* log) {
    return std::shared_ptr<LocalServerMonitor>(new LocalServerMonitor(std::move(control), selfPID, log));
}

LocalServerMonitor::LocalServerMonitor(ProcessControl control, std::int32_t selfPID, DiagnosticLog* log)
    : control_(std::move(control)), selfPID_(selfPID), log_(log) {}

bool LocalServerMonitor::isSystemPath(std::string_view path) {
    // The system's own daemons. /usr/bin is left out on purpose: on Linux it holds the
    // interpreters (python3, node, ruby) that a developer's own servers run under.
    static constexpr std::string_view prefixes[] = {"/System/", "/usr/libexec/", "/usr/sbin/", "/sbin/",
                                                    "/Library/Apple/", "/usr/lib/systemd/", "/lib/systemd/"};
    return std::any_of(std::begin(prefixes), std::end(prefixes), [&](auto prefix) { return path.starts_with(prefix); });
}

std::string LocalServerMonitor::kind(std::string_view name, const std::vector<std::uint16_t>& ports) {
    static constexpr std::pair<std::string_view, std::string_view> table[] = {
        {"node", "Node.js"},     {"deno", "Deno"},       {"bun", "Bun"},         {"python", "Python"},
        {"ruby", "Ruby"},        {"php", "PHP"},         {"java", "Java"},       {"dotnet", ".NET"},
        {"go", "Go"},            {"caddy", "Caddy"},     {"nginx", "nginx"},     {"httpd", "Apache"},
        {"postgres", "PostgreSQL"}, {"mysqld", "MySQL"}, {"mariadb", "MariaDB"}, {"redis", "Redis"},
        {"mongod", "MongoDB"},   {"memcached", "Memcached"}, {"docker", "Docker"}, {"com.docker", "Docker"},
        {"ollama", "Ollama"},
    };
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (auto [key, label] : table) {
        if (lower.find(key) != std::string::npos) return std::string(label);
    }
    // A renamed binary still gives itself away by its well-known port.
    static constexpr std::pair<std::uint16_t, std::string_view> byPort[] = {
        {5432, "PostgreSQL"}, {3306, "MySQL"}, {6379, "Redis"}, {27017, "MongoDB"}, {11211, "Memcached"}, {11434, "Ollama"},
    };
    for (auto [port, label] : byPort) {
        if (std::find(ports.begin(), ports.end(), port) != ports.end()) return std::string(label);
    }
    return "TCP";
}

void LocalServerMonitor::note(const std::string& message) {
    if (log_) log_->note("servers", message);
}

void LocalServerMonitor::refresh() {
    if (control_.listening) servers_.set(control_.listening());
}

std::optional<StopOutcome> LocalServerMonitor::refusal(const LocalServer& server, bool force) const {
    using K = StopOutcome::Kind;
    if (server.pid == selfPID_) {
        return outcome(K::notPermitted, "That row is Tavrick itself.", "Quit Tavrick from its menu bar if that is what you meant.");
    }
    if (isSystemPath(server.executablePath)) {
        return outcome(K::notPermitted, server.name + " is part of macOS.",
                       force ? "Ending one of the system's own services is never offered here."
                             : "Switch the feature off in System Settings instead — macOS starts it again otherwise.");
    }
    if (force && !(lastStop_ && lastStop_->describes(server) && lastStop_->outcome.kind == K::ignored)) {
        return outcome(K::notPermitted, server.name + " has not been asked to stop yet.",
                       "Stop is always tried first. Force Stop is offered only when that is ignored.");
    }
    return std::nullopt;
}

void LocalServerMonitor::stop(const LocalServer& server, Completion done) {
    if (auto refused = refusal(server, false)) {
        if (done) done(*refused);
        return;
    }
    send(server, SIGTERM, std::move(done));
}

void LocalServerMonitor::forceStop(const LocalServer& server, Completion done) {
    if (auto refused = refusal(server, true)) {
        if (done) done(*refused);
        return;
    }
    send(server, SIGKILL, std::move(done));
}

void LocalServerMonitor::send(const LocalServer& server, int signo, Completion done) {
    using K = StopOutcome::Kind;
    auto answer = [&](StopOutcome result) {
        if (done) done(result);
    };
    if (!control_.identity || !control_.signal || !control_.errnoValue || !control_.wait) {
        return answer(outcome(K::notPermitted, server.name + " could not be asked to stop (error " + std::to_string(ENOSYS) + ")",
                              "Stop it where it was started."));
    }
    if (stopping_.contains(server.pid)) {
        return answer(outcome(K::notPermitted, server.name + " is already being stopped.", "Waiting to see whether it goes."));
    }
    // The check that matters comes last, right before the signal: the kernel may have given
    // this number to another process since the row was read.
    auto identity = control_.identity(server.pid);
    if (!identity) {
        auto result = outcome(K::alreadyGone, server.name + " had already stopped.");
        lastStop_ = StopReport{server.pid, server.name, server.startedAt, result};
        refresh();
        return answer(result);
    }
    if (identity->startedAt != server.startedAt || identity->name != server.name) {
        auto result = outcome(K::refusedIdentityChanged,
                              "refused to signal pid " + std::to_string(server.pid) + ": it is no longer " + server.name +
                                  " any more, so nothing was signalled.",
                              "The list was out of date. It has been refreshed — look again.");
        note(result.message);
        refresh();
        return answer(result);
    }
    stopping_.insert(server.pid);
    const char* signalName = signo == SIGKILL ? "SIGKILL" : "SIGTERM";
    note("ending " + server.name + " (pid " + std::to_string(server.pid) + ") with " + signalName);
    if (control_.signal(server.pid, signo) != 0) {
        int error = control_.errnoValue();
        stopping_.erase(server.pid);
        StopOutcome result;
        if (error == ESRCH) {
            result = outcome(K::alreadyGone, server.name + " had already stopped.");
        } else if (error == EPERM) {
            result = outcome(K::notPermitted, "macOS would not let Tavrick stop " + server.name,
                             "It runs with privileges this app does not have. Stop it where it was started.");
        } else {
            result = outcome(K::notPermitted, server.name + " could not be asked to stop (error " + std::to_string(error) + ")",
                             "Stop it where it was started.");
        }
        note(result.message);
        lastStop_ = StopReport{server.pid, server.name, server.startedAt, result};
        refresh();
        return answer(result);
    }
    poll(server, signo == SIGKILL, pollAttempts, std::move(done));
}

void LocalServerMonitor::poll(const LocalServer& server, bool force, int attemptsLeft, Completion done) {
    std::weak_ptr<LocalServerMonitor> weak = weak_from_this();
    control_.wait(pollInterval, [weak, server, force, attemptsLeft, done = std::move(done)]() mutable {
        auto self = weak.lock();
        if (!self) return;
        auto identity = self->control_.identity(server.pid);
        bool gone = !identity || identity->startedAt != server.startedAt;
        if (gone) return self->verify(server, std::move(done));
        if (attemptsLeft > 1) return self->poll(server, force, attemptsLeft - 1, std::move(done));
        StopOutcome result{StopOutcome::Kind::ignored, server.name + " ignored the request: " + server.refusalReason(),
                           server.refusalAdvice(force), 0};
        self->finish(server, std::move(result), done);
    });
}

void LocalServerMonitor::verify(const LocalServer& server, Completion done) {
    std::weak_ptr<LocalServerMonitor> weak = weak_from_this();
    control_.wait(restartDelay, [weak, server, done = std::move(done)] {
        auto self = weak.lock();
        if (!self) return;
        auto now = self->control_.listening ? self->control_.listening() : std::vector<LocalServer>{};
        for (const auto& other : now) {
            if (other.pid == server.pid) continue;
            std::vector<std::uint16_t> shared;
            for (auto port : server.ports) {
                if (std::find(other.ports.begin(), other.ports.end(), port) != other.ports.end()) shared.push_back(port);
            }
            if (shared.empty()) continue;
            std::string message = server.name + " stopped, but " + (shared.size() == 1 ? "port " : "ports ") +
                                  joinedPorts(shared) + " listening again, now under pid " + std::to_string(other.pid);
            std::string reason = other.parentName && other.parentPID != 1
                                     ? *other.parentName + " started it again, so stopping it here does not keep it away."
                                     : "Something started it again, so stopping it here does not keep it away.";
            return self->finish(server, StopOutcome{StopOutcome::Kind::cameBack, message, reason, other.pid}, done);
        }
        self->finish(server, StopOutcome{StopOutcome::Kind::stopped, server.name + " stopped.", std::nullopt, 0}, done);
    });
}

void LocalServerMonitor::finish(const LocalServer& server, StopOutcome result, const Completion& done) {
    stopping_.erase(server.pid);
    note(result.message);
    lastStop_ = StopReport{server.pid, server.name, server.startedAt, result};
    refresh();
    if (done) done(result);
}

} // namespace tavrick

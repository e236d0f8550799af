#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "NetCore/SocketTable.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavrick {

struct LocalServer {
    std::int32_t pid = 0;
    std::string name;
    std::string executablePath;
    std::vector<std::uint16_t> ports;
    double startedAt = 0;
    std::int32_t parentPID = 0;
    std::optional<std::string> parentName;
    bool operator==(const LocalServer&) const = default;

    // Why it ignored a polite request.
    std::string refusalReason() const;
    std::optional<std::string> refusalAdvice(bool afterForceStop) const;
};

struct StopOutcome {
    enum class Kind { stopped, alreadyGone, refusedIdentityChanged, notPermitted, ignored, cameBack };
    Kind kind = Kind::stopped;
    std::string message;
    std::optional<std::string> detail;
    std::int32_t newPid = 0;  // cameBack
    bool operator==(const StopOutcome&) const = default;
};

struct StopReport {
    std::int32_t pid = 0;
    std::string name;
    double startedAt = 0;
    StopOutcome outcome;
    bool describes(const LocalServer& server) const {
        return pid == server.pid && name == server.name && startedAt == server.startedAt;
    }
};

// Everything the monitor does to processes, so that the logic runs against fakes.
struct ProcessControl {
    struct Identity {
        double startedAt = 0;
        std::string name;
    };
    std::function<int(std::int32_t pid, int signo)> signal;
    std::function<int()> errnoValue;
    std::function<std::optional<Identity>(std::int32_t pid)> identity;
    std::function<std::vector<LocalServer>()> listening;
    // Calls `then` on the main queue after `seconds`.
    std::function<void(double seconds, std::function<void()> then)> wait;
};

// Listening processes grouped from the socket table, without `excluding`.
std::vector<LocalServer> listening(const std::vector<SocketTable::Scanned>& scanned, std::optional<std::int32_t> excluding);

// The processes listening on a TCP port of this machine, and a careful way to stop one. Main
// queue only.
class LocalServerMonitor : public std::enable_shared_from_this<LocalServerMonitor> {
public:
    using Completion = std::function<void(const StopOutcome&)>;

    static std::shared_ptr<LocalServerMonitor> make(ProcessControl control, std::int32_t selfPID, DiagnosticLog* log);

    void refresh();
    void stop(const LocalServer& server, Completion done = nullptr);
    void forceStop(const LocalServer& server, Completion done = nullptr);

    const Observable<std::vector<LocalServer>>& servers() const { return servers_; }
    const std::optional<StopReport>& lastStop() const { return lastStop_; }
    const std::set<std::int32_t>& stopping() const { return stopping_; }

    int pollAttempts = 12;
    double pollInterval = 0.25;
    double restartDelay = 1.5;

    static bool isSystemPath(std::string_view path);
    static std::string kind(std::string_view name, const std::vector<std::uint16_t>& ports);

private:
    LocalServerMonitor(ProcessControl control, std::int32_t selfPID, DiagnosticLog* log);
    std::optional<StopOutcome> refusal(const LocalServer& server, bool force) const;
    void send(const LocalServer& server, int signo, Completion done);
    void poll(const LocalServer& server, bool force, int attemptsLeft, Completion done);
    void verify(const LocalServer& server, Completion done);
    void finish(const LocalServer& server, StopOutcome outcome, const Completion& done);
    void note(const std::string& message);

    ProcessControl control_;
    std::int32_t selfPID_;
    DiagnosticLog* log_;
    Observable<std::vector<LocalServer>> servers_;
    std::optional<StopReport> lastStop_;
    std::set<std::int32_t> stopping_;
};

} // namespace tavrick

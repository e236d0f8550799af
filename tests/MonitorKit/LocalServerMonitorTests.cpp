#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/ManualScheduler.h"
#include "MonitorKit/LocalServerMonitor.h"
#include "Platform/Linux/LinuxProcessControl.h"
#include "Platform/Linux/ProcSocketTable.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <unistd.h>

using namespace tavrick;
using namespace tavrick::testing;
using Kind = StopOutcome::Kind;

namespace {

TEST(LocalServers, KindFollowsTheTableInItsOrder) {
    const std::tuple<const char*, std::vector<std::uint16_t>, const char*> cases[] = {
        {"node", {}, "Node.js"}, {"Python3.11", {}, "Python"}, {"bun", {}, "Bun"},
        // "go" sits in the first half of the table, so it wins over "mongod" in the second.
        {"mongod", {}, "Go"}, {"postgres", {}, "PostgreSQL"}, {"com.docker.backend", {}, "Docker"},
        {"nginx", {}, "nginx"}, {"Ollama", {}, "Ollama"}, {"mystery", {5432}, "PostgreSQL"},
        {"mystery", {80, 11434}, "Ollama"}, {"mystery", {8080}, "TCP"}, {"", {}, "TCP"},
    };
    for (const auto& [name, ports, label] : cases) EXPECT_EQ(LocalServerMonitor::kind(name, ports), label) << name;
    EXPECT_TRUE(LocalServerMonitor::isSystemPath("/usr/sbin/sshd"));
    EXPECT_FALSE(LocalServerMonitor::isSystemPath("/usr/bin/python3"));
}

TEST(LocalServers, ListingGroupsPortsByProcessAndLeavesThisProgramOut) {
    auto socket = [](std::uint16_t port, FlowState state) {
        SocketTable::Entry e;
        e.local.port = port;
        e.state = state;
        return e;
    };
    std::vector<SocketTable::Scanned> scanned{
        {{7, "python3", "python3", "/usr/bin/python3.11", 100, 5}, {socket(9000, FlowState::listening), socket(8000, FlowState::listening), socket(8000, FlowState::listening), socket(5000, FlowState::established)}},
        {{5, "zsh", "-zsh", "/usr/bin/zsh", 50, 1}, {}},
        {{9, "tavrick", "tavrick", "/opt/tavrick", 10, 1}, {socket(7000, FlowState::listening)}},
        {{3, "ssh", "ssh", "/usr/bin/ssh", 1, 1}, {socket(22, FlowState::established)}},
    };
    auto servers = listening(scanned, 9);
    ASSERT_EQ(servers.size(), 1u);
    EXPECT_EQ(servers[0].ports, (std::vector<std::uint16_t>{8000, 9000}));
    EXPECT_EQ(servers[0].name, "python3");
    EXPECT_EQ(servers[0].parentName, "-zsh");
}

// A fake process table: pids with start times, which signals they obey, and who listens.
struct FakeProcesses {
    struct Proc {
        double started;
        std::string name;
        bool obeysTerm = true;
        bool obeysKill = true;
    };
    std::map<std::int32_t, Proc> table;
    std::vector<std::pair<std::int32_t, int>> signals;
    int failWith = 0;
    int lastErrno = 0;
    std::vector<LocalServer> listeners;
    std::function<void(std::int32_t)> onExit;
    ManualScheduler* scheduler = nullptr;

    ProcessControl control() {
        return ProcessControl{
            .signal = [this](std::int32_t pid, int signo) {
                signals.emplace_back(pid, signo);
                if (failWith) {
                    lastErrno = failWith;
                    return -1;
                }
                auto& p = table.at(pid);
                if ((signo == SIGTERM && p.obeysTerm) || (signo == SIGKILL && p.obeysKill)) {
                    table.erase(pid);
                    if (onExit) onExit(pid);
                }
                return 0;
            },
            .errnoValue = [this] { return lastErrno; },
            .identity = [this](std::int32_t pid) -> std::optional<ProcessControl::Identity> {
                auto it = table.find(pid);
                if (it == table.end()) return std::nullopt;
                return ProcessControl::Identity{it->second.started, it->second.name};
            },
            .listening = [this] { return listeners; },
            .wait = [this](double seconds, std::function<void()> then) { scheduler->after(seconds, std::move(then)); },
        };
    }
};

struct StopTest : ::testing::Test {
    TempDir root;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log = DiagnosticLog::make(root / "logs", scheduler);
    FakeProcesses processes;
    LocalServer server{42, "node", "/home/u/.nvm/node", {3000}, 500.0, 41, "npm"};
    std::shared_ptr<LocalServerMonitor> monitor;

    void SetUp() override {
        processes.scheduler = &scheduler;
        processes.table[42] = {500.0, "node"};
        monitor = LocalServerMonitor::make(processes.control(), 1, log.get());
    }
    std::optional<StopOutcome> run(bool force = false, const LocalServer* row = nullptr) {
        std::optional<StopOutcome> result;
        auto done = [&](const StopOutcome& o) { result = o; };
        force ? monitor->forceStop(row ? *row : server, done) : monitor->stop(row ? *row : server, done);
        scheduler.advance(30);
        return result;
    }
};

TEST_F(StopTest, RefusalsSendNoSignal) {
    struct Case { LocalServer row; bool force; std::string message; std::string detail; };
    auto self = server; self.pid = 1;
    auto system = server; system.executablePath = "/usr/sbin/cupsd"; system.name = "cupsd";
    const Case cases[] = {
        {self, false, "That row is Tavrick itself.", "Quit Tavrick from its menu bar if that is what you meant."},
        {system, false, "cupsd is part of macOS.", "Switch the feature off in System Settings instead — macOS starts it again otherwise."},
        {system, true, "cupsd is part of macOS.", "Ending one of the system's own services is never offered here."},
        {server, true, "node has not been asked to stop yet.", "Stop is always tried first. Force Stop is offered only when that is ignored."},
    };
    for (const auto& c : cases) {
        auto outcome = run(c.force, &c.row);
        ASSERT_TRUE(outcome);
        EXPECT_EQ(outcome->message, c.message);
        EXPECT_EQ(outcome->detail, c.detail);
    }
    EXPECT_TRUE(processes.signals.empty());
}

TEST_F(StopTest, AReusedPidIsNeverSignalledAndTheListRefreshes) {
    processes.table[42] = {777.0, "node"};  // same number, another process
    processes.listeners = {LocalServer{42, "node", "/x", {3000}, 777.0, 1, std::nullopt}};
    auto outcome = run();
    EXPECT_EQ(outcome->kind, Kind::refusedIdentityChanged);
    EXPECT_EQ(outcome->message, "refused to signal pid 42: it is no longer node any more, so nothing was signalled.");
    EXPECT_EQ(outcome->detail, "The list was out of date. It has been refreshed — look again.");
    EXPECT_TRUE(processes.signals.empty());
    EXPECT_EQ(monitor->servers().get().size(), 1u);
}

TEST_F(StopTest, StoppedOrCameBackUnderANewPid) {
    EXPECT_EQ(run()->message, "node stopped.");
    EXPECT_EQ(processes.signals, (std::vector<std::pair<std::int32_t, int>>{{42, SIGTERM}}));
    EXPECT_TRUE(monitor->stopping().empty());
    EXPECT_TRUE(monitor->lastStop()->describes(server));

    // Relaunched on the same port within the restart delay.
    processes.table[42] = {500.0, "node"};
    processes.onExit = [this](std::int32_t) {
        processes.listeners = {LocalServer{43, "node", "/x", {3000, 3001}, 600.0, 41, "npm"}};
    };
    auto outcome = run();
    EXPECT_EQ(outcome->kind, Kind::cameBack);
    EXPECT_EQ(outcome->newPid, 43);
    EXPECT_EQ(outcome->message, "node stopped, but port 3000 listening again, now under pid 43");
    EXPECT_EQ(outcome->detail, "npm started it again, so stopping it here does not keep it away.");
}

TEST_F(StopTest, IgnoredTermOpensForceStopForThatProcessOnly) {
    processes.table[42].obeysTerm = false;
    std::optional<StopOutcome> first, second;
    monitor->stop(server, [&](const StopOutcome& o) { first = o; });
    monitor->stop(server, [&](const StopOutcome& o) { second = o; });
    ASSERT_TRUE(second);
    EXPECT_EQ(second->message, "node is already being stopped.");
    EXPECT_EQ(second->detail, "Waiting to see whether it goes.");
    scheduler.advance(30);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->kind, Kind::ignored);
    EXPECT_EQ(first->message, "node ignored the request: node did not respond to a request to quit.");
    EXPECT_EQ(first->detail, "Force Stop ends it immediately, without letting it finish what it was writing.");

    // A new process under the same pid does not inherit the permission.
    auto reused = server;
    reused.startedAt = 900;
    EXPECT_EQ(run(true, &reused)->message, "node has not been asked to stop yet.");

    processes.table[42].obeysKill = false;
    auto forced = run(true);
    EXPECT_EQ(forced->kind, Kind::ignored);
    EXPECT_EQ(forced->detail, "It did not go even when ended outright. Stop it where it was started.");
    EXPECT_EQ(processes.signals.back(), (std::pair<std::int32_t, int>{42, SIGKILL}));
}

TEST_F(StopTest, SignalFailuresAndReasons) {
    const std::pair<int, std::string> failures[] = {
        {ESRCH, "node had already stopped."},
        {EPERM, "macOS would not let Tavrick stop node"},
        {EIO, "node could not be asked to stop (error 5)"},
    };
    for (const auto& [error, message] : failures) {
        processes.failWith = error;
        EXPECT_EQ(run()->message, message);
        EXPECT_TRUE(monitor->stopping().empty());
    }
    processes.table.erase(42);
    EXPECT_EQ(run()->kind, Kind::alreadyGone);

    LocalServer app{1, "Slack Helper", "/Applications/Slack.app/Contents/MacOS/Slack Helper", {}, 0, 1, {}};
    EXPECT_EQ(app.refusalReason(), "Slack Helper is part of Slack. Quitting Slack stops it too.");
    EXPECT_EQ(app.refusalAdvice(false), std::nullopt);
    LocalServer daemon{1, "redis", "/opt/redis", {}, 0, 1, {}};
    EXPECT_EQ(daemon.refusalReason(), "macOS started this one and will start it again, so stopping it here does not keep it away.");
}

// Real listening children: one that goes on TERM, one that ignores it and needs SIGKILL.
TEST(LocalServersLive, StopsRealListeningChildren) {
    DispatchScheduler scheduler;
    TempDir root;
    auto log = DiagnosticLog::make(root / "logs", scheduler);
    auto monitor = LocalServerMonitor::make(
        LinuxProcessControl::make(std::make_shared<ProcSocketTable>(), getpid(), scheduler), getpid(), log.get());
    auto script = [](bool ignoreTerm) {
        return std::string("import signal,socket,sys\n") + (ignoreTerm ? "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n" : "") +
               "s=socket.socket(); s.bind(('127.0.0.1',0)); s.listen(); print(s.getsockname()[1], flush=True)\n"
               "import time\nwhile True: time.sleep(1)\n";
    };
    ChildProcess polite({"/usr/bin/python3", "-c", script(false)}, {{"PATH", "/usr/bin:/bin"}});
    ChildProcess stubborn({"/usr/bin/python3", "-c", script(true)}, {{"PATH", "/usr/bin:/bin"}});
    ASSERT_TRUE(polite.waitForOutput("\n", 20));
    ASSERT_TRUE(stubborn.waitForOutput("\n", 20));
    auto port = [](const ChildProcess& child) { return static_cast<std::uint16_t>(std::stoi(child.output())); };

    monitor->refresh();
    auto find = [&](std::uint16_t p) -> std::optional<LocalServer> {
        for (const auto& s : monitor->servers().get()) {
            if (std::find(s.ports.begin(), s.ports.end(), p) != s.ports.end()) return s;
        }
        return std::nullopt;
    };
    auto politeRow = find(port(polite)), stubbornRow = find(port(stubborn));
    ASSERT_TRUE(politeRow && stubbornRow);
    EXPECT_EQ(politeRow->name, "python3");

    auto stop = [&](const LocalServer& row, bool force) {
        std::optional<StopOutcome> result;
        auto done = [&](const StopOutcome& o) { result = o; };
        force ? monitor->forceStop(row, done) : monitor->stop(row, done);
        for (int i = 0; i < 400 && !result; ++i) scheduler.runMainFor(0.05);
        return result;
    };
    EXPECT_EQ(stop(*politeRow, false)->message, "python3 stopped.");
    EXPECT_EQ(polite.wait(5), 128 + SIGTERM);
    EXPECT_EQ(stop(*stubbornRow, false)->kind, Kind::ignored);
    EXPECT_EQ(stop(*stubbornRow, true)->message, "python3 stopped.");
    EXPECT_EQ(stubborn.wait(5), 128 + SIGKILL);
    EXPECT_FALSE(find(port(polite)) || find(port(stubborn)));
}

} // namespace

// The network watcher's hot paths: a full socket-table scan against `ss -tanp` over the same
// processes and the same sockets (this program opens more than a thousand of them first), and
// the seen store's `record` and full-file load. The scan/ss ratio is printed at the end of the run.
#include "CoreKit/ManualScheduler.h"
#include "NetCore/SeenStore.h"
#include "NetKit/SeenFile.h"
#include "Platform/Linux/ProcSocketTable.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <vector>

extern char** environ;

using namespace tavrick;
namespace fs = std::filesystem;

namespace {

constexpr int connections = 600;  // each is two established sockets in this process

// A listener and `connections` loopback connections to it, both ends held open.
struct OpenSockets {
    std::vector<int> fds;
    OpenSockets() {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        int listener = socket(AF_INET, SOCK_STREAM, 0);
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener, 128);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        fds.push_back(listener);
        for (int i = 0; i < connections; ++i) {
            int client = socket(AF_INET, SOCK_STREAM, 0);
            if (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) break;
            fds.push_back(client);
            fds.push_back(accept(listener, nullptr, nullptr));
        }
    }
    ~OpenSockets() {
        for (int fd : fds) close(fd);
    }
};

OpenSockets& sockets() {
    static OpenSockets open;
    return open;
}

const std::set<FlowState> tcpStates{FlowState::established, FlowState::listening};

void scanWith(benchmark::State& state, ProcSocketTable::Tables tables) {
    sockets();
    ProcSocketTable table({.tables = tables});
    std::size_t found = 0;
    for (auto _ : state) {
        auto result = table.scan(std::nullopt, tcpStates);
        found = 0;
        for (auto& s : result) found += s.sockets.size();
        benchmark::DoNotOptimize(result);
    }
    state.counters["sockets"] = static_cast<double>(found);
}

void BM_ScanSockDiag(benchmark::State& state) {
    scanWith(state, ProcSocketTable::Tables::sockDiag);
}
BENCHMARK(BM_ScanSockDiag)->Unit(benchmark::kMillisecond);

void BM_ScanProcText(benchmark::State& state) {
    scanWith(state, ProcSocketTable::Tables::procText);
}
BENCHMARK(BM_ScanProcText)->Unit(benchmark::kMillisecond);

// The peer: the whole `ss -tanp` run, its output thrown away, as a user would run it.
void BM_SsTanp(benchmark::State& state) {
    sockets();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char arg0[] = "ss", arg1[] = "-tanp";
    char* argv[] = {arg0, arg1, nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawnp(&pid, "ss", &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("ss is not installed");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK(BM_SsTanp)->Unit(benchmark::kMillisecond);

std::string host(std::uint64_t n) {
    return "h" + std::to_string(n) + ".example";
}

// The worst case: the app already holds 4096 hosts and every call brings a new one, so each
// call searches the whole list and drops the oldest.
void BM_SeenStoreRecordNewHost(benchmark::State& state) {
    SeenStore store;
    const AppKey app{"/usr/bin/curl", "curl"};
    std::uint64_t n = 0;
    for (; n < SeenStore::hostsPerApp; ++n) store.record(host(n), app, 1);
    std::vector<std::string> fresh;
    for (int i = 0; i < 1 << 16; ++i) fresh.push_back(host(n + static_cast<std::uint64_t>(i)));
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(store.record(fresh[i++ & 0xFFFF], app, 2));
    }
}
BENCHMARK(BM_SeenStoreRecordNewHost)->Unit(benchmark::kNanosecond);

// A host already known, found at the far end of a full list.
void BM_SeenStoreRecordKnownHost(benchmark::State& state) {
    SeenStore store;
    const AppKey app{"/usr/bin/curl", "curl"};
    for (std::uint64_t n = 0; n < SeenStore::hostsPerApp; ++n) store.record(host(n), app, 1);
    const std::string last = host(SeenStore::hostsPerApp - 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(store.record(last, app, 2));
    }
}
BENCHMARK(BM_SeenStoreRecordKnownHost)->Unit(benchmark::kNanosecond);

// A full file: 128 apps of 4096 digests.
void BM_SeenFileLoadFull(benchmark::State& state) {
    char pattern[] = "/tmp/tavrick-bench-XXXXXX";
    const fs::path dir = mkdtemp(pattern);
    SeenStore store;
    for (int a = 0; a < 128; ++a) {
        const AppKey app{"/opt/app" + std::to_string(a) + "/bin/app", ""};
        for (std::uint64_t n = 0; n < SeenStore::hostsPerApp; ++n) store.record(host(n * 131 + static_cast<std::uint64_t>(a)), app, 1700000000 + a);
    }
    SeenFile file{dir / SeenFile::fileName, nullptr, [] { return 0.0; }};
    file.save(store);
    state.counters["bytes"] = static_cast<double>(fs::file_size(file.url));
    for (auto _ : state) {
        auto loaded = file.load();
        if (loaded.appCount() != 128) state.SkipWithError("the file did not load whole");
        benchmark::DoNotOptimize(loaded);
    }
    fs::remove_all(dir);
}
BENCHMARK(BM_SeenFileLoadFull)->Unit(benchmark::kMillisecond);

// Keeps each benchmark's time per iteration for the ratio at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) times[run.benchmark_name()] = run.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto ss = reporter.times.find("BM_SsTanp");
    std::printf("sockets opened by this run: %zu\n", sockets().fds.size());
    for (const char* name : {"BM_ScanSockDiag", "BM_ScanProcText"}) {
        auto scan = reporter.times.find(name);
        if (scan != reporter.times.end() && ss != reporter.times.end() && ss->second > 0) {
            std::printf("%s / ss -tanp = %.3f (below 1 is faster than ss)\n", name, scan->second / ss->second);
        }
    }
    benchmark::Shutdown();
    return 0;
}

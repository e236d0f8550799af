// The system monitor's hot paths: one refresh of memory and power (target: under 200 µs), and
// the ten biggest processes against `ps -eo pid,rss --sort=-rss` (target: within 1.5× of ps).
// The ratio is printed at the end of the run.
#include "Platform/Linux/LinuxSystemReadings.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fcntl.h>
#include <map>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

namespace {

using namespace tavrick;

void BM_RefreshMemoryAndPower(benchmark::State& state) {
    LinuxSystemReadings readings;
    for (auto _ : state) {
        benchmark::DoNotOptimize(readings.memory());
        benchmark::DoNotOptimize(readings.power());
    }
}
BENCHMARK(BM_RefreshMemoryAndPower)->Unit(benchmark::kMicrosecond);

void BM_TopTenHogs(benchmark::State& state) {
    LinuxSystemReadings readings;
    for (auto _ : state) benchmark::DoNotOptimize(readings.hogs(10));
}
BENCHMARK(BM_TopTenHogs)->Unit(benchmark::kMillisecond);

// The peer: the whole ps run, sorted by resident size, its output thrown away.
void BM_PsSortedByRss(benchmark::State& state) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char arg0[] = "ps", arg1[] = "-eo", arg2[] = "pid,rss", arg3[] = "--sort=-rss";
    char* argv[] = {arg0, arg1, arg2, arg3, nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawnp(&pid, "ps", &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("ps is not installed");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}
BENCHMARK(BM_PsSortedByRss)->Unit(benchmark::kMillisecond);

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
    auto ours = reporter.times.find("BM_TopTenHogs");
    auto ps = reporter.times.find("BM_PsSortedByRss");
    if (ours != reporter.times.end() && ps != reporter.times.end() && ps->second > 0) {
        std::printf("top 10 hogs / ps -eo pid,rss --sort=-rss = %.3f (target below 1.5)\n", ours->second / ps->second);
    }
    benchmark::Shutdown();
    return 0;
}

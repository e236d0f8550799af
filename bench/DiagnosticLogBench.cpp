// What a caller pays for DiagnosticLog::note: formatting the line and handing it to the log's
// queue. Two threads note at once, as two event taps would, while the queue's own thread writes
// in the background. Each call is timed on its own, so the per-call figures hold only the
// caller's side; the backlog is flushed after the timed loop.
//
// Run: DiagnosticLogBench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
// The files go to a fresh directory under $TMPDIR (or /tmp), removed at the end.

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/DispatchScheduler.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

using namespace tavrick;

namespace {

std::shared_ptr<DiagnosticLog> benchLog;

void noteFromTwoThreads(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    std::vector<std::uint32_t> nanos;
    nanos.reserve(4u << 20);
    for (auto _ : state) {
        const auto start = Clock::now();
        benchLog->note("hotkey", "⌃⌥← fired 'Left Half'");
        const auto end = Clock::now();
        nanos.push_back(static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count()));
    }

    // Outside the timed loop: both threads have stopped their timers by now.
    if (!nanos.empty()) {
        std::sort(nanos.begin(), nanos.end());
        auto at = [&](double fraction) {
            return static_cast<double>(nanos[static_cast<std::size_t>(fraction * static_cast<double>(nanos.size() - 1))]);
        };
        double sum = 0;
        for (auto n : nanos) sum += n;
        // Per thread, then averaged over the two threads.
        state.counters["call_p50_ns"] = benchmark::Counter(at(0.50), benchmark::Counter::kAvgThreads);
        state.counters["call_p99_ns"] = benchmark::Counter(at(0.99), benchmark::Counter::kAvgThreads);
        state.counters["call_mean_ns"] =
            benchmark::Counter(sum / static_cast<double>(nanos.size()), benchmark::Counter::kAvgThreads);
    }
    if (state.thread_index() == 0) benchLog->flush();
}

BENCHMARK(noteFromTwoThreads)->Threads(2)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/tavrick-bench-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::filesystem::path directory = pattern;

    {
        DispatchScheduler scheduler(SystemClock::shared(), 1);
        benchLog = DiagnosticLog::make(directory / "support", scheduler);
        benchmark::RunSpecifiedBenchmarks();
        benchLog->flush();
        std::fprintf(stderr, "log written: %llu bytes in the last two files\n",
                     static_cast<unsigned long long>(benchLog->sizeInBytes()));
        benchLog.reset();
    }

    std::error_code error;
    std::filesystem::remove_all(directory, error);
    benchmark::Shutdown();
    return 0;
}

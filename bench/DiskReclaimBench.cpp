// Sizing a generated tree of 200,000 small files against `du -sxB1` on the same tree, in one
// run: the time of each and whether the totals agree.
#include "DevToolsKit/DiskReclaim.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

const fs::path& tree() {
    static fs::path root = [] {
        char pattern[] = "/tmp/tavrick-reclaim-bench-XXXXXX";
        fs::path made = ::mkdtemp(pattern);
        std::string payload(700, 'x');
        // 400 folders of 500 files, some with a second name, so that hard links are counted once.
        for (int d = 0; d < 400; ++d) {
            fs::path folder = made / ("d" + std::to_string(d));
            fs::create_directories(folder);
            for (int f = 0; f < 500; ++f) {
                fs::path file = folder / ("f" + std::to_string(f));
                int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                [[maybe_unused]] auto written = ::write(fd, payload.data(), static_cast<std::size_t>(f % 7) * 100 + 1);
                ::close(fd);
            }
            fs::create_hard_link(folder / "f0", folder / "again");
        }
        return made;
    }();
    return root;
}

std::uint64_t duTotal() {
    std::string out;
    if (FILE* pipe = ::popen(("du -sxB1 '" + tree().string() + "'").c_str(), "r")) {
        char buffer[256] = {};
        if (std::fgets(buffer, sizeof buffer, pipe)) out = buffer;
        ::pclose(pipe);
    }
    return out.empty() ? 0 : std::stoull(out);
}

double ownSeconds = 0;
double duSeconds = 0;
std::uint64_t ownBytes = 0;
std::uint64_t duBytes = 0;

void BM_ReclaimSize(benchmark::State& state) {
    tree();
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        ownBytes = tavrick::DiskReclaim::size(tree()).value_or(0);
        ownSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    state.counters["bytes"] = static_cast<double>(ownBytes);
}

void BM_DuSize(benchmark::State& state) {
    tree();
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        duBytes = duTotal();
        duSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    state.counters["bytes"] = static_cast<double>(duBytes);
}

// Alternated, several rounds each, so a warm or cold cache favours neither.
BENCHMARK(BM_DuSize)->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReclaimSize)->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::printf("reclaim / du time = %.2f, totals %s (%llu and %llu bytes)\n", ownSeconds / duSeconds,
                ownBytes == duBytes ? "equal" : "DIFFER", static_cast<unsigned long long>(ownBytes),
                static_cast<unsigned long long>(duBytes));
    fs::remove_all(tree());
    return 0;
}

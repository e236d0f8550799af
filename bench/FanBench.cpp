// The fan helper's hot paths: one control decision for ten fans from their readings, and one
// request with its reply over the helper's socket, end to end against the real helper process.
#include "FanCore/FanPolicy.h"
#include "FanCore/FanProtocol.h"
#include "Platform/Linux/FanHelperLauncher.h"
#include "Platform/Linux/FanHelperSocket.h"
#include "Platform/Simulated/SimulatedSMC.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace tavrick;

namespace {

struct HeldFan {
    FanLimits limits;
    TakeoverDecay decay;
    TargetSmoother smoother;
    ReadBackCheck check;
};

} // namespace

// Everything the helper decides for ten fans in one tick: the read-back check, the decay, the
// boost target and the smoothing, from readings and a temperature.
static void BM_PolicyDecisionTenFans(benchmark::State& state) {
    std::vector<HeldFan> fans;
    std::vector<FanReading> readings;
    const FanRequest request{0.5, false};
    SafetyCurve curve;
    for (int i = 0; i < 10; ++i) {
        auto limits = *FanLimits::make(1200, 6000 + i * 100);
        auto target = FanPolicy::boostTarget(request, 60, curve, ThermalPressure::nominal, 0, limits);
        fans.push_back({limits, TakeoverDecay(2000, 2000, limits, 0), TargetSmoother(target, 0), ReadBackCheck(0, limits, target)});
        readings.push_back({i, target.rpm - 40, 1200, 6000 + i * 100.0, target.rpm, 1});
    }
    double now = 1;
    double die = 60;
    for (auto _ : state) {
        now += 1;
        die = die > 80 ? 55 : die + 0.37;
        curve.observe(die);
        int writes = 0;
        for (std::size_t i = 0; i < fans.size(); ++i) {
            auto& f = fans[i];
            auto reason = f.check.assess(readings[i], now);
            benchmark::DoNotOptimize(reason);
            f.decay.advance(die, f.limits.floor(request), now);
            auto wanted = FanPolicy::boostTarget(request, die, curve, ThermalPressure::nominal, f.decay.rpm, f.limits);
            if (auto next = f.smoother.next(wanted, now)) {
                f.check.wrote(next->rpm);
                readings[i].target = next->rpm;
                ++writes;
            }
        }
        benchmark::DoNotOptimize(writes);
    }
}
BENCHMARK(BM_PolicyDecisionTenFans);

// One status request and its reply, framed as the application sends it, against the helper
// process itself over its Unix socket.
static void BM_SocketRoundTrip(benchmark::State& state) {
    char pattern[] = "/tmp/tavrick-fanbench-XXXXXX";
    const std::filesystem::path dir = ::mkdtemp(pattern);
    auto paths = FanHelperPaths::standard(dir / "data", dir / "config");
    paths.helperExecutable = TAVRICK_FANHELPER;
    FanHelperLauncher launcher(paths);
    launcher.allowUnregisteredStart(true);
    {
        SimulatedSMC chip(paths.smc);
        chip.reset(2, 1200, 6000, 8);
    }
    std::string error;
    if (!launcher.launch(&error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    std::optional<int> fd;
    for (int i = 0; i < 500 && !fd; ++i) {
        fd = FanHelperSocket::connect(paths.socket, nullptr);
        if (!fd) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!fd) {
        state.SkipWithError("the helper did not start");
        return;
    }
    FanHelperSocket::FrameReader reader(1 << 20);
    std::uint64_t id = 0;
    char buffer[65536];
    for (auto _ : state) {
        FanHelperSocket::writeAll(*fd, FanWire::frame(FanWire::encodeCall({++id, FanHelperCall::status, 0, false})));
        std::optional<std::string> payload;
        while (!(payload = reader.next())) {
            const ssize_t n = ::recv(*fd, buffer, sizeof buffer, 0);
            if (n <= 0) {
                state.SkipWithError("the helper closed the connection");
                break;
            }
            reader.append(buffer, static_cast<std::size_t>(n));
        }
        if (!payload) break;
        auto reply = FanWire::decodeReply(*payload);
        if (!reply || reply->error) {
            state.SkipWithError("the helper did not answer the call");
            break;
        }
        benchmark::DoNotOptimize(reply);
    }
    ::close(*fd);
    if (auto pid = launcher.runningPid()) ::kill(*pid, SIGTERM);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::filesystem::remove_all(dir);
}
// The helper rate-limits a client (20 at once, then 5 a second), so the run is kept to a burst.
BENCHMARK(BM_SocketRoundTrip)->Iterations(20)->Repetitions(5)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

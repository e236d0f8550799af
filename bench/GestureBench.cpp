// The trackpad and mouse hot paths. A trackpad sends about 120 frames a second while a hand is
// down, and each goes through the recogniser and the engine's session bookkeeping on the
// driver's thread; a right-button drag sends a sample per mouse movement through the mouse tap.
// Frames and samples are fed directly, the way the source's thread and the tap call them.
// Heap allocations per call are counted by replacing the global operator new.
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "GestureEngine/GestureEngine.h"
#include "MouseGestureKit/MouseGestureEngine.h"
#include "Platform/Simulated/SimulatedSession.h"
#include "Platform/Simulated/SimulatedTrackpad.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <new>

namespace {
std::atomic<std::uint64_t> allocations{0};
} // namespace

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

using namespace tavrick;

namespace {

// Five fingers in an arc, as a hand rests on a pad, nudged by `wiggle` so that nothing is
// ever recognised: the engine keeps tracking and keeps checking every test on every frame.
TouchFrame fiveFingers(double time, double wiggle) {
    TouchFrame frame;
    frame.timestamp = time;
    const double xs[] = {0.30, 0.40, 0.50, 0.60, 0.72};
    const double ys[] = {0.50, 0.58, 0.60, 0.57, 0.42};
    for (int i = 0; i < 5; ++i) frame.touches.push_back(Touch{i + 10, xs[i] + wiggle, ys[i] - wiggle, 0.4, true});
    return frame;
}

std::vector<Mapping> bindings() {
    std::vector<Mapping> out;
    for (int fingers : {3, 4, 5}) {
        for (auto direction : {GestureDirection::up, GestureDirection::down, GestureDirection::left, GestureDirection::right}) {
            Mapping mapping;
            mapping.id = UUID::random();
            mapping.trigger = Trigger::gesture(GestureSpec{fingers, GestureKind::swipe, direction});
            mapping.action = ActionSpec::toggleAwake();
            out.push_back(mapping);
        }
    }
    return out;
}

void reportAllocations(benchmark::State& state, std::uint64_t before) {
    state.counters["allocs/call"] = benchmark::Counter(
        static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations()));
}

// One frame with five fingers down through the recogniser and the engine's session bookkeeping.
void BM_GestureEngine_TrackingFrame_FiveFingers(benchmark::State& state) {
    Log::setMinimumLevel(LogLevel::fault);
    ManualScheduler scheduler;
    auto directory = std::filesystem::temp_directory_path() / "tavrick-gesture-bench";
    auto log = DiagnosticLog::make(directory, scheduler);
    SimulatedSession session;
    GestureEngine engine(std::make_shared<SimulatedTrackpad>(), *log, session, scheduler);
    engine.update(bindings());
    double time = 0;
    engine.handle(fiveFingers(time, 0));
    engine.handle(fiveFingers(time += 0.06, 0));
    TouchFrame a = fiveFingers(0, 0.001), b = fiveFingers(0, -0.001);
    bool flip = false;
    const auto before = allocations.load();
    for (auto _ : state) {
        TouchFrame& frame = (flip = !flip) ? a : b;
        frame.timestamp = (time += 1.0 / 120.0);
        engine.handle(frame);
    }
    reportAllocations(state, before);
    const auto decline = engine.lastDecline();
    if (!decline || !std::holds_alternative<DeclineReason::TooShort>(decline->value)) {
        state.SkipWithError("the hand stopped being tracked, so later frames measured less");
    }
}
BENCHMARK(BM_GestureEngine_TrackingFrame_FiveFingers);

// The recogniser alone, for comparison.
void BM_GestureRecognizer_TrackingFrame_FiveFingers(benchmark::State& state) {
    GestureRecognizer recognizer;
    double time = 0;
    recognizer.process(fiveFingers(time, 0));
    recognizer.process(fiveFingers(time += 0.06, 0));
    TouchFrame a = fiveFingers(0, 0.001), b = fiveFingers(0, -0.001);
    bool flip = false;
    const auto before = allocations.load();
    for (auto _ : state) {
        TouchFrame& frame = (flip = !flip) ? a : b;
        frame.timestamp = (time += 1.0 / 120.0);
        benchmark::DoNotOptimize(recognizer.process(frame));
    }
    reportAllocations(state, before);
    if (!recognizer.tracking()) state.SkipWithError("the hand was not being tracked");
}
BENCHMARK(BM_GestureRecognizer_TrackingFrame_FiveFingers);

// One right-button drag sample through the mouse tap's handler while a press is held.
void BM_MouseGesture_DragSample(benchmark::State& state) {
    ManualScheduler scheduler;
    SimulatedSession session;
    MouseGestureEngine engine(session, scheduler);
    Event drag = Event::mouse(EventType::rightMouseDragged, {100, 100}, 1);
    const Event press = Event::mouse(EventType::rightMouseDown, {100, 100}, 1);
    engine.handle(EventType::rightMouseDown, press);
    std::size_t samples = 0;
    const auto before = allocations.load();
    for (auto _ : state) {
        drag.location.x += 0.5;
        benchmark::DoNotOptimize(engine.handle(EventType::rightMouseDragged, drag));
        // A drag is a few hundred samples; a new press starts the path over, keeping its room.
        if (++samples == 512) {
            samples = 0;
            drag.location.x = 100;
            engine.handle(EventType::rightMouseDown, press);
        }
    }
    reportAllocations(state, before);
}
BENCHMARK(BM_MouseGesture_DragSample);

// The stroke recogniser over a whole "up, then left" drag of 240 samples, per sample.
void BM_StrokeRecogniser_PerSample(benchmark::State& state) {
    std::vector<Point> path;
    for (int i = 0; i <= 120; ++i) path.push_back({300, 300 - i * 0.75});
    for (int i = 1; i <= 120; ++i) path.push_back({300 - i * 0.75, 210});
    StrokeRecogniser recogniser;
    for (auto _ : state) benchmark::DoNotOptimize(recogniser.strokes(path));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(path.size()));
    if (recogniser.strokes(path) != std::vector<GestureDirection>{GestureDirection::up, GestureDirection::left}) {
        state.SkipWithError("the drag did not read as up, then left");
    }
}
BENCHMARK(BM_StrokeRecogniser_PerSample);

} // namespace

BENCHMARK_MAIN();

// The hotkey tap's hot path: nearly every key the user types is a key-down that matches nothing,
// and it must go back to the session at once and without touching the heap. The handler is
// driven directly, the way the tap's thread calls it. Heap allocations are counted by replacing
// the global operator new; the count per call is reported next to the time.
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "HotkeyEngine/HotkeyEngine.h"
#include "Platform/Simulated/SimulatedSession.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <unordered_map>

namespace {
std::atomic<std::uint64_t> allocations{0};
} // namespace

// GCC sees the library's inlined deletes pair with these news and cannot tell they match.
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
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

using namespace tavrick;

namespace {

// Forty hotkeys of the kinds people bind: letters, digits and arrows under ⌃⌥, ⌘⌥ and ⌃⌥⌘.
std::vector<Mapping> mappings() {
    const std::uint16_t keys[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20,
                                  123, 124, 125, 126};
    const Modifiers sets[] = {Modifiers::control | Modifiers::option, Modifiers::command | Modifiers::option,
                              Modifiers::control | Modifiers::option | Modifiers::command};
    std::vector<Mapping> result;
    int n = 0;
    for (auto modifiers : sets) {
        for (auto key : keys) {
            if (result.size() == 40) break;
            Mapping mapping;
            mapping.id = UUID::random();
            mapping.name = "Mapping " + std::to_string(++n);
            mapping.trigger = Trigger::hotkey(HotkeySpec{key, modifiers});
            mapping.action = ActionSpec::window(WindowCommand::leftHalf);
            result.push_back(mapping);
        }
    }
    return result;
}

struct Fixture {
    std::filesystem::path directory;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log;
    SimulatedSession session;
    std::unique_ptr<HotkeyEngine> engine;

    Fixture() {
        // The engine's info lines would bury the results.
        Log::setMinimumLevel(LogLevel::error);
        char pattern[] = "/tmp/tavrick-bench-XXXXXX";
        directory = mkdtemp(pattern);
        log = DiagnosticLog::make(directory, scheduler);
        engine = std::make_unique<HotkeyEngine>(session, scheduler, *log);
        engine->update(mappings());
    }
    ~Fixture() {
        engine.reset();
        log.reset();
        std::error_code error;
        std::filesystem::remove_all(directory, error);
    }
};

void BM_UnmatchedKeyDown(benchmark::State& state) {
    const std::uint64_t setUp = allocations.load();
    Fixture fixture;
    // Building the table allocates; if nothing was counted, the counter is not in place and a
    // zero below would prove nothing.
    if (allocations.load() == setUp) state.SkipWithError("the allocation counter is not installed");
    // ⌘J: a key the table does not hold, with a modifier, as in an editor's shortcut.
    const Event event = Event::keyboard(38, true, 0x100000);
    const std::uint64_t before = allocations.load();
    for (auto _ : state) {
        auto result = fixture.engine->handle(EventType::keyDown, event);
        benchmark::DoNotOptimize(result);
    }
    const std::uint64_t after = allocations.load();
    state.counters["allocs/call"] =
        benchmark::Counter(static_cast<double>(after - before) / static_cast<double>(state.iterations()));
    if (fixture.engine->handle(EventType::keyDown, event) != event) state.SkipWithError("the key was not passed on");
}
BENCHMARK(BM_UnmatchedKeyDown)->Repetitions(10)->ReportAggregatesOnly(true);

// A plain key with no modifier, the most common event of all.
void BM_UnmatchedPlainKey(benchmark::State& state) {
    Fixture fixture;
    const Event event = Event::keyboard(14, true, 0);
    const std::uint64_t before = allocations.load();
    for (auto _ : state) {
        auto result = fixture.engine->handle(EventType::keyDown, event);
        benchmark::DoNotOptimize(result);
    }
    state.counters["allocs/call"] = benchmark::Counter(static_cast<double>(allocations.load() - before) /
                                                       static_cast<double>(state.iterations()));
}
BENCHMARK(BM_UnmatchedPlainKey)->Repetitions(10)->ReportAggregatesOnly(true);

// The floor to compare against: one missed lookup in a standard hash map of the same size,
// with no lock and no event around it.
void BM_BaselineHashMiss(benchmark::State& state) {
    std::unordered_map<std::uint64_t, int> table;
    for (int i = 0; i < 40; ++i) table.emplace(static_cast<std::uint64_t>(i) << 16 | static_cast<std::uint64_t>(i), i);
    std::uint64_t key = 1ull << 16 | 38;
    for (auto _ : state) {
        benchmark::DoNotOptimize(key);
        auto it = table.find(key);
        benchmark::DoNotOptimize(it);
    }
}
BENCHMARK(BM_BaselineHashMiss)->Repetitions(10)->ReportAggregatesOnly(true);

} // namespace

BENCHMARK_MAIN();

// The clipboard history at its largest: 500 copies of 128,000 characters each.
//
// - inserting one copy must stay under 1 ms;
// - a folded (case- and diacritic-insensitive) search over all of them under 20 ms;
// - a recorded copy must hold the main thread for under 1 ms, while the 64 MB file is encoded and
//   written on the clipboard's own queue.
#include "ClipboardKit/ClipboardHistory.h"
#include "ClipboardKit/ClipboardMonitor.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/Log.h"
#include "CoreKit/UnicodeText.h"
#include "Platform/Simulated/SimulatedPasteboard.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>

#include <unistd.h>

using namespace tavrick;
namespace fs = std::filesystem;

namespace {

constexpr int itemCount = 500;
constexpr std::size_t itemLength = 128000;

// Prose-like text with accents and line breaks, different from its first bytes on.
std::string sampleText(std::mt19937& random) {
    static const char* words[] = {"résumé", "naïve", "Straße", "the", "quick", "brown", "fox", "jumps",
                                  "über", "lazy", "dog", "café", "ΕΛΛΆΔΑ", "Ålesund", "data", "copy\n"};
    std::string text = std::to_string(random()) + " ";
    while (text.size() < itemLength) {
        text += words[random() % 16];
        text += ' ';
    }
    text.resize(itemLength);
    // Cut back to a whole character.
    while (!UnicodeText::isValidUTF8(text)) text.pop_back();
    return text;
}

ClipboardHistory& fullHistory() {
    static ClipboardHistory history = [] {
        std::mt19937 random(7);
        ClipboardHistory h(itemCount);
        for (int i = 0; i < itemCount; ++i) h.insert(ClipboardItem{UUID::random(), sampleText(random), 1.0 * i, "org.example.Editor", "Editor", i % 50 == 0});
        return h;
    }();
    return history;
}

void BM_ClipboardInsertIntoFullHistory(benchmark::State& state) {
    auto history = fullHistory();
    std::mt19937 random(11);
    std::vector<std::string> texts;
    for (int i = 0; i < 64; ++i) texts.push_back(sampleText(random));
    std::size_t next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ClipboardItem item{UUID::random(), texts[next++ % texts.size()], 0, std::nullopt, std::nullopt, false};
        state.ResumeTiming();
        history.insert(std::move(item));
    }
    state.counters["items"] = static_cast<double>(history.items().size());
}
BENCHMARK(BM_ClipboardInsertIntoFullHistory)->Unit(benchmark::kMicrosecond);

void BM_ClipboardFoldedSearchOverAll(benchmark::State& state) {
    auto& history = fullHistory();
    history.search("warm");  // every item folds once, on its first search
    const char* queries[] = {"NOT PRESENT ANYWHERE", "uber lazy", "ELLADA"};
    std::size_t found = 0;
    for (auto _ : state) {
        for (auto* query : queries) found += history.search(query).size();
    }
    state.counters["per search, ms"] =
        benchmark::Counter(3, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    benchmark::DoNotOptimize(found);
}
BENCHMARK(BM_ClipboardFoldedSearchOverAll)->Unit(benchmark::kMillisecond);

void BM_ClipboardFoldOneLargeCopy(benchmark::State& state) {
    std::mt19937 random(3);
    const auto text = sampleText(random);
    for (auto _ : state) benchmark::DoNotOptimize(UnicodeText::folded(text));
}
BENCHMARK(BM_ClipboardFoldOneLargeCopy)->Unit(benchmark::kMicrosecond);

// One recorded copy as the main thread sees it: read, decide, insert and hand the snapshot to
// the writer. The writer runs on its own thread meanwhile.
void BM_ClipboardRecordWhileSaving(benchmark::State& state) {
    Log::setMinimumLevel(LogLevel::error);
    auto& scheduler = DispatchScheduler::shared();
    const fs::path folder = fs::temp_directory_path() / ("tavrick-clipboard-bench-" + std::to_string(::getpid()));
    fs::create_directories(folder);
    auto log = DiagnosticLog::make(folder / "logs", scheduler);
    SimulatedPasteboard pasteboard;
    ClipboardPolicy policy;
    policy.maximumItems = itemCount;
    ClipboardMonitor monitor(policy, false, folder, pasteboard, scheduler, *log);
    for (const auto& item : fullHistory().items()) {
        pasteboard.copy({{Pasteboard::plainTextType, item.text.str()}});
        monitor.capture();
    }
    monitor.waitForSaves();

    std::mt19937 random(5);
    std::vector<std::string> texts;
    for (int i = 0; i < 32; ++i) texts.push_back(sampleText(random));
    double worst = 0;
    std::size_t next = 0;
    for (auto _ : state) {
        state.PauseTiming();
        pasteboard.copy({{Pasteboard::plainTextType, texts[next++ % texts.size()]}});
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        monitor.capture();
        worst = std::max(worst, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    state.counters["worst ms"] = worst;

    // What the main thread pays for one save request alone: a change to the list and the hand-over.
    double worstSave = 0;
    for (int i = 0; i < 50; ++i) {
        const auto& items = monitor.history().get().items();
        const auto& item = items[static_cast<std::size_t>(i * 7) % items.size()];
        const auto begin = std::chrono::steady_clock::now();
        monitor.setPinned(!item.isPinned, item);
        worstSave = std::max(worstSave, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    }
    state.counters["save request worst ms"] = worstSave;

    const auto start = std::chrono::steady_clock::now();
    monitor.waitForSaves();
    state.counters["writer's last save ms"] =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    state.counters["file MB"] = static_cast<double>(fs::file_size(monitor.storeURL())) / 1e6;
    fs::remove_all(folder);
}
BENCHMARK(BM_ClipboardRecordWhileSaving)->Unit(benchmark::kMicrosecond)->Iterations(200);

// The whole save off the main thread, for scale: encoding and writing 500 large copies.
void BM_ClipboardWriterFullSave(benchmark::State& state) {
    auto& scheduler = DispatchScheduler::shared();
    const fs::path folder = fs::temp_directory_path() / ("tavrick-clipboard-save-" + std::to_string(::getpid()));
    auto log = DiagnosticLog::make(folder / "logs", scheduler);
    SimulatedPasteboard pasteboard;
    ClipboardPolicy policy;
    policy.maximumItems = itemCount;
    ClipboardMonitor monitor(policy, false, folder, pasteboard, scheduler, *log);
    for (const auto& item : fullHistory().items()) {
        pasteboard.copy({{Pasteboard::plainTextType, item.text.str()}});
        monitor.capture();
    }
    monitor.waitForSaves();
    for (auto _ : state) {
        monitor.setPinned(true, monitor.history().get().items().back());
        monitor.waitForSaves();
        state.PauseTiming();
        monitor.setPinned(false, monitor.history().get().items().front());
        monitor.waitForSaves();
        state.ResumeTiming();
    }
    fs::remove_all(folder);
}
BENCHMARK(BM_ClipboardWriterFullSave)->Unit(benchmark::kMillisecond)->Iterations(5);

} // namespace

BENCHMARK_MAIN();

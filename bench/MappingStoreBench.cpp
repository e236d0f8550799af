// Loading and saving a large mappings file: both happen on the main thread (at start-up and after
// every edit), so each must stay well under 100 ms for 10,000 records.
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/MappingStore.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <memory>

using namespace tavrick;
namespace fs = std::filesystem;

namespace {

class EmptyBundle final : public Bundle {
public:
    std::optional<std::string> identifier() const override { return std::nullopt; }
    std::optional<std::string> infoString(const std::string&) const override { return std::nullopt; }
    std::optional<fs::path> resourcePath(const std::string&) const override { return std::nullopt; }
    fs::path bundlePath() const override { return {}; }
};

// Every kind of trigger and action, a scope on some, and a few records from a later build.
Mapping sampleMapping(int i) {
    static const ActionSpec actions[] = {
        ActionSpec::window(WindowCommand::leftHalf),
        ActionSpec::sendKeystroke({8, Modifiers::command}),
        ActionSpec::launchOrActivate("com.apple.Safari"),
        ActionSpec::openURL(URL{"https://example.com/a/b?c=d"}),
        ActionSpec::revealFile("~/Documents/Projects"),
        ActionSpec::toggleAwake(),
        ActionSpec::system(SystemCommand::missionControl),
        ActionSpec::pomodoro(PomodoroAction::startOrPause),
        ActionSpec::showClipboardHistory(),
        ActionSpec::fans(FanPreset::boost50),
    };
    Trigger trigger;
    switch (i % 3) {
    case 0:
        trigger = Trigger::hotkey({static_cast<std::uint16_t>(i % 128), Modifiers(i % 32)});
        break;
    case 1:
        trigger = Trigger::gesture({3 + i % 3, GestureKind::swipe, GestureDirection::left});
        break;
    default:
        trigger = Trigger::mouseGesture({{GestureDirection::up, GestureDirection::right}});
        break;
    }
    std::optional<GestureScope> scope;
    if (i % 7 == 0) scope = GestureScope::app("com.example.app" + std::to_string(i), "App " + std::to_string(i));
    return Mapping{UUID::random(), "Mapping number " + std::to_string(i), trigger, actions[i % 10], i % 5 != 0, scope};
}

struct Fixture {
    fs::path directory;
    fs::path file;
    ManualScheduler scheduler;
    std::shared_ptr<DiagnosticLog> log;
    EmptyBundle bundle;

    explicit Fixture(int records) {
        std::string pattern = (fs::temp_directory_path() / "tavrick-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data())) std::abort();
        directory = pattern;
        file = directory / "mappings.json";
        log = DiagnosticLog::make(directory / "logs", scheduler);
        auto list = nlohmann::json::array();
        for (int i = 0; i < records; ++i) {
            if (i % 1000 == 999) {
                list.push_back(nlohmann::json::parse(R"({"action":{"teleport":{"to":[1,2.5,"x"]}},"id":"X","name":""})"));
            } else {
                list.push_back(sampleMapping(i).toJSON());
            }
        }
        std::ofstream(file) << MappingFile::prettyText({{"mappings", list}, {"schemaVersion", 1}});
    }
    ~Fixture() {
        std::error_code error;
        fs::remove_all(directory, error);
    }
};

void quietLogs() {
    Log::setSink([](LogLevel, std::string_view, std::string_view) {});
}

void BM_MappingStoreLoad(benchmark::State& state) {
    quietLogs();
    Fixture fixture(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        MappingStore store(fixture.file, *fixture.log, fixture.scheduler.clock(), fixture.bundle);
        benchmark::DoNotOptimize(store.mappings().get().data());
        state.PauseTiming();
        fixture.scheduler.runUntilIdle();
        state.ResumeTiming();
    }
    state.counters["bytes"] = static_cast<double>(fs::file_size(fixture.file));
}
BENCHMARK(BM_MappingStoreLoad)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_MappingStorePersist(benchmark::State& state) {
    quietLogs();
    Fixture fixture(static_cast<int>(state.range(0)));
    MappingStore store(fixture.file, *fixture.log, fixture.scheduler.clock(), fixture.bundle);
    for (auto _ : state) {
        if (!store.persist()) state.SkipWithError("the save failed");
    }
    state.counters["bytes"] = static_cast<double>(fs::file_size(fixture.file));
}
BENCHMARK(BM_MappingStorePersist)->Arg(10000)->Unit(benchmark::kMillisecond);

// An edit as the user makes it: change one mapping in the middle and save the whole list.
void BM_MappingStoreSetEnabled(benchmark::State& state) {
    quietLogs();
    Fixture fixture(static_cast<int>(state.range(0)));
    MappingStore store(fixture.file, *fixture.log, fixture.scheduler.clock(), fixture.bundle);
    auto id = store.mappings().get()[store.mappings().get().size() / 2].id;
    bool enabled = false;
    for (auto _ : state) {
        store.setEnabled(enabled, id);
        enabled = !enabled;
    }
}
BENCHMARK(BM_MappingStoreSetEnabled)->Arg(10000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

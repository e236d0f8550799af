// What the gesture editor and the engine start pay to learn which bindings the system answers
// too: reading the three preference domains from their files, and the rule table over a large
// set of bindings. And the cost of drawing every icon, which `--render-icons` and a tray that
// redraws its glyph pay.
#include "ArtKit/IconArt.h"
#include "CoreKit/Directories.h"
#include "GestureEngine/SystemGestureConflicts.h"
#include "Platform/Linux/JSONPreferenceStore.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace tavrick;

namespace {

struct Folder {
    std::filesystem::path path;
    Folder() {
        char pattern[] = "/tmp/tavrick-bench-XXXXXX";
        path = ::mkdtemp(pattern);
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

void write(const std::filesystem::path& file, const std::string& text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

void BM_ReadSystemGestureSettings(benchmark::State& state) {
    Folder folder;
    const auto domain = [&](const std::string& name) { return folder.path / name / "defaults.json"; };
    write(domain("com.apple.AppleMultitouchTrackpad"),
          R"({"TrackpadThreeFingerVertSwipeGesture": 0, "TrackpadFourFingerHorizSwipeGesture": 1})");
    write(domain("com.apple.driver.AppleBluetoothMultitouch.trackpad"), R"({"TrackpadThreeFingerVertSwipeGesture": 2})");
    write(domain("com.apple.dock"), R"({"showMissionControlGestureEnabled": true})");
    for (auto _ : state) {
        auto settings = SystemGestureSettings::current([&](const std::string& name) -> std::shared_ptr<const PreferenceStore> {
            return std::make_shared<JSONPreferenceStore>(domain(name));
        });
        benchmark::DoNotOptimize(settings);
    }
}
BENCHMARK(BM_ReadSystemGestureSettings)->Unit(benchmark::kMicrosecond);

void BM_ScanBindings(benchmark::State& state) {
    std::vector<Mapping> mappings;
    const GestureDirection directions[] = {GestureDirection::up, GestureDirection::down, GestureDirection::left,
                                           GestureDirection::right, GestureDirection::expand, GestureDirection::contract};
    for (int i = 0; i < state.range(0); ++i) {
        Mapping m;
        m.id = UUID::random();
        m.name = "binding " + std::to_string(i);
        m.trigger = Trigger::gesture(GestureSpec{2 + i % 4, i % 3 ? GestureKind::swipe : GestureKind::pinch, directions[i % 6]});
        m.action = ActionSpec::toggleAwake();
        mappings.push_back(std::move(m));
    }
    SystemGestureSettings settings;
    settings.threeFingerVertical = settings.threeFingerHorizontal = true;
    for (auto _ : state) benchmark::DoNotOptimize(SystemGestureConflicts::scan(mappings, settings));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ScanBindings)->Arg(50)->Arg(1000)->Unit(benchmark::kMicrosecond);

void BM_RenderGlyph(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(MenuBarGlyph::render(2.0));
}
BENCHMARK(BM_RenderGlyph)->Unit(benchmark::kMicrosecond);

void BM_RenderEveryIconAsPNG(benchmark::State& state) {
    for (auto _ : state) {
        for (const auto& file : IconArt::files()) benchmark::DoNotOptimize(file.render().png());
    }
}
BENCHMARK(BM_RenderEveryIconAsPNG)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

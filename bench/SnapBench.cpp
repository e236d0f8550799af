// Drag snapping: the zone of one pointer position, and a drag event on the main thread once the
// window is known to move, which is every event of a drag but its first few. The snapper is fed
// directly, without the tap's thread hop, so what is measured is the program's own work.
#include "ActionKit/SnapZone.h"
#include "ActionKit/WindowManager.h"
#include "ActionKit/WindowSnapper.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SimulatedSession.h"

#include <benchmark/benchmark.h>

using namespace tavrick;

namespace {

const Rect visible{{0, 70}, {1440, 805}};

void BM_SnapZoneDetect(benchmark::State& state) {
    // The middle (no zone), an edge, and a corner reached by the last rule that can hold.
    const Point points[] = {{720, 472}, {2, 472}, {1400, 72}};
    const Point p = points[state.range(0)];
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        auto zone = SnapZoneDetector::zone(p, visible);
        benchmark::DoNotOptimize(zone);
    }
}
BENCHMARK(BM_SnapZoneDetect)->DenseRange(0, 2);

struct Drag {
    ManualScheduler scheduler;
    SimulatedDesktop desktop;
    SimulatedSession session;
    std::unique_ptr<WindowManager> windows;
    std::unique_ptr<WindowSnapper> snapper;
    std::size_t previews = 0;

    Drag() {
        Log::setMinimumLevel(LogLevel::error);
        desktop.setWaiter([](double) {});
        desktop.setScreens({ScreenInfo{{{0, 0}, {1440, 900}}, visible},
                            ScreenInfo{{{1440, 0}, {2560, 1440}}, {{1440, 0}, {2560, 1415}}}});
        const auto editor = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Editor"});
        desktop.addWindow(editor, "Untitled", {{200, 120}, {800, 600}});
        desktop.activate(editor);
        windows = std::make_unique<WindowManager>(desktop, scheduler);
        snapper = std::make_unique<WindowSnapper>(SnapperEnvironment{session, scheduler, desktop, desktop, desktop, 4242},
                                                  *windows);
        snapper->onPreview = [this](std::optional<Rect>) { ++previews; };
        snapper->handle(EventType::leftMouseDown, {600, 130});
        desktop.moveFrontmostWindow(-598, 0);
        snapper->handle(EventType::leftMouseDragged, {2, 450});
    }
};

// Held at the left edge: every event is the same zone on the same screen.
void BM_SnapperDragWithinAZone(benchmark::State& state) {
    Drag drag;
    double y = 450;
    for (auto _ : state) {
        y = y == 450 ? 451 : 450;
        drag.snapper->handle(EventType::leftMouseDragged, {2, y});
    }
    if (drag.previews != 1) state.SkipWithError("the preview was asked for again");
}
BENCHMARK(BM_SnapperDragWithinAZone);

// Crossing between the left edge and the middle: every event changes the zone.
void BM_SnapperDragAcrossZones(benchmark::State& state) {
    Drag drag;
    bool atEdge = true;
    for (auto _ : state) {
        atEdge = !atEdge;
        drag.snapper->handle(EventType::leftMouseDragged, {atEdge ? 2.0 : 700.0, 450});
    }
}
BENCHMARK(BM_SnapperDragAcrossZones);

// The press and the first move, with the two reads of the window that tell a drag from a click.
void BM_SnapperPressAndFirstMove(benchmark::State& state) {
    Drag drag;
    for (auto _ : state) {
        drag.snapper->handle(EventType::leftMouseUp, {2, 450});
        drag.snapper->handle(EventType::leftMouseDown, {600, 130});
        drag.desktop.moveFrontmostWindow(state.iterations() % 2 ? 5 : -5, 0);
        drag.snapper->handle(EventType::leftMouseDragged, {700, 450});
    }
}
BENCHMARK(BM_SnapperPressAndFirstMove);

} // namespace

BENCHMARK_MAIN();

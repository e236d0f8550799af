// Window commands: the pure layout for every command, and one command from ActionRunner::run to
// the last accessibility write on the simulated desktop. The window queue is a manual one, run
// straight after `run`, so the hop between threads is left out and what is measured is the
// program's own work (the log note is only handed to the log's queue, as in the application).
#include "ActionKit/ActionRunner.h"
#include "ActionKit/WindowLayout.h"
#include "ActionKit/WindowManager.h"
#include "CoreKit/DispatchScheduler.h"
#include "CoreKit/Log.h"
#include "CoreKit/ManualScheduler.h"
#include "CoreKit/PreferenceStore.h"
#include "Platform/Simulated/SimulatedDesktop.h"
#include "Platform/Simulated/SimulatedSession.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <unistd.h>

using namespace tavrick;

namespace {

constexpr WindowCommand layoutCommands[] = {
    WindowCommand::leftHalf,          WindowCommand::rightHalf,      WindowCommand::topHalf,
    WindowCommand::bottomHalf,        WindowCommand::leftThird,      WindowCommand::centerThird,
    WindowCommand::rightThird,        WindowCommand::leftTwoThirds,  WindowCommand::rightTwoThirds,
    WindowCommand::topLeftQuarter,    WindowCommand::topRightQuarter, WindowCommand::bottomLeftQuarter,
    WindowCommand::bottomRightQuarter, WindowCommand::maximize,      WindowCommand::center,
};

void BM_WindowLayoutFrame(benchmark::State& state) {
    const WindowCommand command = layoutCommands[state.range(0)];
    state.SetLabel(std::string(rawValue(command)));
    Rect visible{{0, 70}, {1440, 805}};
    Size size{800, 600};
    for (auto _ : state) {
        benchmark::DoNotOptimize(visible);
        benchmark::DoNotOptimize(size);
        auto frame = WindowLayout::frame(command, visible, size);
        benchmark::DoNotOptimize(frame);
    }
}
BENCHMARK(BM_WindowLayoutFrame)->DenseRange(0, 14);

struct Desk {
    std::filesystem::path dir;
    std::shared_ptr<DiagnosticLog> log;
    ManualScheduler windowsScheduler;
    SimulatedDesktop desktop;
    SimulatedSession session;
    InMemoryPreferenceStore finder;
    std::int32_t editor = 0;
    std::unique_ptr<WindowManager> windows;
    std::unique_ptr<ActionRunner> runner;

    Desk() {
        char pattern[] = "/tmp/tavrick-bench-XXXXXX";
        dir = ::mkdtemp(pattern);
        log = DiagnosticLog::make(dir, DispatchScheduler::shared());
        desktop.setScreens({ScreenInfo{Rect{{0, 0}, {1440, 900}}, Rect{{0, 70}, {1440, 805}}},
                            ScreenInfo{Rect{{1440, 0}, {2560, 1440}}, Rect{{1440, 0}, {2560, 1415}}}});
        editor = desktop.addApplication({.pid = 501, .bundleID = "org.gnome.TextEditor", .name = "Text Editor"});
        desktop.addWindow(editor, "Untitled", Rect{{200, 120}, {800, 600}});
        desktop.activate(editor);
        desktop.setRecordsWrites(false);
        windows = std::make_unique<WindowManager>(desktop, windowsScheduler);
        runner = std::make_unique<ActionRunner>(
            ActionEnvironment{*log, desktop, desktop, session, desktop, desktop, finder, dir, 4242, [] { return true; }},
            *windows);
    }
    ~Desk() {
        runner.reset();
        windows.reset();
        log->flush();
        std::error_code error;
        std::filesystem::remove_all(dir, error);
    }
};

void BM_WindowCommandRunToLastWrite(benchmark::State& state) {
    Log::setMinimumLevel(LogLevel::error);
    Desk desk;
    const ActionSpec left = ActionSpec::window(WindowCommand::leftHalf);
    const ActionSpec right = ActionSpec::window(WindowCommand::rightHalf);
    bool flip = false;
    for (auto _ : state) {
        desk.runner->run(flip ? left : right);
        desk.windowsScheduler.runUntilIdle();
        flip = !flip;
    }
    // Every command really moved the window: three writes each.
    if (desk.desktop.accessibilityWriteCount() != 3 * static_cast<std::size_t>(state.iterations())) {
        state.SkipWithError("a command did not reach the window");
    }
}
BENCHMARK(BM_WindowCommandRunToLastWrite);

void BM_WindowManagerPerformApply(benchmark::State& state) {
    Log::setMinimumLevel(LogLevel::error);
    Desk desk;
    const auto screens = ScreenSnapshot::current(desk.desktop);
    bool flip = false;
    for (auto _ : state) {
        desk.windows->performApply(flip ? WindowCommand::leftHalf : WindowCommand::rightHalf, desk.editor, screens);
        flip = !flip;
    }
}
BENCHMARK(BM_WindowManagerPerformApply);

} // namespace

BENCHMARK_MAIN();

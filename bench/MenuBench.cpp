// What one keystroke costs the terminal menu: the key handled against a snapshot, and the whole
// screen laid out again. A menu the size of a full one (every section, ten clipboard copies,
// the settings list) and one ten times larger.
#include "Platform/Terminal/MenuNavigator.h"
#include "Platform/Terminal/TerminalMenu.h"

#include <benchmark/benchmark.h>

using namespace tavrick;

namespace {

MenuSnapshot makeMenu(int lines) {
    MenuSnapshot snapshot;
    snapshot.label = "MenuBarGlyph   2.4k";
    MenuEntry settings;
    settings.id = "settings";
    settings.kind = MenuEntry::Kind::submenu;
    settings.title = "Settings";
    for (int i = 0; i < 40; ++i) {
        MenuEntry field;
        field.id = "settings." + std::to_string(i);
        field.kind = MenuEntry::Kind::field;
        field.title = "Setting number " + std::to_string(i);
        field.value = "100";
        settings.children.push_back(field);
    }
    for (int i = 0; i < lines; ++i) {
        MenuEntry e;
        e.id = "line." + std::to_string(i);
        e.kind = i % 5 == 0 ? MenuEntry::Kind::label : i % 3 == 0 ? MenuEntry::Kind::toggle : MenuEntry::Kind::command;
        e.title = "Clipboard copy “" + std::to_string(i) + "” with some words — and a dash";
        snapshot.entries.push_back(e);
    }
    snapshot.entries.push_back(settings);
    return snapshot;
}

void BM_KeyThenRedraw(benchmark::State& state) {
    const auto menu = makeMenu(static_cast<int>(state.range(0)));
    const std::deque<std::string> status{"[core] a log line", "✓ Copied"};
    MenuNavigator navigator;
    for (auto _ : state) {
        navigator.press(menu, MenuNavigator::Key::of(MenuNavigator::KeyKind::down));
        auto rows = MenuScreen::render(menu, navigator, 50, 120, status);
        benchmark::DoNotOptimize(rows);
    }
}
BENCHMARK(BM_KeyThenRedraw)->Arg(80)->Arg(800);

void BM_Letters(benchmark::State& state) {
    const auto menu = makeMenu(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(MenuNavigator::letters(menu.entries));
}
BENCHMARK(BM_Letters)->Arg(80)->Arg(800);

} // namespace

BENCHMARK_MAIN();

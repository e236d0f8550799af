// The look cycle's own work, besides its fixed waits: reading the focused element through its
// three routes, then deciding which buttons the bar offers (links, paths, numbers). Measured
// for one word, a sentence with a link and amounts, and prose of growing size.
#include "CoreKit/SelectionModel.h"
#include "Platform/Simulated/SimulatedSelection.h"
#include "SelectionKit/NumberSum.h"
#include "SelectionKit/SelectionReader.h"

#include <benchmark/benchmark.h>

using namespace tavrick;

namespace {

std::string selectionOf(int size) {
    if (size == 0) return "hello";
    if (size == 1) return "Invoice total $1,234.50 plus €99 shipping, see https://example.org/receipt/42 for details.";
    std::string text;
    while (text.size() < static_cast<std::size_t>(size)) text += "word 12.5 another ~/path line, ";
    return text;
}

void lookCycle(benchmark::State& state) {
    SimulatedSelection session;
    SimulatedSelection::Element element;
    // The slowest route: nothing on the first two, the text on the third.
    element.hasMarkerRange = true;
    element.markerText = " ";
    element.hasRange = true;
    element.rangeText = selectionOf(static_cast<int>(state.range(0)));
    element.bounds = Rect{{10, 10}, {100, 20}};
    session.setFocused(element);
    const auto actions = SelectionAction::builtIns();
    auto itemKind = [](const std::string&) { return std::optional<SelectionPathKind>(); };
    for (auto _ : state) {
        auto reading = SelectionReader::readSynchronously(session, SelectionReader::timeout);
        const auto& text = reading.selection->text;
        std::size_t offered = 0;
        for (const auto& action : actions) {
            if (!action.applies(text, "/home/user", itemKind)) continue;
            if (action.kind() == SelectionAction::Case::sum && !NumberSum::sum(text)) continue;
            ++offered;
        }
        benchmark::DoNotOptimize(offered);
    }
}
// 0: one word; 1: a sentence with a link and amounts; otherwise that many bytes of prose with numbers.
BENCHMARK(lookCycle)->Arg(0)->Arg(1)->Arg(2000)->Arg(20000)->Arg(100000)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();

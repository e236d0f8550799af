#include "ActionKit/ScreenSnapshot.h"

#include "ActionKit/WindowLayout.h"

namespace tavrick {

ScreenSnapshot ScreenSnapshot::current(const ScreenSource& source) {
    return of(source.screens());
}

ScreenSnapshot ScreenSnapshot::of(const std::vector<ScreenInfo>& screens) {
    ScreenSnapshot snapshot;
    snapshot.visibleFrames.reserve(screens.size());
    for (const auto& screen : screens) snapshot.visibleFrames.push_back(screen.visibleFrame);
    snapshot.primaryHeight = WindowLayout::primaryDisplayHeight(screens);
    return snapshot;
}

} // namespace tavrick

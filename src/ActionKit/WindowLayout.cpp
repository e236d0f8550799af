#include "ActionKit/WindowLayout.h"

#include <algorithm>

namespace tavrick::WindowLayout {

std::optional<Rect> frame(WindowCommand command, const Rect& v, Size currentSize) {
    const double halfW = v.size.width * 0.5;
    const double halfH = v.size.height * 0.5;
    const double third = v.size.width / 3.0;
    auto make = [](double x, double y, double w, double h) { return Rect{{x, y}, {w, h}}; };
    switch (command) {
    case WindowCommand::leftHalf: return make(v.minX(), v.minY(), halfW, v.size.height);
    case WindowCommand::rightHalf: return make(v.maxX() - halfW, v.minY(), halfW, v.size.height);
    case WindowCommand::topHalf: return make(v.minX(), v.maxY() - halfH, v.size.width, halfH);
    case WindowCommand::bottomHalf: return make(v.minX(), v.minY(), v.size.width, halfH);
    case WindowCommand::leftThird: return make(v.minX(), v.minY(), third, v.size.height);
    case WindowCommand::centerThird: return make(v.minX() + third, v.minY(), third, v.size.height);
    case WindowCommand::rightThird: return make(v.maxX() - third, v.minY(), third, v.size.height);
    // Two thirds is third + third, which is not always the same double as width * 2 / 3.
    case WindowCommand::leftTwoThirds: return make(v.minX(), v.minY(), third + third, v.size.height);
    case WindowCommand::rightTwoThirds:
        return make(v.maxX() - (third + third), v.minY(), third + third, v.size.height);
    case WindowCommand::topLeftQuarter: return make(v.minX(), v.maxY() - halfH, halfW, halfH);
    case WindowCommand::topRightQuarter: return make(v.maxX() - halfW, v.maxY() - halfH, halfW, halfH);
    case WindowCommand::bottomLeftQuarter: return make(v.minX(), v.minY(), halfW, halfH);
    case WindowCommand::bottomRightQuarter: return make(v.maxX() - halfW, v.minY(), halfW, halfH);
    case WindowCommand::maximize: return make(v.minX(), v.minY(), v.size.width, v.size.height);
    case WindowCommand::center: {
        const double w = std::min(v.size.width, currentSize.width);
        const double h = std::min(v.size.height, currentSize.height);
        return make(v.midX() - w * 0.5, v.midY() - h * 0.5, w, h);
    }
    case WindowCommand::nextDisplay:
    case WindowCommand::previousDisplay:
    case WindowCommand::restore: return std::nullopt;
    }
    return std::nullopt;
}

Rect cocoaFrame(const Rect& a, double primaryHeight) {
    return Rect{{a.minX(), primaryHeight - a.maxY()}, a.size};
}

Rect accessibilityFrame(const Rect& c, double primaryHeight) {
    return Rect{{c.minX(), primaryHeight - c.maxY()}, c.size};
}

double primaryDisplayHeight(std::span<const ScreenInfo> screens) {
    return screens.empty() ? 0 : screens.front().frame.size.height;
}

std::optional<std::size_t> screen(const Rect& rect, std::span<const Rect> among) {
    std::optional<std::size_t> best;
    double bestArea = 0;
    for (std::size_t i = 0; i < among.size(); ++i) {
        const Rect& s = among[i];
        const double width = std::min(s.maxX(), rect.maxX()) - std::max(s.minX(), rect.minX());
        const double height = std::min(s.maxY(), rect.maxY()) - std::max(s.minY(), rect.minY());
        if (width < 0 || height < 0) continue;  // no intersection at all
        const double area = width * height;
        if (area <= 0) continue;
        if (!best || area > bestArea) {
            best = i;
            bestArea = area;
        }
    }
    return best;
}

} // namespace tavrick::WindowLayout

#pragma once

#include "CoreKit/EventSystem.h"
#include "CoreKit/Models.h"
#include "MouseGestureKit/StrokeRecogniser.h"

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The surface a shape is recorded on. It reads the right-button events that reach it, as any
// application would, so it hears a drag only while the engine stands down.
class RecordingPad {
public:
    static constexpr const char* prompt = "Hold the right button and draw the shape here.";
    static constexpr const char* notRecognised = "Not recognised — draw it larger and straighter.";

    // Called with the strokes of each finished drag, empty when nothing was recognised.
    std::function<void(const std::vector<GestureDirection>&)> onRecorded;

    // Any thread.
    void handle(const Event& event);
    // Every drag heard so far, in order.
    std::vector<std::vector<GestureDirection>> heard() const;
    void clear();

    // What the pad says about a recorded shape: the not-recognised line for no strokes, the
    // binding already using it within `scope` (other than `editing`), or nothing when it is free.
    static std::optional<std::string> verdict(const std::vector<GestureDirection>& strokes, const GestureScope& scope,
                                              const std::vector<Mapping>& mappings,
                                              const std::optional<UUID>& editing = std::nullopt);

    // "[up, left]", "[]".
    static std::string describe(const std::vector<GestureDirection>& strokes);

private:
    StrokeRecogniser recogniser_;
    mutable std::mutex lock_;
    bool pressed_ = false;
    std::vector<Point> path_;
    std::vector<std::vector<GestureDirection>> heard_;
};

} // namespace tavrick

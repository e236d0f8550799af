#pragma once

#include "ActionKit/SnapPreview.h"

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace tavrick {

// The snap preview of a headless session: what a person would see on screen, recorded. The
// desktop's state file carries it under "snapPreview". Safe from any thread.
class SimulatedSnapPreview : public std::enable_shared_from_this<SimulatedSnapPreview> {
public:
    struct State {
        bool visible = false;
        // Bottom-left origin, y upward; the last frame it had, kept after it went away.
        std::optional<Rect> frame;
        double alpha = 0;
        // How many times it came on screen, and how many times it slid to another zone.
        std::size_t appearances = 0;
        std::size_t moves = 0;
        bool operator==(const State&) const = default;
    };

    static std::shared_ptr<SimulatedSnapPreview> make();

    // A surface for `SnapPreviewWindow`; every one draws on this record.
    std::unique_ptr<SnapPreviewSurface> makeSurface();

    State state() const;
    nlohmann::json stateSection() const;
    // Called after every change, outside the lock.
    void setOnChange(std::function<void()> onChange);

private:
    SimulatedSnapPreview() = default;
    class Surface;
    void change(const std::function<void(State&)>& edit);

    mutable std::mutex lock_;
    State state_;
    std::function<void()> onChange_;
};

} // namespace tavrick

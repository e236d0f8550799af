#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Geometry.h"
#include "SelectionKit/SelectionAccessibility.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tavrick {

struct SelectedText {
    std::string text;
    // Global screen coordinates, y down.
    std::optional<Rect> bounds;
    std::optional<std::string> appName;
    bool operator==(const SelectedText&) const = default;
};

// Asks the focused element for its selected text without copying and without touching the
// clipboard: first the selected text itself, then a text marker range (how browsers publish web
// selections), then a character range. Reads run in order on a queue of their own, so a hung
// application costs the main thread nothing.
class SelectionReader {
public:
    static constexpr const char* queueLabel = "com.orvell.tavrick.selection-reader";
    // The messaging time-out of every accessibility call.
    static constexpr float timeout = 0.3f;

    struct Reading {
        // The published text, not the trimmed one; bounds where the element gives them.
        std::optional<SelectedText> selection;
        // Why nothing was found; empty when something was.
        std::string failureReason;
    };

    SelectionReader(SelectionAccessibility& accessibility, Scheduler& scheduler);

    // The completion runs on the main queue.
    void read(std::function<void(std::optional<SelectedText>)> completion);
    // For the probe: what the focused element publishes, by attribute name and length, never the
    // text. The completion runs on the main queue.
    void describeSelectionSupport(std::function<void(std::string)> completion);

    // Why the most recent read found nothing; written on the reader's queue before its completion
    // is posted.
    std::string lastFailureReason() const;

    // The routes in their order, over any element source.
    static Reading readSynchronously(SelectionAccessibility& accessibility, double timeout);
    static std::string describe(SelectionAccessibility& accessibility, double timeout);

private:
    SelectionAccessibility& accessibility_;
    Scheduler& scheduler_;
    std::shared_ptr<SerialQueue> queue_;
    struct Shared {
        mutable std::mutex lock;
        std::string lastFailureReason;
    };
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

} // namespace tavrick

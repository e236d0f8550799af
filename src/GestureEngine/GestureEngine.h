#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/EventTap.h"
#include "GestureEngine/GestureRecognizer.h"
#include "GestureEngine/GestureTable.h"
#include "GestureEngine/TouchSource.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// Watches the trackpad: every frame goes through the recogniser, a recognised gesture is looked
// up among the enabled bindings, and a match reaches `onTrigger` on the main queue. Each hand
// contact of three fingers or more leaves one line in the diagnostic log saying what was seen
// and why it did or did not fire.
class GestureEngine {
public:
    using OnTrigger = std::function<void(const Mapping&)>;
    using OnFrame = std::function<void(const TouchFrame&)>;
    using OnRecognize = std::function<void(const GestureSpec&)>;

    static constexpr const char* suppressionTapLabel = "gesture-suppression";
    // The system's gesture, magnify, rotate and swipe events.
    static constexpr EventMask suppressionMask = (EventMask{1} << 18) | (EventMask{1} << 19) | (EventMask{1} << 20) |
                                                 (EventMask{1} << 29) | (EventMask{1} << 30) | (EventMask{1} << 31) |
                                                 (EventMask{1} << 32);
    // A session keeps at most this many changes of finger count.
    static constexpr std::size_t maximumCountEntries = 12;

    // With no source, the trackpad service's own source is used.
    GestureEngine(std::shared_ptr<TouchSource> source, DiagnosticLog& log, EventSystem& events, Scheduler& scheduler);
    // Stops the source and the tap.
    ~GestureEngine();
    GestureEngine(const GestureEngine&) = delete;
    GestureEngine& operator=(const GestureEngine&) = delete;

    // Throws the source's error, and then starts no tap. Does nothing while the source runs.
    void start();
    // The contact in progress keeps its session; the recogniser starts over.
    void stop();
    void restart();
    bool isRunning() const;

    // Any thread; takes the lock only for the swap.
    void update(const std::vector<Mapping>& mappings);
    GestureTable table() const;

    // While suspended (a gesture editor is open) everything runs except `onTrigger`.
    void setSuspended(bool suspended);
    bool isSuspended() const;
    GestureConfig config() const;
    void setConfig(const GestureConfig& config);
    // Whether the system's own gesture events are being swallowed now.
    bool isSuppressing() const;
    std::optional<DeclineReason> lastDecline() const;

    // On the main queue.
    void setOnTrigger(OnTrigger onTrigger);
    // On the source's thread, for every frame, before anything else; also while suspended.
    void setOnFrame(OnFrame onFrame);
    // On the source's thread, with the recogniser's own output.
    void setOnRecognize(OnRecognize onRecognize);

    // What the source calls for each frame. Public so that a benchmark and the tests can feed
    // frames the way a source does.
    void handle(const TouchFrame& frame);

    TouchSource& source() { return *source_; }

    struct Core;

private:
    std::shared_ptr<TouchSource> source_;
    std::shared_ptr<Core> core_;
};

} // namespace tavrick

#pragma once

#include "CoreKit/Models.h"
#include "GestureEngine/TouchFrame.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace tavrick {

// The recogniser's thresholds. Distances are pad units, times seconds, angles radians.
struct GestureConfig {
    double settleDelay = 0.045;
    int countWobbleFrames = 1;
    double settleTimeout = 0.2;
    double staleFrameGap = 1.0;
    double minSwipeDistance = 0.08;
    double minSwipeVelocity = 0.3;
    double directionTolerance = 0.5235987755982988;
    double tapMaxDuration = 0.25;
    double tapMaxMovement = 0.025;
    double minPinchDelta = 0.055;
    double minRotationDelta = 0.39269908169872414;
    double minRotationRadius = 0.03;
    int minimumFingers = 3;

    friend bool operator==(const GestureConfig&, const GestureConfig&) = default;
};

// Why the latest contact did not make a gesture, in the words the log uses.
struct DeclineReason {
    struct SettledAsScroll {
        int fingers = 0;
        friend bool operator==(const SettledAsScroll&, const SettledAsScroll&) = default;
    };
    struct TooDiagonal {
        double degrees = 0;
        friend bool operator==(const TooDiagonal&, const TooDiagonal&) = default;
    };
    struct TooShort {
        double distance = 0;
        friend bool operator==(const TooShort&, const TooShort&) = default;
    };
    struct TooSlow {
        double velocity = 0;
        friend bool operator==(const TooSlow&, const TooSlow&) = default;
    };
    struct CountChanged {
        int from = 0;
        int to = 0;
        friend bool operator==(const CountChanged&, const CountChanged&) = default;
    };
    // Kept for the engine's own account of a lifting hand; the recogniser never produces it.
    struct HandLifting {
        int peak = 0;
        int now = 0;
        friend bool operator==(const HandLifting&, const HandLifting&) = default;
    };
    using Value = std::variant<SettledAsScroll, TooDiagonal, TooShort, TooSlow, CountChanged, HandLifting>;
    Value value;

    static DeclineReason settledAsScroll(int fingers) { return {SettledAsScroll{fingers}}; }
    static DeclineReason tooDiagonal(double degrees) { return {TooDiagonal{degrees}}; }
    static DeclineReason tooShort(double distance) { return {TooShort{distance}}; }
    static DeclineReason tooSlow(double velocity) { return {TooSlow{velocity}}; }
    static DeclineReason countChanged(int from, int to) { return {CountChanged{from, to}}; }
    static DeclineReason handLifting(int peak, int now) { return {HandLifting{peak, now}}; }

    std::string summary() const;

    friend bool operator==(const DeclineReason&, const DeclineReason&) = default;
};

// Turns the trackpad's frames into at most one gesture per lift of the hand. A plain value: time
// comes only from the frames, and nothing here blocks or touches the system.
//
// Fingers do not land or lift together, so the count is settled before anything is tracked: a
// hand that lands over a few frames reads as one hand from the frame its last finger arrived, a
// single frame that loses a finger changes nothing, and a hand lifting off is not read as a
// smaller hand on its way out.
class GestureRecognizer {
public:
    struct Settling {
        TouchFrame anchor;
        int count = 0;
        int frames = 0;
        double firstTouch = 0;
        int sustainedPeak = 0;
        std::optional<int> pendingCount;
        int pendingFrames = 0;
        std::optional<TouchFrame> pendingAnchor;
        friend bool operator==(const Settling&, const Settling&) = default;
    };
    struct Tracking {
        int fingerCount = 0;
        double startTime = 0;
        double startX = 0;
        double startY = 0;
        std::optional<double> startSpread;
        std::map<std::int32_t, double> startAngles;
        double maxMovement = 0;
        double lastDX = 0;
        double lastDY = 0;
        double lastElapsed = 0;
        int mismatchFrames = 0;
        friend bool operator==(const Tracking&, const Tracking&) = default;
    };
    struct Idle {
        friend bool operator==(Idle, Idle) = default;
    };
    // The contact is spent: nothing more fires until every finger has lifted.
    struct Latched {
        friend bool operator==(Latched, Latched) = default;
    };
    using State = std::variant<Settling, Tracking, Idle, Latched>;

    GestureConfig config;
    State state = Idle{};
    std::optional<double> lastFrameTime;

    explicit GestureRecognizer(GestureConfig config = {}) : config(config) {}

    std::optional<GestureSpec> process(const TouchFrame& frame);
    // Back to idle; the last decline stays readable.
    void reset();
    const std::optional<DeclineReason>& lastDecline() const { return lastDecline_; }

    bool isIdle() const { return std::holds_alternative<Idle>(state); }
    bool isLatched() const { return std::holds_alternative<Latched>(state); }
    const Settling* settling() const { return std::get_if<Settling>(&state); }
    const Tracking* tracking() const { return std::get_if<Tracking>(&state); }

    // Which axis a movement runs along, within `tolerance` radians either side; nothing in the
    // bands between.
    static std::optional<GestureDirection> direction(double dx, double dy, double tolerance);
    // Into [-π, π]; π and -π themselves stay.
    static double normalizeAngle(double angle);

private:
    std::optional<GestureSpec> settle(Settling& settling, const TouchFrame& frame, int n, double now);
    std::optional<GestureSpec> track(Tracking& tracking, const TouchFrame& frame, int n, double now);
    std::optional<GestureSpec> rotation(const Tracking& tracking, const TouchFrame& frame) const;
    std::map<std::int32_t, double> angles(const TouchFrame& frame) const;

    std::optional<DeclineReason> lastDecline_;
};

} // namespace tavrick

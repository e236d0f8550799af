#include "GestureEngine/GestureRecognizer.h"

#include <cmath>
#include <cstdio>
#include <numbers>

namespace tavrick {

namespace {

std::string formatted(const char* format, double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

} // namespace

std::string DeclineReason::summary() const {
    return std::visit(
        [](const auto& reason) -> std::string {
            using T = std::decay_t<decltype(reason)>;
            if constexpr (std::is_same_v<T, SettledAsScroll>) {
                return "already reading a " + std::to_string(reason.fingers) +
                       "-finger scroll when the hand changed — lift off the pad and start the swipe again";
            } else if constexpr (std::is_same_v<T, TooDiagonal>) {
                // The limit is spoken as 30° whatever the configured tolerance.
                return "too diagonal to call — " + formatted("%.0f", std::trunc(reason.degrees)) +
                       "° off the nearest axis, and 30° is the limit";
            } else if constexpr (std::is_same_v<T, TooShort>) {
                return "too short — " + formatted("%.3f", reason.distance) + " of the pad";
            } else if constexpr (std::is_same_v<T, TooSlow>) {
                return "too slow — " + formatted("%.2f", reason.velocity) + " of the pad per second";
            } else if constexpr (std::is_same_v<T, CountChanged>) {
                return "the hand went from " + std::to_string(reason.from) + " fingers to " + std::to_string(reason.to) +
                       " mid-swipe";
            } else {
                return "the hand was lifting — " + std::to_string(reason.peak) + " fingers down to " +
                       std::to_string(reason.now);
            }
        },
        value);
}

std::optional<GestureDirection> GestureRecognizer::direction(double dx, double dy, double tolerance) {
    const double angle = std::atan2(dy, dx);
    constexpr double pi = std::numbers::pi;
    if (std::abs(angle) <= tolerance) return GestureDirection::right;
    if (std::abs(angle - pi / 2) <= tolerance) return GestureDirection::up;
    if (std::abs(angle + pi / 2) <= tolerance) return GestureDirection::down;
    if (pi - tolerance <= std::abs(angle)) return GestureDirection::left;
    return std::nullopt;
}

double GestureRecognizer::normalizeAngle(double angle) {
    constexpr double pi = std::numbers::pi;
    if (!std::isfinite(angle)) return angle;
    while (angle > pi) angle -= 2 * pi;
    while (angle < -pi) angle += 2 * pi;
    return angle;
}

void GestureRecognizer::reset() {
    state = Idle{};
    lastFrameTime.reset();
}

std::optional<GestureSpec> GestureRecognizer::process(const TouchFrame& frame) {
    const double now = frame.timestamp;
    const int n = static_cast<int>(frame.activeCount());

    // Frames that run backwards, and a hand forgotten on the pad, start over.
    if (lastFrameTime && (now < *lastFrameTime || now - *lastFrameTime > config.staleFrameGap)) {
        state = Idle{};
    }
    lastFrameTime = now;

    if (n == 0) {
        std::optional<GestureSpec> result;
        if (const auto* tracked = tracking()) {
            if (now - tracked->startTime <= config.tapMaxDuration && tracked->maxMovement <= config.tapMaxMovement) {
                result = GestureSpec{tracked->fingerCount, GestureKind::tap, std::nullopt};
            }
        }
        state = Idle{};
        return result;
    }

    if (std::holds_alternative<Idle>(state)) {
        lastDecline_.reset();
        Settling fresh;
        fresh.anchor = frame;
        fresh.count = n;
        fresh.frames = 1;
        fresh.firstTouch = now;
        state = std::move(fresh);
        return std::nullopt;
    }
    if (std::holds_alternative<Latched>(state)) return std::nullopt;
    if (auto* settlingState = std::get_if<Settling>(&state)) return settle(*settlingState, frame, n, now);
    return track(std::get<Tracking>(state), frame, n, now);
}

std::optional<GestureSpec> GestureRecognizer::settle(Settling& s, const TouchFrame& frame, int n, double now) {
    if (n != s.count) {
        if (!s.pendingCount || *s.pendingCount != n) {
            s.pendingCount = n;
            s.pendingFrames = 1;
            s.pendingAnchor = frame;
        } else {
            ++s.pendingFrames;
        }
        if (s.pendingFrames <= config.countWobbleFrames) return std::nullopt;

        // The change is real: the count dates from the first frame at it.
        if (s.frames > 1 && s.count > s.sustainedPeak) s.sustainedPeak = s.count;
        s.anchor = s.pendingAnchor ? std::move(*s.pendingAnchor) : frame;
        s.count = n;
        s.frames = s.pendingFrames;
        s.pendingCount.reset();
        s.pendingFrames = 0;
        s.pendingAnchor.reset();
        return std::nullopt;
    }

    s.pendingCount.reset();
    s.pendingFrames = 0;
    s.pendingAnchor.reset();
    ++s.frames;
    const double sinceFirst = now - s.firstTouch;

    if (n >= config.minimumFingers) {
        if (now - s.anchor.timestamp < config.settleDelay && sinceFirst < config.settleTimeout) return std::nullopt;
        if (n < s.sustainedPeak) {
            // Fewer fingers than the hand held: it is lifting, not starting.
            state = Latched{};
            return std::nullopt;
        }
        Tracking t;
        t.fingerCount = static_cast<int>(s.anchor.activeCount());
        t.startTime = s.anchor.timestamp;
        const auto start = s.anchor.centroid();
        t.startX = start ? start->x : 0;
        t.startY = start ? start->y : 0;
        // Only now are all the fingers known to be placed.
        t.startSpread = frame.spread();
        t.startAngles = angles(frame);
        const auto current = frame.centroid();
        t.lastDX = current ? current->x - t.startX : 0;
        t.lastDY = current ? current->y - t.startY : 0;
        t.lastElapsed = now - s.anchor.timestamp;
        state = std::move(t);
        return std::nullopt;
    }
    if (sinceFirst >= config.settleTimeout) {
        state = Latched{};
        lastDecline_ = DeclineReason::settledAsScroll(n);
    }
    return std::nullopt;
}

std::optional<GestureSpec> GestureRecognizer::track(Tracking& t, const TouchFrame& frame, int n, double now) {
    if (n != t.fingerCount) {
        ++t.mismatchFrames;
        // One lost frame neither moves the gesture nor ends it.
        if (t.mismatchFrames <= config.countWobbleFrames) return std::nullopt;

        // The movement made before the change decides.
        const Tracking last = std::move(t);
        state = Latched{};
        const double distance = std::hypot(last.lastDX, last.lastDY);
        if (distance >= config.minSwipeDistance && last.lastElapsed > 0 &&
            distance / last.lastElapsed >= config.minSwipeVelocity) {
            if (auto swipe = direction(last.lastDX, last.lastDY, config.directionTolerance)) {
                lastDecline_.reset();
                return GestureSpec{last.fingerCount, GestureKind::swipe, swipe};
            }
        }
        lastDecline_ = DeclineReason::countChanged(last.fingerCount, n);
        return std::nullopt;
    }

    t.mismatchFrames = 0;
    const auto centre = frame.centroid();
    const double dx = centre->x - t.startX;
    const double dy = centre->y - t.startY;
    const double dist = std::hypot(dx, dy);
    const double elapsed = now - t.startTime;
    if (dist > t.maxMovement) t.maxMovement = dist;
    t.lastDX = dx;
    t.lastDY = dy;
    t.lastElapsed = elapsed;

    if (dist < config.minSwipeDistance) {
        if (dist > 0) lastDecline_ = DeclineReason::tooShort(dist);
    } else if (elapsed > 0) {
        const double velocity = dist / elapsed;
        if (velocity < config.minSwipeVelocity) {
            lastDecline_ = DeclineReason::tooSlow(velocity);
        } else if (auto swipe = direction(dx, dy, config.directionTolerance)) {
            lastDecline_.reset();
            const int fingers = t.fingerCount;
            state = Latched{};
            return GestureSpec{fingers, GestureKind::swipe, swipe};
        } else {
            const double a = std::abs(std::atan2(std::abs(dy), std::abs(dx))) * 180.0 / std::numbers::pi;
            lastDecline_ = DeclineReason::tooDiagonal(std::min(a, 90.0 - a));
        }
    }

    if (t.startSpread) {
        if (const auto spread = frame.spread()) {
            const double change = *spread - *t.startSpread;
            if (std::abs(change) >= config.minPinchDelta) {
                const int fingers = t.fingerCount;
                state = Latched{};
                return GestureSpec{fingers, GestureKind::pinch,
                                   change > 0 ? GestureDirection::expand : GestureDirection::contract};
            }
        }
    }

    if (auto turned = rotation(t, frame)) {
        state = Latched{};
        return turned;
    }
    return std::nullopt;
}

std::map<std::int32_t, double> GestureRecognizer::angles(const TouchFrame& frame) const {
    std::map<std::int32_t, double> result;
    const auto centre = frame.centroid();
    if (!centre) return result;
    for (const auto& touch : frame.touches) {
        if (!touch.isTouching) continue;
        const double x = touch.x - centre->x, y = touch.y - centre->y;
        // Near the centre an angle is noise.
        if (std::hypot(x, y) < config.minRotationRadius) continue;
        result[touch.id] = std::atan2(y, x);
    }
    return result;
}

std::optional<GestureSpec> GestureRecognizer::rotation(const Tracking& t, const TouchFrame& frame) const {
    if (t.startAngles.size() < 2) return std::nullopt;
    const auto centre = frame.centroid();
    if (!centre) return std::nullopt;
    // At most a hand's worth of deltas, without allocating on every frame.
    constexpr std::size_t capacity = 16;
    double deltas[capacity];
    std::size_t count = 0;
    for (const auto& touch : frame.touches) {
        if (!touch.isTouching) continue;
        const double x = touch.x - centre->x, y = touch.y - centre->y;
        if (std::hypot(x, y) < config.minRotationRadius) continue;
        const auto start = t.startAngles.find(touch.id);
        if (start == t.startAngles.end()) continue;
        if (count == capacity) break;
        deltas[count++] = normalizeAngle(std::atan2(y, x) - start->second);
    }
    if (count < 2) return std::nullopt;
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i) sum += deltas[i];
    const double mean = sum / static_cast<double>(count);
    if (!(std::abs(mean) >= config.minRotationDelta)) return std::nullopt;
    // A single finger turning the other way means a pinch or a drag, not a turn.
    for (std::size_t i = 0; i < count; ++i) {
        if (mean < 0 ? deltas[i] >= 0 : deltas[i] < 0) return std::nullopt;
    }
    return GestureSpec{t.fingerCount, GestureKind::rotate, mean > 0 ? GestureDirection::expand : GestureDirection::contract};
}

} // namespace tavrick

#include "FanCore/FanPolicy.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tavrick {

std::optional<FanRequest> FanRequest::make(double level, bool isMax) {
    if (isMax) return FanRequest{1.0, true};
    if (!std::isfinite(level)) return std::nullopt;
    return FanRequest{std::clamp(level, 0.0, 1.0), false};
}

std::optional<FanLimits> FanLimits::make(double minimum, double maximum) {
    if (!std::isfinite(minimum) || !(minimum > 0) || !std::isfinite(maximum) || !(minimum < maximum) ||
        maximum > ceiling) {
        return std::nullopt;
    }
    return FanLimits{minimum, maximum};
}

double FanLimits::clamp(double x) const {
    if (std::isnan(x)) return maximum;
    if (x <= minimum) return minimum;
    return std::min(x, maximum);
}

double FanLimits::floor(const FanRequest& request) const {
    return std::min(minimum + request.level * (maximum - minimum), maximum);
}

ThermalPressure thermalPressure(long rawState) {
    switch (rawState) {
    case 0: return ThermalPressure::nominal;
    case 1: return ThermalPressure::fair;
    case 2: return ThermalPressure::serious;
    default: return ThermalPressure::critical;
    }
}

std::optional<FanTarget> FanTarget::make(double rpm, double safeMinimum, const FanLimits& limits) {
    if (!std::isfinite(rpm) || !std::isfinite(safeMinimum) || rpm > limits.maximum) return std::nullopt;
    double rounded = std::min(std::ceil(rpm), limits.maximum);
    double safe = safeMinimum <= limits.minimum ? limits.minimum : safeMinimum;
    if (safe > rounded) return std::nullopt;
    return FanTarget{rounded, safe};
}

int FanWrite::fan() const {
    return std::visit([](const auto& w) { return w.fan; }, value);
}

namespace {
constexpr std::array<std::string_view, 19> reasonNames = {
    "noTemperature", "tooFewSensors", "sensorsLost", "staleTemperature", "systemReclaimed", "anotherWriter",
    "fanFault", "unsupported", "invalidLimits", "fanless", "anotherApp", "reclaiming", "sleeping",
    "invalidRequest", "safeHold", "smcFailed", "journalFailed", "exiting", "unknown"};
}

std::string_view rawValue(FanReason reason) { return reasonNames[static_cast<std::size_t>(reason)]; }

FanReason fanReasonFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < reasonNames.size(); ++i) {
        if (reasonNames[i] == raw) return static_cast<FanReason>(i);
    }
    return FanReason::unknown;
}

// MARK: Safety curve

void SafetyCurve::observe(std::optional<double> die) {
    if (!die || !std::isfinite(*die)) return;
    if (*die >= FanPolicy::hardMaxAt) isHardMax = true;
    else if (*die < FanPolicy::hardMaxReleaseBelow) isHardMax = false;
}

double SafetyCurve::rpm(double die, const FanLimits& limits) const {
    if (isHardMax) return limits.maximum;
    return FanPolicy::curve(die, limits);
}

// MARK: Decay and smoothing

TakeoverDecay::TakeoverDecay(double actual, double target, const FanLimits& limits, double at) : updatedAt(at) {
    std::optional<double> greatest;
    for (double v : {actual, target}) {
        if (std::isfinite(v) && (!greatest || v > *greatest)) greatest = v;
    }
    rpm = limits.clamp(greatest.value_or(limits.maximum));
}

double TakeoverDecay::advance(std::optional<double> die, double floor, double at) {
    const double dt = std::max(at - updatedAt, 0.0);
    updatedAt = at;
    if (!die || !std::isfinite(*die)) return rpm;
    if (*die < FanPolicy::decayBelow && std::isfinite(floor) && floor < rpm) {
        rpm = std::max(floor, rpm - FanPolicy::decayRate * dt);
    }
    return rpm;
}

std::optional<FanTarget> TargetSmoother::next(const FanTarget& wanted, double now) {
    const double before = updatedAt;
    updatedAt = now;
    double rpm;
    if (current.rpm > wanted.rpm) {
        double fall = FanPolicy::fallRate * std::max(now - before, 0.0);
        if (std::isinf(fall)) fall = 0;
        rpm = std::max(wanted.rpm, std::ceil(current.rpm - fall));
    } else {
        rpm = wanted.rpm;
    }
    current = FanTarget{rpm, wanted.safeMinimum};
    const double since = now - writtenAt;
    if (since < 0 || std::isnan(since)) {
        writtenAt = now;
        return std::nullopt;
    }
    if (since < FanPolicy::minimumWriteSpacing) return std::nullopt;
    const bool bigEnough = std::fabs(rpm - written.rpm) >= FanPolicy::minimumChange;
    const bool belowSafe = written.rpm < rpm && written.rpm < wanted.safeMinimum;
    if (!bigEnough && !belowSafe) return std::nullopt;
    written = current;
    writtenAt = now;
    return current;
}

// MARK: Guards

std::optional<FanReason> TemperatureGuard::refusal(const ThermalSummary& summary) {
    if (summary.validCount == 0) return FanReason::noTemperature;
    if (summary.isStale) return FanReason::staleTemperature;
    if (summary.validCount < FanPolicy::minimumSensors) return FanReason::tooFewSensors;
    return std::nullopt;
}

std::optional<FanReason> TemperatureGuard::assess(const ThermalSummary& summary) {
    if (summary.validCount < 1) {
        ++missedTicks;
        if (missedTicks < FanPolicy::missedTicksAllowed) return std::nullopt;
        return FanReason::noTemperature;
    }
    missedTicks = 0;
    if (summary.isStale) return FanReason::staleTemperature;
    // Losing exactly half is tolerated.
    if (takeoverSensors > 2 * summary.validCount) return FanReason::sensorsLost;
    return std::nullopt;
}

ReclaimGuard::Step ReclaimGuard::reclaimed(double now) {
    if (attempts > FanPolicy::reclaimReassertions - 1) return GiveUp{};
    if (nextAttemptAt && now < *nextAttemptAt) return Wait{};
    ++attempts;
    nextAttemptAt = now + FanPolicy::reclaimBackoff * attempts;
    return Reassert{attempts};
}

ReadBackCheck::ReadBackCheck(double takeoverAt, const FanLimits& limits, const FanTarget& wrote)
    : limits(limits), settledAt(takeoverAt + FanPolicy::settleTime), recentWrites{wrote.rpm} {}

void ReadBackCheck::wrote(double rpm) {
    recentWrites.push_back(rpm);
    if (recentWrites.size() > FanPolicy::rememberedWrites) {
        recentWrites.erase(recentWrites.begin(), recentWrites.end() - FanPolicy::rememberedWrites);
    }
}

std::optional<FanReason> ReadBackCheck::assess(const FanReading& reading, double now) {
    mustReassert = false;
    if (reading.mode) {
        const int mode = *reading.mode;
        if (mode == 0 || mode == FanModeValue::systemControlled) {
            auto step = reclaim.reclaimed(now);
            if (std::holds_alternative<ReclaimGuard::GiveUp>(step)) return FanReason::systemReclaimed;
            if (std::holds_alternative<ReclaimGuard::Reassert>(step)) mustReassert = true;
            return std::nullopt;
        }
        if (mode != 1) {
            ++strangeModes;
            if (strangeModes > 4) return FanReason::anotherWriter;
            return std::nullopt;
        }
    }
    strangeModes = 0;
    if (!std::isfinite(reading.target)) return FanReason::smcFailed;
    const double tolerance = FanPolicy::targetTolerance(limits);
    for (double w : recentWrites) {
        if (std::fabs(reading.target - w) <= tolerance) {
            strangers.clear();
            return liveness(reading, now);
        }
    }
    auto strange = stranger(reading.target);
    auto live = liveness(reading, now);
    return strange ? strange : live;
}

std::optional<FanReason> ReadBackCheck::stranger(double target) {
    strangers.push_back(target);
    if (strangers.size() > FanPolicy::foreignReadBacks) {
        strangers.erase(strangers.begin(), strangers.end() - FanPolicy::foreignReadBacks);
    }
    if (strangers.size() < FanPolicy::foreignReadBacks) return std::nullopt;
    auto [least, greatest] = std::minmax_element(strangers.begin(), strangers.end());
    if (*greatest - *least >= FanPolicy::foreignDrift) return FanReason::anotherWriter;
    return std::nullopt;
}

std::optional<FanReason> ReadBackCheck::liveness(const FanReading& reading, double now) {
    if (settledAt > now) {
        shortSince.reset();
        risenTo.reset();
        return std::nullopt;
    }
    const double actual = reading.actual;
    const double last = lastWritten();
    if (std::isfinite(actual) && !(last - std::max(last * FanPolicy::faultFraction, FanPolicy::faultMargin) > actual)) {
        shortSince.reset();
        risenTo.reset();
        return std::nullopt;
    }
    if (risenTo && std::isfinite(actual) && actual - *risenTo >= FanPolicy::risingBy) {
        shortSince = now;
        risenTo = actual;
        return std::nullopt;
    }
    if (!shortSince) shortSince = now;
    if (std::isfinite(actual) && !risenTo) risenTo = actual;
    if (now - *shortSince >= FanPolicy::faultAfter) return FanReason::fanFault;
    return std::nullopt;
}

bool TokenBucket::take(double now) {
    if (now > updatedAt) tokens = std::min(tokens + (now - updatedAt) * rate, capacity);
    updatedAt = now;
    if (tokens >= 1.0) {
        tokens -= 1.0;
        return true;
    }
    return false;
}

// MARK: FanPolicy

namespace FanPolicy {

double curve(double die, const FanLimits& limits) {
    if (!std::isfinite(die) || die >= hardMaxAt) return limits.maximum;
    const double t = std::clamp((die - curveStart) / (curveFull - curveStart), 0.0, 1.0);
    return std::min(limits.minimum + (limits.maximum - limits.minimum) * t, limits.maximum);
}

double backstop(ThermalPressure pressure, const FanLimits& limits) {
    switch (pressure) {
    case ThermalPressure::nominal: return limits.minimum;
    case ThermalPressure::fair: return limits.minimum + (limits.maximum - limits.minimum) * fairBackstop;
    case ThermalPressure::serious:
    case ThermalPressure::critical: return limits.maximum;
    }
    return limits.maximum;
}

double target(double floor, double curve, double backstop, double decay, const FanLimits& limits) {
    if (std::isnan(floor) || std::isnan(curve) || std::isnan(backstop) || std::isnan(decay)) return limits.maximum;
    const double greatest = std::max({floor, curve, backstop, decay});
    return std::min(std::max(greatest, limits.minimum), limits.maximum);
}

FanTarget boostTarget(const FanRequest& request, double die, const SafetyCurve& curve, ThermalPressure pressure,
                      double decay, const FanLimits& limits) {
    const double safe = curve.rpm(die, limits);
    const double wanted = target(limits.floor(request), safe, backstop(pressure, limits), decay, limits);
    // Every doubt ends at the maximum.
    return FanTarget::make(wanted, safe, limits).value_or(FanTarget::maximum(limits));
}

FanTarget parkTarget(std::optional<double> die, const SafetyCurve& curve, const std::optional<FanTarget>& lastTarget,
                     const FanLimits& limits) {
    if (!die || !std::isfinite(*die)) return lastTarget.value_or(FanTarget::maximum(limits));
    const double rpm = curve.rpm(*die, limits);
    return FanTarget::make(rpm, rpm, limits).value_or(FanTarget::maximum(limits));
}

std::vector<FanWrite> takeoverPlan(const std::vector<FanTarget>& targets) {
    std::vector<FanWrite> plan;
    for (std::size_t fan = 0; fan < targets.size(); ++fan) {
        plan.push_back(FanWrite::target(static_cast<int>(fan), targets[fan]));
        plan.push_back(FanWrite::mode(static_cast<int>(fan), FanMode::manual));
    }
    return plan;
}

std::vector<FanWrite> reassertPlan(int fan, const FanTarget& target) {
    return {FanWrite::target(fan, target), FanWrite::mode(fan, FanMode::manual)};
}

std::vector<FanWrite> releasePlan(const std::vector<FanTarget>& targets) {
    std::vector<FanWrite> plan;
    for (std::size_t fan = 0; fan < targets.size(); ++fan) plan.push_back(FanWrite::target(static_cast<int>(fan), targets[fan]));
    for (std::size_t fan = 0; fan < targets.size(); ++fan) plan.push_back(FanWrite::mode(static_cast<int>(fan), FanMode::automatic));
    return plan;
}

bool isSystemMode(std::optional<int> mode) { return mode && (*mode == 0 || *mode == FanModeValue::systemControlled); }

bool isHandedBack(const std::vector<std::optional<int>>& modes) {
    if (modes.empty()) return false;
    return std::all_of(modes.begin(), modes.end(), [](const auto& m) { return isSystemMode(m); });
}

std::vector<int> handBackTargets(const std::set<int>& ours, const std::vector<std::optional<int>>& modes) {
    std::vector<int> out;
    for (int fan : ours) {  // a set iterates ascending
        if (fan < 0 || static_cast<std::size_t>(fan) >= modes.size() || !isSystemMode(modes[static_cast<std::size_t>(fan)])) {
            out.push_back(fan);
        }
    }
    return out;
}

bool journalMayGo(const std::vector<int>& listing, const std::vector<std::optional<int>>& modes) {
    return handBackTargets(std::set<int>(listing.begin(), listing.end()), modes).empty();
}

ReleaseRequest release(const std::vector<int>& manual, const std::optional<std::vector<int>>& journal) {
    if (manual.empty()) return {};
    if (!journal) return {manual, std::nullopt, {}};
    ReleaseRequest request;
    for (int fan : manual) {
        if (std::find(journal->begin(), journal->end(), fan) != journal->end()) request.handBack.push_back(fan);
    }
    if (request.handBack.empty()) request.refusal = FanReason::anotherApp;
    return request;
}

ReleaseRequest releaseUnrecorded(const std::vector<int>& manual, const std::optional<std::vector<int>>& journal,
                                 std::optional<double> die) {
    if (manual.empty()) return {};
    if (!die || !std::isfinite(*die)) return {{}, FanReason::noTemperature, {}};
    ReleaseRequest request{manual, std::nullopt, {}};
    if (journal) {
        for (int fan : manual) {
            if (std::find(journal->begin(), journal->end(), fan) == journal->end()) request.unrecorded.push_back(fan);
        }
    }
    return request;
}

double targetTolerance(const FanLimits& limits) {
    return std::max((limits.maximum - limits.minimum) * targetToleranceFraction, targetToleranceMinimum);
}

} // namespace FanPolicy

} // namespace tavrick

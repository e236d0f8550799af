#pragma once

#include "FanCore/FanReading.h"
#include "FanCore/Thermal.h"

#include <compare>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <variant>
#include <vector>

namespace tavrick {

// A position inside each fan's own range, 0...1; a maximum request is level 1 and outranks a
// plain level 1.
struct FanRequest {
    double level = 0;
    bool isMax = false;

    static std::optional<FanRequest> make(double level, bool isMax);
    static FanRequest max() { return {1.0, true}; }
    friend bool operator==(const FanRequest&, const FanRequest&) = default;
    friend bool operator<(const FanRequest& a, const FanRequest& b) {
        if (a.level != b.level) return a.level < b.level;
        return !a.isMax && b.isMax;
    }
};

struct FanLimits {
    static constexpr double ceiling = 20000.0;
    double minimum = 0;
    double maximum = 0;

    static std::optional<FanLimits> make(double minimum, double maximum);
    static std::optional<FanLimits> make(const FanReading& reading) { return make(reading.minimum, reading.maximum); }
    double clamp(double x) const;
    double floor(const FanRequest& request) const;
    double range() const { return maximum - minimum; }
    friend bool operator==(const FanLimits&, const FanLimits&) = default;
};

enum class ThermalPressure { nominal = 0, fair = 1, serious = 2, critical = 3 };
// The operating system's thermal state; anything unknown counts as the worst.
ThermalPressure thermalPressure(long rawState);

struct FanTarget {
    double rpm = 0;
    double safeMinimum = 0;
    static std::optional<FanTarget> make(double rpm, double safeMinimum, const FanLimits& limits);
    static FanTarget maximum(const FanLimits& limits) { return {limits.maximum, limits.maximum}; }
    friend bool operator==(const FanTarget&, const FanTarget&) = default;
};

enum class FanMode : std::uint8_t { automatic = 0, manual = 1 };
namespace FanModeValue {
inline constexpr int systemControlled = 3;
}

struct FanWrite {
    struct Target {
        int fan;
        FanTarget target;
        friend bool operator==(const Target&, const Target&) = default;
    };
    struct Mode {
        int fan;
        FanMode mode;
        friend bool operator==(const Mode&, const Mode&) = default;
    };
    std::variant<Target, Mode> value;
    static FanWrite target(int fan, FanTarget t) { return {Target{fan, t}}; }
    static FanWrite mode(int fan, FanMode m) { return {Mode{fan, m}}; }
    int fan() const;
    friend bool operator==(const FanWrite&, const FanWrite&) = default;
};

enum class FanReason {
    noTemperature, tooFewSensors, sensorsLost, staleTemperature, systemReclaimed, anotherWriter, fanFault,
    unsupported, invalidLimits, fanless, anotherApp, reclaiming, sleeping, invalidRequest, safeHold, smcFailed,
    journalFailed, exiting, unknown
};
std::string_view rawValue(FanReason reason);
// Unknown text is `unknown`, never an error: a later helper's new reason stays readable.
FanReason fanReasonFromRaw(std::string_view raw);

// The 95 °C latch.
struct SafetyCurve {
    bool isHardMax = false;
    void observe(std::optional<double> die);
    double rpm(double die, const FanLimits& limits) const;
};

struct TakeoverDecay {
    double rpm = 0;
    double updatedAt = 0;
    TakeoverDecay(double actual, double target, const FanLimits& limits, double at);
    double advance(std::optional<double> die, double floor, double at);
};

struct TargetSmoother {
    FanTarget current;
    FanTarget written;
    double updatedAt = 0;
    double writtenAt = 0;
    TargetSmoother(FanTarget takeover, double at)
        : current(takeover), written(takeover), updatedAt(at), writtenAt(at) {}
    std::optional<FanTarget> next(const FanTarget& wanted, double now);
};

struct TemperatureGuard {
    int takeoverSensors = 0;
    int missedTicks = 0;
    static std::optional<FanReason> refusal(const ThermalSummary& summary);
    explicit TemperatureGuard(const ThermalSummary& takeover) : takeoverSensors(takeover.validCount) {}
    std::optional<FanReason> assess(const ThermalSummary& summary);
};

struct ReclaimGuard {
    struct Reassert {
        int attempt;
        friend bool operator==(const Reassert&, const Reassert&) = default;
    };
    struct Wait {
        friend bool operator==(const Wait&, const Wait&) = default;
    };
    struct GiveUp {
        friend bool operator==(const GiveUp&, const GiveUp&) = default;
    };
    using Step = std::variant<Reassert, Wait, GiveUp>;

    int attempts = 0;
    std::optional<double> nextAttemptAt;
    Step reclaimed(double now);
};

struct ReadBackCheck {
    FanLimits limits;
    double settledAt = 0;
    std::vector<double> recentWrites;
    std::vector<double> strangers;
    int strangeModes = 0;
    std::optional<double> shortSince;
    std::optional<double> risenTo;
    ReclaimGuard reclaim;
    bool mustReassert = false;

    ReadBackCheck(double takeoverAt, const FanLimits& limits, const FanTarget& wrote);
    void wrote(double rpm);
    std::optional<FanReason> assess(const FanReading& reading, double now);
    int reassertions() const { return reclaim.attempts; }
    double lastWritten() const { return recentWrites.back(); }

private:
    std::optional<FanReason> stranger(double target);
    std::optional<FanReason> liveness(const FanReading& reading, double now);
};

// The highest demand of all clients wins.
template <class Key>
class FanOwnership {
public:
    struct Change {
        enum class Kind { apply, unchanged, release };
        Kind kind;
        std::optional<FanRequest> request;  // for apply
        friend bool operator==(const Change&, const Change&) = default;
    };

    std::optional<FanRequest> effective() const {
        std::optional<FanRequest> best;
        for (const auto& [key, request] : requests_) {
            if (!best || *best < request) best = request;
        }
        return best;
    }
    Change set(const FanRequest& request, const Key& key) {
        auto old = effective();
        requests_[key] = request;
        return change(old);
    }
    Change remove(const Key& key) {
        auto old = effective();
        requests_.erase(key);
        return change(old);
    }
    std::optional<FanRequest> request(const Key& key) const {
        auto it = requests_.find(key);
        if (it == requests_.end()) return std::nullopt;
        return it->second;
    }
    std::size_t count() const { return requests_.size(); }
    bool isEmpty() const { return requests_.empty(); }

private:
    Change change(const std::optional<FanRequest>& old) const {
        auto now = effective();
        if (!old && !now) return {Change::Kind::unchanged, std::nullopt};
        if (old && now && old->level == now->level && old->isMax == now->isMax) {
            return {Change::Kind::unchanged, std::nullopt};
        }
        if (!now) return {Change::Kind::release, std::nullopt};
        return {Change::Kind::apply, now};
    }
    std::map<Key, FanRequest> requests_;
};

struct TokenBucket {
    double rate;
    double capacity;
    double tokens;
    double updatedAt;
    TokenBucket(double rate, double capacity, double at) : rate(rate), capacity(capacity), tokens(capacity), updatedAt(at) {}
    bool take(double now);
};

struct ReleaseRequest {
    std::vector<int> handBack;
    std::optional<FanReason> refusal;
    std::vector<int> unrecorded;
    friend bool operator==(const ReleaseRequest&, const ReleaseRequest&) = default;
};

namespace FanPolicy {
inline constexpr double curveStart = 70.0;
inline constexpr double curveFull = 90.0;
inline constexpr double hardMaxAt = 95.0;
inline constexpr double hardMaxReleaseBelow = 85.0;
inline constexpr double fairBackstop = 0.5;
inline constexpr double decayRate = 100.0;
inline constexpr double decayBelow = 70.0;
inline constexpr double fallRate = 100.0;
inline constexpr double minimumChange = 50.0;
inline constexpr double minimumWriteSpacing = 0.9;
inline constexpr int minimumSensors = 4;
inline constexpr int missedTicksAllowed = 3;
inline constexpr double spinUpDeadTime = 6.0;
inline constexpr double spinUpToTarget = 12.0;
inline constexpr double settleTime = 24.0;
inline constexpr double risingBy = 25.0;
inline constexpr double faultAfter = 15.0;
inline constexpr double faultMargin = 300.0;
inline constexpr double faultFraction = 0.15;
inline constexpr int reclaimReassertions = 3;
inline constexpr double reclaimBackoff = 1.0;
inline constexpr double targetToleranceMinimum = 60.0;
inline constexpr double targetToleranceFraction = 0.02;
inline constexpr std::size_t rememberedWrites = 4;
inline constexpr std::size_t foreignReadBacks = 5;
inline constexpr double foreignDrift = 150.0;
inline constexpr int releaseAttempts = 3;
inline constexpr double safeHoldRetry = 10.0;
inline constexpr double callsPerSecond = 5.0;
inline constexpr double callBurst = 20.0;
inline constexpr int maxConnections = 8;
inline constexpr double tickInterval = 1.0;
inline constexpr double modeSwitchSpacing = 10.0;
inline constexpr double releaseRetryGap = 0.5;
inline constexpr double wakeSettle = 3.0;
inline constexpr double sleepHandBackWait = 10.0;
inline constexpr double idleExitAfter = 60.0;
inline constexpr double watchdogStall = 5.0;
inline constexpr double watchdogDeadline = 3.0;

double curve(double die, const FanLimits& limits);
double backstop(ThermalPressure pressure, const FanLimits& limits);
double target(double floor, double curve, double backstop, double decay, const FanLimits& limits);
FanTarget boostTarget(const FanRequest& request, double die, const SafetyCurve& curve, ThermalPressure pressure,
                      double decay, const FanLimits& limits);
FanTarget parkTarget(std::optional<double> die, const SafetyCurve& curve, const std::optional<FanTarget>& lastTarget,
                     const FanLimits& limits);
std::vector<FanWrite> takeoverPlan(const std::vector<FanTarget>& targets);
std::vector<FanWrite> reassertPlan(int fan, const FanTarget& target);
std::vector<FanWrite> releasePlan(const std::vector<FanTarget>& targets);
bool isHandedBack(const std::vector<std::optional<int>>& modes);
bool isSystemMode(std::optional<int> mode);
std::vector<int> handBackTargets(const std::set<int>& ours, const std::vector<std::optional<int>>& modes);
bool journalMayGo(const std::vector<int>& listing, const std::vector<std::optional<int>>& modes);
ReleaseRequest release(const std::vector<int>& manual, const std::optional<std::vector<int>>& journal);
ReleaseRequest releaseUnrecorded(const std::vector<int>& manual, const std::optional<std::vector<int>>& journal,
                                 std::optional<double> die);
double targetTolerance(const FanLimits& limits);
} // namespace FanPolicy

} // namespace tavrick

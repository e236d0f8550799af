#include "FanCore/FanPolicy.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace tavrick;

namespace {
const FanLimits limits = *FanLimits::make(1000, 5000);
FanReading reading(double actual, double target, std::optional<int> mode = 1) {
    return FanReading{0, actual, 1000, 5000, target, mode};
}
} // namespace

TEST(FanLimitsTest, OnlySaneRanges) {
    struct Row { double mn, mx; bool ok; };
    for (auto r : std::vector<Row>{{0, 5000, false}, {-1, 5000, false}, {3000, 3000, false}, {1000, 20000, true},
                                   {1000, 20000.5, false}, {std::nan(""), 5000, false}, {1000, INFINITY, false},
                                   {4000, 3000, false}}) {
        EXPECT_EQ(FanLimits::make(r.mn, r.mx).has_value(), r.ok) << r.mn << " " << r.mx;
    }
    EXPECT_EQ(limits.clamp(std::nan("")), 5000);
    EXPECT_EQ(limits.clamp(500), 1000);
    EXPECT_EQ(limits.clamp(9000), 5000);
    EXPECT_EQ(limits.floor({0.25, false}), 2000);
    EXPECT_EQ(limits.floor(FanRequest::max()), 5000);
}

TEST(FanRequestTest, MakeAndOrder) {
    EXPECT_EQ(FanRequest::make(std::nan(""), false), std::nullopt);
    EXPECT_EQ(FanRequest::make(std::nan(""), true), FanRequest::max());
    EXPECT_EQ(FanRequest::make(7, false), (FanRequest{1.0, false}));
    EXPECT_EQ(FanRequest::make(-2, false), (FanRequest{0.0, false}));
    EXPECT_TRUE((FanRequest{0.25, false}) < (FanRequest{0.5, false}));
    EXPECT_TRUE((FanRequest{1.0, false}) < FanRequest::max());
    EXPECT_FALSE(FanRequest::max() < (FanRequest{1.0, false}));
}

TEST(FanTargetTest, RoundsUpAndRefusesAnUnsafeTarget) {
    auto t = FanTarget::make(1000.2, 0, limits);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->rpm, 1001);
    EXPECT_EQ(t->safeMinimum, 1000);  // raised to the minimum
    EXPECT_EQ(FanTarget::make(2000, 2500, limits), std::nullopt);
    EXPECT_EQ(FanTarget::make(5000.5, 0, limits), std::nullopt);
    EXPECT_EQ(FanTarget::make(4999.5, 0, limits)->rpm, 5000);
    EXPECT_EQ(FanTarget::make(std::nan(""), 0, limits), std::nullopt);
}

TEST(FanPolicyTest, CurveAtItsPoints) {
    struct Row { double die, rpm; };
    for (auto r : std::vector<Row>{{20, 1000}, {70, 1000}, {80, 3000}, {90, 5000}, {94.9, 5000}, {95, 5000},
                                   {std::nan(""), 5000}, {INFINITY, 5000}, {-INFINITY, 5000}}) {
        EXPECT_DOUBLE_EQ(FanPolicy::curve(r.die, limits), r.rpm) << r.die;
    }
}

TEST(FanPolicyTest, HardMaxLatch) {
    SafetyCurve curve;
    curve.observe(95.0);
    EXPECT_TRUE(curve.isHardMax);
    for (auto die : {90.0, 85.0}) {
        curve.observe(die);
        EXPECT_TRUE(curve.isHardMax) << die;
    }
    curve.observe(std::nullopt);
    curve.observe(std::nan(""));
    EXPECT_TRUE(curve.isHardMax);
    EXPECT_EQ(curve.rpm(40, limits), 5000);
    curve.observe(84.9);
    EXPECT_FALSE(curve.isHardMax);
    EXPECT_EQ(curve.rpm(40, limits), 1000);
}

TEST(FanPolicyTest, BoostTargets) {
    SafetyCurve cool;
    auto t = FanPolicy::boostTarget({0, false}, 40, cool, ThermalPressure::nominal, 0, limits);
    EXPECT_EQ(t, (FanTarget{1000, 1000}));
    t = FanPolicy::boostTarget({0, false}, 40, cool, ThermalPressure::serious, 0, limits);
    EXPECT_EQ(t.rpm, 5000);
    t = FanPolicy::boostTarget({0.25, false}, 80, cool, ThermalPressure::fair, 0, limits);
    EXPECT_EQ(t, (FanTarget{3000, 3000}));  // fair backstop and curve both 3000
    t = FanPolicy::boostTarget({0.5, false}, 40, cool, ThermalPressure::nominal, 4200, limits);
    EXPECT_EQ(t.rpm, 4200);  // the decay holds it up
    EXPECT_EQ(t.safeMinimum, 1000);
    EXPECT_EQ(FanPolicy::target(std::nan(""), 0, 0, 0, limits), 5000);
    EXPECT_EQ(thermalPressure(7), ThermalPressure::critical);
    EXPECT_EQ(thermalPressure(1), ThermalPressure::fair);
}

TEST(FanPolicyTest, ParkTarget) {
    SafetyCurve curve;
    EXPECT_EQ(FanPolicy::parkTarget(std::nullopt, curve, std::nullopt, limits), FanTarget::maximum(limits));
    EXPECT_EQ(FanPolicy::parkTarget(std::nan(""), curve, FanTarget{2222, 1000}, limits), (FanTarget{2222, 1000}));
    EXPECT_EQ(FanPolicy::parkTarget(80, curve, std::nullopt, limits), (FanTarget{3000, 3000}));
}

TEST(FanPolicyTest, WritePlansKeepTheirOrder) {
    std::vector<FanTarget> targets{{2000, 1000}, {3000, 1000}};
    EXPECT_EQ(FanPolicy::takeoverPlan(targets),
              (std::vector<FanWrite>{FanWrite::target(0, targets[0]), FanWrite::mode(0, FanMode::manual),
                                     FanWrite::target(1, targets[1]), FanWrite::mode(1, FanMode::manual)}));
    EXPECT_EQ(FanPolicy::releasePlan(targets),
              (std::vector<FanWrite>{FanWrite::target(0, targets[0]), FanWrite::target(1, targets[1]),
                                     FanWrite::mode(0, FanMode::automatic), FanWrite::mode(1, FanMode::automatic)}));
    EXPECT_TRUE(FanPolicy::takeoverPlan({}).empty());
    EXPECT_EQ(FanPolicy::reassertPlan(3, targets[0]),
              (std::vector<FanWrite>{FanWrite::target(3, targets[0]), FanWrite::mode(3, FanMode::manual)}));
    EXPECT_EQ(FanPolicy::reassertPlan(3, targets[0])[1].fan(), 3);
}

TEST(FanPolicyTest, HandedBackAndJournal) {
    EXPECT_FALSE(FanPolicy::isHandedBack({}));
    EXPECT_TRUE(FanPolicy::isHandedBack({0, 3}));
    EXPECT_FALSE(FanPolicy::isHandedBack({0, std::nullopt}));
    EXPECT_FALSE(FanPolicy::isHandedBack({0, 1}));
    EXPECT_FALSE(FanPolicy::isHandedBack({2}));
    EXPECT_EQ(FanPolicy::handBackTargets({2, 0, 1}, {1, 0, std::nullopt}), (std::vector<int>{0, 2}));
    EXPECT_EQ(FanPolicy::handBackTargets({5}, {0}), (std::vector<int>{5}));  // outside the list
    EXPECT_TRUE(FanPolicy::journalMayGo({0, 1}, {0, 3}));
    EXPECT_FALSE(FanPolicy::journalMayGo({0, 1}, {0, 1}));
}

TEST(FanPolicyTest, ReleaseRequests) {
    using V = std::vector<int>;
    EXPECT_EQ(FanPolicy::release({}, V{}), ReleaseRequest{});
    EXPECT_EQ(FanPolicy::release({0, 1}, V{}), (ReleaseRequest{{}, FanReason::anotherApp, {}}));
    EXPECT_EQ(FanPolicy::release({0, 1}, std::nullopt), (ReleaseRequest{{0, 1}, std::nullopt, {}}));
    EXPECT_EQ(FanPolicy::release({1, 0}, V{0}), (ReleaseRequest{{0}, std::nullopt, {}}));
    EXPECT_EQ(FanPolicy::releaseUnrecorded({0, 1}, V{1}, 60), (ReleaseRequest{{0, 1}, std::nullopt, {0}}));
    EXPECT_EQ(FanPolicy::releaseUnrecorded({0, 1}, V{1}, std::nullopt), (ReleaseRequest{{}, FanReason::noTemperature, {}}));
    EXPECT_EQ(FanPolicy::releaseUnrecorded({0, 1}, std::nullopt, 60), (ReleaseRequest{{0, 1}, std::nullopt, {}}));
    EXPECT_EQ(FanPolicy::releaseUnrecorded({}, std::nullopt, std::nullopt), ReleaseRequest{});
}

TEST(FanPolicyTest, ToleranceAndDecay) {
    EXPECT_EQ(FanPolicy::targetTolerance(limits), 80);
    EXPECT_EQ(FanPolicy::targetTolerance(*FanLimits::make(1000, 2000)), 60);
    TakeoverDecay decay(4000, std::nan(""), limits, 0);
    EXPECT_EQ(decay.rpm, 4000);
    EXPECT_EQ(decay.advance(60, 2000, 2), 3800);
    EXPECT_EQ(decay.advance(75, 2000, 5), 3800);   // hot: holds, never rises
    EXPECT_EQ(decay.advance(std::nullopt, 2000, 9), 3800);
    EXPECT_EQ(decay.advance(60, 2000, 10), 3700);  // only one second since the last call
    EXPECT_EQ(decay.advance(60, 2000, 100), 2000);
    EXPECT_EQ(TakeoverDecay(std::nan(""), INFINITY, limits, 0).rpm, 5000);
}

TEST(TargetSmootherTest, FallsAtAHundredPerSecondAndRisesAtOnce) {
    TargetSmoother smoother({3000, 1000}, 0);
    std::vector<double> written;
    for (int t = 1; t <= 3; ++t) {
        auto w = smoother.next({1000, 1000}, t);
        ASSERT_TRUE(w) << t;
        written.push_back(w->rpm);
    }
    EXPECT_EQ(written, (std::vector<double>{2900, 2800, 2700}));
    TargetSmoother rise({1000, 1000}, 0);
    EXPECT_FALSE(rise.next({3000, 1000}, 0.5));  // within 0.9 s of the last write
    EXPECT_EQ(rise.next({3000, 1000}, 0.9)->rpm, 3000);
    // Under 50 rpm waits, unless the written speed is below the safe minimum and must rise.
    EXPECT_FALSE(rise.next({3030, 1000}, 2));
    TargetSmoother unsafe({1000, 1000}, 0);
    EXPECT_EQ(unsafe.next({1020, 1020}, 1)->rpm, 1020);
    TargetSmoother back({1000, 1000}, 10);
    EXPECT_FALSE(back.next({3000, 1000}, 5));  // the clock stepped back
    EXPECT_FALSE(back.next({3000, 1000}, 5.5));
    EXPECT_TRUE(back.next({3000, 1000}, 6));
}

TEST(TemperatureGuardTest, RefusalsAndTicks) {
    EXPECT_EQ(TemperatureGuard::refusal({0, std::nullopt, false}), FanReason::noTemperature);
    EXPECT_EQ(TemperatureGuard::refusal({5, 50, true}), FanReason::staleTemperature);
    EXPECT_EQ(TemperatureGuard::refusal({3, 50, false}), FanReason::tooFewSensors);
    EXPECT_EQ(TemperatureGuard::refusal({4, 50, false}), std::nullopt);
    TemperatureGuard guard({8, 50, false});
    EXPECT_EQ(guard.assess({0, std::nullopt, false}), std::nullopt);
    EXPECT_EQ(guard.assess({0, std::nullopt, false}), std::nullopt);
    EXPECT_EQ(guard.assess({0, std::nullopt, false}), FanReason::noTemperature);  // the third does
    EXPECT_EQ(guard.assess({4, 50, false}), std::nullopt);  // exactly half is tolerated, and resets
    EXPECT_EQ(guard.missedTicks, 0);
    EXPECT_EQ(guard.assess({3, 50, false}), FanReason::sensorsLost);
    EXPECT_EQ(guard.assess({8, 50, true}), FanReason::staleTemperature);
}

TEST(ReadBackCheckTest, ReclaimsReassertThreeTimesThenGiveUp) {
    ReadBackCheck check(0, limits, {3000, 1000});
    int reasserts = 0;
    // Four ticks inside one second: one re-assertion, nothing else.
    for (double t : {1.0, 1.2, 1.5, 1.9}) {
        EXPECT_EQ(check.assess(reading(3000, 3000, 0), t), std::nullopt);
        reasserts += check.mustReassert;
    }
    EXPECT_EQ(reasserts, 1);
    EXPECT_EQ(check.assess(reading(3000, 3000, 3), 2.0), std::nullopt);
    EXPECT_TRUE(check.mustReassert);
    EXPECT_EQ(check.assess(reading(3000, 3000, 0), 4.0), std::nullopt);
    EXPECT_TRUE(check.mustReassert);
    EXPECT_EQ(check.reassertions(), 3);
    EXPECT_EQ(check.assess(reading(3000, 3000, 0), 10.0), FanReason::systemReclaimed);
}

TEST(ReadBackCheckTest, StrangeModesAndStrangers) {
    ReadBackCheck check(0, limits, {3000, 1000});
    for (int i = 0; i < 4; ++i) EXPECT_EQ(check.assess(reading(3000, 3000, 2), i), std::nullopt);
    EXPECT_EQ(check.assess(reading(3000, 3000, 2), 4), FanReason::anotherWriter);
    EXPECT_EQ(check.assess(reading(3000, std::nan(""), 1), 5), FanReason::smcFailed);

    // Five strangers spread over 149 rpm: no other writer; over 150: one.
    ReadBackCheck narrow(0, limits, {3000, 1000});
    for (int i = 0; i < 5; ++i) EXPECT_EQ(narrow.assess(reading(3500, 3500 + (i == 4 ? 149 : 0), 1), i + 1), std::nullopt);
    ReadBackCheck wide(0, limits, {3000, 1000});
    std::optional<FanReason> last;
    for (int i = 0; i < 5; ++i) last = wide.assess(reading(3500, 3500 + (i == 4 ? 150 : 0), 1), i + 1);
    EXPECT_EQ(last, FanReason::anotherWriter);
    // A match within tolerance forgets the strangers.
    ReadBackCheck forgiving(0, limits, {3000, 1000});
    for (int i = 0; i < 4; ++i) forgiving.assess(reading(3500, 3500 + i * 100, 1), i + 1);
    forgiving.assess(reading(3000, 3080, 1), 5);
    EXPECT_TRUE(forgiving.strangers.empty());
    forgiving.wrote(1);
    forgiving.wrote(2);
    forgiving.wrote(3);
    forgiving.wrote(4);
    EXPECT_EQ(forgiving.recentWrites, (std::vector<double>{1, 2, 3, 4}));
}

TEST(ReadBackCheckTest, LivenessFaultAfterSettleAndFifteenShortSeconds) {
    ReadBackCheck check(0, limits, {3000, 1000});
    for (int t = 0; t < 24; ++t) EXPECT_EQ(check.assess(reading(0, 3000), t), std::nullopt) << t;
    for (int t = 24; t < 39; ++t) EXPECT_EQ(check.assess(reading(0, 3000), t), std::nullopt) << t;
    EXPECT_EQ(check.assess(reading(0, 3000), 39), FanReason::fanFault);

    // Climbing by 25 rpm restarts the clock; near enough clears it.
    ReadBackCheck climbing(0, limits, {3000, 1000});
    climbing.assess(reading(1000, 3000), 24);
    climbing.assess(reading(1025, 3000), 38);
    EXPECT_EQ(climbing.assess(reading(1030, 3000), 52), std::nullopt);
    EXPECT_EQ(climbing.assess(reading(1030, 3000), 53), FanReason::fanFault);
    ReadBackCheck near(0, limits, {3000, 1000});
    EXPECT_EQ(near.assess(reading(2550, 3000), 40), std::nullopt);  // 3000 - 450 is not above 2550
    EXPECT_FALSE(near.shortSince);
    EXPECT_EQ(near.assess(reading(std::nan(""), 3000), 41), std::nullopt);
    EXPECT_EQ(near.shortSince, 41);
}

TEST(FanOwnershipTest, HighestDemandWins) {
    using Kind = FanOwnership<int>::Change::Kind;
    FanOwnership<int> owners;
    EXPECT_EQ(owners.remove(1).kind, Kind::unchanged);
    auto c = owners.set({0.5, false}, 1);
    EXPECT_EQ(c.kind, Kind::apply);
    EXPECT_EQ(c.request, (FanRequest{0.5, false}));
    EXPECT_EQ(owners.set({0.25, false}, 2).kind, Kind::unchanged);
    EXPECT_EQ(owners.set({1.0, false}, 3).kind, Kind::apply);
    EXPECT_EQ(owners.set(FanRequest::max(), 4).request, FanRequest::max());
    EXPECT_EQ(owners.remove(3).kind, Kind::unchanged);  // equal level, the max one still stands
    EXPECT_EQ(owners.effective(), FanRequest::max());
    owners.remove(4);
    owners.remove(2);
    EXPECT_EQ(owners.count(), 1u);
    EXPECT_EQ(owners.remove(1).kind, Kind::release);
    EXPECT_TRUE(owners.isEmpty());
}

TEST(TokenBucketTest, BurstThenRate) {
    TokenBucket bucket(5, 20, 0);
    int taken = 0;
    for (int i = 0; i < 25; ++i) taken += bucket.take(0);
    EXPECT_EQ(taken, 20);
    EXPECT_FALSE(bucket.take(0.1));  // half a token
    EXPECT_TRUE(bucket.take(0.2));
    EXPECT_FALSE(bucket.take(0.1));  // a clock that steps back only delays the refill
    EXPECT_FALSE(bucket.take(0.2));
    EXPECT_TRUE(bucket.take(0.31));
}

TEST(FanReasonTest, UnknownTextIsUnknown) {
    EXPECT_EQ(fanReasonFromRaw("someNewThing"), FanReason::unknown);
    EXPECT_EQ(fanReasonFromRaw(rawValue(FanReason::journalFailed)), FanReason::journalFailed);
}

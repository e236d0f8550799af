#include "FanHelper/FanHelperCore.h"
#include "Platform/Simulated/SimulatedSMC.h"

#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

using namespace tavrick;
namespace Reply = FanHelperReply;

namespace {

SimulatedSMC::Faults with(const std::function<void(SimulatedSMC::Faults&)>& set) {
    SimulatedSMC::Faults faults;
    set(faults);
    return faults;
}

// The helper's logic over a simulated chip, on virtual time: each tick moves the chip and the
// helper on by one second together.
struct Rig {
    tavrick::testing::TempDir dir;
    SimulatedSMC chip{dir / "smc"};
    std::unique_ptr<SMCDriver> driver = chip.driver();
    std::unique_ptr<DieSensorSource> source = chip.sensors();
    SMCReader reader{*driver};
    ThermalSensors sensors{*source};
    FanJournal journal{dir / "journal.json"};
    std::vector<std::string> lines;
    std::unique_ptr<FanHelperCore> core;
    double now = 1000;
    double wall = 1.7e9;

    explicit Rig(int automaticMode = 0) {
        chip.reset(2, 1200, 6000, 8, automaticMode);
        make();
    }
    void make() {
        core = std::make_unique<FanHelperCore>(FanHelperCore::Environment{
            reader, sensors, journal, "7", std::string("abc"), [](double) {},
            [this](const std::string& line) { lines.push_back(line); }});
        core->start(now, wall);
    }
    void tick(int seconds = 1) {
        for (int i = 0; i < seconds; ++i) {
            chip.elapse(1.0);
            now += 1;
            wall += 1;
            core->tick(now, wall);
        }
    }
    std::string call(FanHelperCore::ClientID client, FanHelperCall which, double level = 0, bool max = false) {
        return core->handle(client, {1, which, level, max}, now, wall);
    }
    Reply::ApplyResult apply(FanHelperCore::ClientID client, double level, bool max = false) {
        return Reply::decode<Reply::ApplyResult>(call(client, FanHelperCall::apply, level, max));
    }
    std::vector<int> modes() {
        std::vector<int> out;
        for (const auto& f : chip.fans()) out.push_back(f.mode);
        return out;
    }
    bool handedBack() {
        for (int m : modes()) {
            if (m != 0 && m != 3) return false;
        }
        return true;
    }
    // Ticks until the boost ends, at most `limit` times; the reason it ended with, if it did.
    std::optional<FanReason> tickUntilEnded(int limit) {
        for (int i = 0; i < limit; ++i) {
            tick();
            if (!core->isControlling()) return core->status().reason;
        }
        return std::nullopt;
    }
};

} // namespace

TEST(FanHelperCoreTest, BoostFollowsTheRequestAndTheLastClientLeavingHandsBack) {
    Rig rig;
    auto result = rig.apply(1, 0.5);
    ASSERT_TRUE(result.accepted);
    EXPECT_TRUE(result.status.controlling);
    EXPECT_EQ(result.status.state, Reply::Status::State::boosting);
    EXPECT_EQ(rig.modes(), (std::vector<int>{1, 1}));
    EXPECT_EQ(rig.journal.read()->fans, (std::vector<int>{0, 1}));  // written before the fans were taken
    EXPECT_EQ(result.status.setByTavrick, (std::vector<int>{0, 1}));
    rig.tick(15);
    auto fans = rig.chip.fans();
    EXPECT_NEAR(fans[0].target, 3600, 1);  // half way between 1200 and 6000
    EXPECT_GT(fans[0].actual, 3000);       // and the fan has climbed
    // A second client at a lower level changes nothing; the first leaving keeps the boost.
    EXPECT_TRUE(rig.apply(2, 0.25).accepted);
    rig.core->clientLeft(1, rig.now, rig.wall);
    EXPECT_TRUE(rig.core->isControlling());
    rig.core->clientLeft(2, rig.now, rig.wall);
    EXPECT_FALSE(rig.core->isControlling());
    EXPECT_TRUE(rig.handedBack());
    EXPECT_FALSE(rig.journal.read());
    auto status = rig.core->status();
    ASSERT_TRUE(status.lastRelease);
    EXPECT_EQ(status.lastRelease->reasonName(), "asked");
    EXPECT_EQ(status.setByTavrick, std::vector<int>{});
}

TEST(FanHelperCoreTest, FaultsEndTheBoostWithTheirReasonAndTheFansGoBack) {
    struct Row {
        const char* name;
        std::function<void(Rig&)> inject;
        int ticks;
        FanReason reason;
    };
    std::vector<Row> rows{
        {"stuck fan", [](Rig& r) { r.chip.setFaults(with([](SimulatedSMC::Faults& f) { f.stuckFan = 1; })); }, 45, FanReason::fanFault},
        {"sensors vanish", [](Rig& r) { r.chip.setSensorCount(0); }, 3, FanReason::noTemperature},
        {"most sensors lost", [](Rig& r) { r.chip.setSensorCount(3); }, 1, FanReason::sensorsLost},
        {"frozen sensors", [](Rig& r) { r.chip.setFaults(with([](SimulatedSMC::Faults& f) { f.sensorsFrozen = true; })); }, 32, FanReason::staleTemperature},
        {"system reclaims", [](Rig& r) { r.chip.setFaults(with([](SimulatedSMC::Faults& f) { f.systemReclaims = true; })); }, 12, FanReason::systemReclaimed},
    };
    for (const auto& row : rows) {
        Rig rig;
        ASSERT_TRUE(rig.apply(1, 0.5).accepted) << row.name;
        rig.tick(2);
        row.inject(rig);
        EXPECT_EQ(rig.tickUntilEnded(row.ticks + 2), row.reason) << row.name;
        rig.chip.setFaults({});
        EXPECT_TRUE(rig.handedBack()) << row.name;
        EXPECT_EQ(rig.core->status().request, std::nullopt) << row.name;  // the fault ended every request
    }
}

TEST(FanHelperCoreTest, AForeignWriterEndsTheBoostAndItsFanGoesBackOnceItStops) {
    Rig rig;
    ASSERT_TRUE(rig.apply(1, 0.5).accepted);
    rig.tick(2);
    rig.chip.setFaults(with([](SimulatedSMC::Faults& f) { f.foreignWriter = 0; }));
    EXPECT_EQ(rig.tickUntilEnded(10), FanReason::anotherWriter);
    EXPECT_EQ(rig.modes()[1], 0);
    // The other program still holds its fan: the helper holds it safe and keeps trying.
    EXPECT_TRUE(rig.core->status().safeHold);
    rig.chip.setFaults({});
    rig.tick(11);
    EXPECT_FALSE(rig.core->status().safeHold);
    EXPECT_TRUE(rig.handedBack());
}

TEST(FanHelperCoreTest, RefusalsLeaveTheFansAlone) {
    {
        Rig rig;
        rig.chip.takeFan(1, 2000);  // another program's fan, no journal entry
        auto r = rig.apply(1, 0.5);
        EXPECT_FALSE(r.accepted);
        EXPECT_EQ(r.reason, FanReason::anotherApp);
        EXPECT_EQ(rig.modes(), (std::vector<int>{0, 1}));
        auto release = Reply::decode<Reply::ReleaseResult>(rig.call(1, FanHelperCall::releaseFans));
        EXPECT_FALSE(release.released);
        EXPECT_EQ(release.reason, FanReason::anotherApp);
        EXPECT_EQ(rig.modes(), (std::vector<int>{0, 1}));
        release = Reply::decode<Reply::ReleaseResult>(rig.call(1, FanHelperCall::releaseUnrecordedFans));
        EXPECT_TRUE(release.released);
        EXPECT_EQ(release.fans, std::vector<int>{1});
        EXPECT_EQ(release.unrecorded, std::vector<int>{1});
        EXPECT_TRUE(rig.handedBack());
    }
    {
        Rig rig;
        rig.chip.setSensorCount(3);
        rig.tick();
        EXPECT_EQ(rig.apply(1, 0.5).reason, FanReason::tooFewSensors);
        EXPECT_EQ(rig.apply(1, std::nan(""), false).reason, FanReason::invalidRequest);
        EXPECT_EQ(rig.modes(), (std::vector<int>{0, 0}));
    }
    {
        Rig rig;
        rig.chip.setFaults(with([](SimulatedSMC::Faults& f) { f.writesFail = true; }));
        auto r = rig.apply(1, 1, true);
        EXPECT_FALSE(r.accepted);
        EXPECT_EQ(r.reason, FanReason::smcFailed);
        EXPECT_TRUE(rig.handedBack());
    }
    {
        Rig rig;
        tavrick::testing::writeFile(rig.dir / "blocker", "x");
        rig.journal = FanJournal(rig.dir / "blocker" / "journal.json");
        rig.make();
        auto r = rig.apply(1, 0.5);
        EXPECT_EQ(r.reason, FanReason::journalFailed);
        EXPECT_EQ(rig.modes(), (std::vector<int>{0, 0}));
    }
}

TEST(FanHelperCoreTest, AJournalLeftByACrashIsHandedBackFirst) {
    for (int automaticMode : {0, 3}) {
        Rig rig(automaticMode);
        ASSERT_TRUE(rig.apply(1, 1, true).accepted);
        rig.tick(3);
        EXPECT_EQ(rig.modes(), (std::vector<int>{1, 1}));
        // The helper dies here; a new run finds the journal.
        rig.make();
        auto status = rig.core->status();
        EXPECT_TRUE(status.recoveredOrphan);
        EXPECT_FALSE(status.controlling);
        EXPECT_EQ(rig.modes(), (std::vector<int>{automaticMode, automaticMode}));
        EXPECT_FALSE(rig.journal.read());
        ASSERT_TRUE(status.lastRelease);
        EXPECT_EQ(status.lastRelease->reason, FanReason::reclaiming);
    }
    // An unreadable journal is kept aside, and every manual fan is handed back.
    Rig rig;
    rig.chip.takeFan(0, 5000);
    tavrick::testing::writeFile(rig.journal.path(), "{not json");
    rig.make();
    EXPECT_TRUE(rig.handedBack());
    EXPECT_TRUE(rig.core->status().recoveredOrphan);
}

TEST(FanHelperCoreTest, FansChangeHandsAtMostOnceEveryTenSeconds) {
    Rig rig;
    ASSERT_TRUE(rig.apply(1, 0.5).accepted);
    rig.call(1, FanHelperCall::handBack);
    EXPECT_TRUE(rig.handedBack());
    auto again = rig.apply(1, 0.5);
    EXPECT_TRUE(again.accepted);
    EXPECT_FALSE(again.status.controlling);  // taken once the spacing has passed
    rig.tick(9);
    EXPECT_FALSE(rig.core->isControlling());
    rig.tick(1);
    EXPECT_TRUE(rig.core->isControlling());
    // Holding the fans, the helper does not step aside for an update.
    rig.call(1, FanHelperCall::exitForUpdate);
    EXPECT_FALSE(rig.core->wantsExit());
    rig.core->shutDown(rig.now, rig.wall);
    EXPECT_TRUE(rig.handedBack());
    EXPECT_EQ(rig.core->status().reason, FanReason::exiting);
    rig.call(1, FanHelperCall::exitForUpdate);
    EXPECT_TRUE(rig.core->wantsExit());
}

TEST(FanHelperCoreTest, HelloAndIdle) {
    Rig rig;
    auto hello = Reply::decode<Reply::Hello>(rig.call(1, FanHelperCall::hello));
    EXPECT_EQ(hello, (Reply::Hello{1, std::string("abc"), "7"}));
    EXPECT_FALSE(rig.core->isIdle(rig.now + 59, 0));
    EXPECT_TRUE(rig.core->isIdle(rig.now + 60, 0));
    EXPECT_FALSE(rig.core->isIdle(rig.now + 60, 1));
}

TEST(FanHelperCoreTest, AfterSleepTheFansGoBackAndAreTakenAgainOnceSettled) {
    Rig rig;
    ASSERT_TRUE(rig.apply(1, 0.5).accepted);
    rig.tick(12);
    rig.core->woke(rig.now, rig.wall);
    EXPECT_TRUE(rig.handedBack());
    auto status = rig.core->status();
    EXPECT_EQ(status.reason, FanReason::sleeping);
    EXPECT_EQ(status.request, (FanRequest{0.5, false}));  // the request stays
    rig.tick(2);
    EXPECT_FALSE(rig.core->isControlling());
    rig.tick(1);
    EXPECT_TRUE(rig.core->isControlling());  // three seconds after the wake
    // Waking while idle takes nothing.
    Rig idle;
    idle.core->woke(idle.now, idle.wall);
    idle.tick(5);
    EXPECT_FALSE(idle.core->isControlling());
}

// The watchdog runs on a real thread: these tests wait on real time, briefly.
#include "FanHelper/FanHelperCore.h"
#include "FanHelper/FanWatchdog.h"
#include "Platform/Simulated/SimulatedSMC.h"

#include "Support/Eventually.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

using namespace tavrick;
using tavrick::testing::eventually;

TEST(FanWatchdogTest, AStalledTickWhileHoldingFansHandsBackAndEnds) {
    std::atomic<int> emergencies{0}, ends{0};
    {
        FanWatchdog watchdog(0.2, 0.3, [&] { ++emergencies; }, [&] { ++ends; });
        // Unarmed, a missing beat is nobody's business.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(emergencies, 0);
        watchdog.setArmed(true);
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            watchdog.beat();
        }
        EXPECT_FALSE(watchdog.hasFired());
        EXPECT_TRUE(eventually([&] { return ends.load() == 1; }, 3));
        EXPECT_EQ(emergencies, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(400));  // past the deadline: still one end
        EXPECT_EQ(ends, 1);
    }
    // An emergency that hangs still ends at the deadline.
    std::atomic<bool> release{false};
    std::atomic<int> hungEnds{0};
    FanWatchdog hung(0.1, 0.2, [&] { eventually([&] { return release.load(); }, 3); }, [&] { ++hungEnds; });
    hung.setArmed(true);
    EXPECT_TRUE(eventually([&] { return hungEnds.load() == 1; }, 2));
    release = true;
}

TEST(FanWatchdogTest, TheEmergencyHandBackGivesTheJournalsFansBackAtTheirMaximum) {
    tavrick::testing::TempDir dir;
    SimulatedSMC chip(dir / "smc");
    chip.reset(3, 1200, 6000, 8);
    chip.takeFan(0, 3000);
    chip.takeFan(2, 3000);
    FanJournal journal(dir / "journal.json");
    ASSERT_TRUE(journal.write({{0, 1}, 0}));
    auto driver = chip.driver();
    SMCReader reader(*driver);
    EXPECT_EQ(FanHelperCore::emergencyHandBack(reader, journal), (std::vector<int>{0, 1}));
    auto fans = chip.fans();
    EXPECT_EQ(fans[0].mode, 0);
    EXPECT_EQ(fans[2].mode, 1);  // not ours: left to the program that set it
    // Without a journal every manual fan goes back.
    journal.remove();
    EXPECT_EQ(FanHelperCore::emergencyHandBack(reader, journal), (std::vector<int>{2}));
    EXPECT_EQ(chip.fans()[2].mode, 0);
}

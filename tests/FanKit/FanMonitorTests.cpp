#include "FanKit/FanMonitor.h"
#include "Platform/Linux/HwmonSensors.h"
#include "Platform/Simulated/SimulatedSMC.h"

#include "CoreKit/ManualScheduler.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace tavrick;
using tavrick::testing::writeFile;

TEST(FanMonitorTest, PollsOnlyWhileWatched) {
    struct Row { int watchers; bool alwaysOn; std::optional<double> interval; };
    for (auto r : std::vector<Row>{{1, true, 2.0}, {2, false, 2.0}, {0, true, 5.0}, {0, false, std::nullopt}}) {
        EXPECT_EQ(FanMonitor::pollInterval(r.watchers, r.alwaysOn), r.interval) << r.watchers << r.alwaysOn;
    }
    tavrick::testing::TempDir dir;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(dir.path(), scheduler);
    SimulatedSMC chip(dir / "smc");
    chip.reset(2, 1200, 6000, 8);
    auto driver = chip.driver();
    auto source = chip.sensors();
    SMCReader reader(*driver);
    ThermalSensors sensors(*source);
    FanMonitor monitor(scheduler, *log, reader, sensors);
    monitor.removeWatcher();  // never below zero
    EXPECT_EQ(monitor.watchers(), 0);
    scheduler.advance(10);
    EXPECT_FALSE(monitor.hasRead());
    monitor.addWatcher();
    scheduler.runUntilIdle();
    EXPECT_TRUE(monitor.hasRead());
    EXPECT_EQ(monitor.fans().get().size(), 2u);
    EXPECT_EQ(monitor.sensorCount(), 8);
    EXPECT_FALSE(monitor.isFanless());
    monitor.removeWatcher();
    EXPECT_EQ(scheduler.pendingTimers(), 0u);
}

TEST(FanMonitorTest, HwmonTreesAreReadAndAFailureIsLoggedOnce) {
    tavrick::testing::TempDir dir;
    auto root = dir / "hwmon";
    writeFile(root / "hwmon0" / "name", "k10temp\n");
    writeFile(root / "hwmon0" / "temp1_input", "48250\n");
    writeFile(root / "hwmon0" / "temp1_label", "Tctl\n");
    writeFile(root / "hwmon0" / "temp3_input", "51000\n");
    writeFile(root / "hwmon1" / "fan1_input", "1850\n");
    writeFile(root / "hwmon1" / "fan1_min", "600\n");
    writeFile(root / "hwmon1" / "fan1_max", "4200\n");
    writeFile(root / "hwmon1" / "fan2_input", "0\n");
    HwmonSMC smc(root);
    EXPECT_TRUE(smc.hasFans());
    HwmonTemperatures temperatures(root);
    SMCReader reader(smc);
    ThermalSensors sensors(temperatures);
    auto sample = FanMonitor::read(reader, sensors);
    ASSERT_FALSE(sample.failure) << *sample.failure;
    ASSERT_EQ(sample.fans.size(), 2u);
    EXPECT_EQ(sample.fans[0], (FanReading{0, 1850, 600, 4200, 1850, std::nullopt}));
    EXPECT_EQ(sample.fans[1].maximum, 0);  // no range given: shown, never trusted for a boost
    EXPECT_EQ(sample.celsius, (std::vector<double>{48.25, 51.0}));
    auto names = temperatures.enumerate();
    EXPECT_EQ(names[0].second, "Tctl");
    EXPECT_EQ(names[1].second, "k10temp temp3");
    // Writes are refused, whatever asks.
    SMCParamStruct in{}, out{};
    in.key = *FourCC::pack("F0Tg");
    in.data8 = 6;
    std::uint32_t connection = 0;
    smc.openService(connection);
    smc.callStruct(connection, smcSelector, in, out);
    EXPECT_EQ(out.result, 0x86);

    // A fan whose file vanishes: the read fails, the failure is logged once, and the list empties.
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(dir.path(), scheduler);
    FanMonitor monitor(scheduler, *log, reader, sensors);
    monitor.addWatcher();
    scheduler.runUntilIdle();
    EXPECT_EQ(monitor.fans().get().size(), 2u);
    std::filesystem::remove(root / "hwmon1" / "fan2_input");
    writeFile(root / "hwmon1" / "fan3_input", "");
    for (int i = 0; i < 3; ++i) scheduler.advance(2);
    EXPECT_EQ(monitor.failure().get(), "The SMC key cannot be read.");
    EXPECT_TRUE(monitor.fans().get().empty());
    log->flush();
    auto text = tavrick::testing::readFile(log->fileURL());
    std::size_t count = 0;
    for (auto at = text.find("could not read the fans"); at != std::string::npos; at = text.find("could not read the fans", at + 1)) ++count;
    EXPECT_EQ(count, 1u);
    // No fans at all: the machine is fanless, and the readout is the temperature.
    HwmonSMC none(dir / "nothing");
    SMCReader noneReader(none);
    EXPECT_TRUE(FanKeys::discover((noneReader.open(), noneReader)).isFanless());
}

TEST(FanFormatTest, Texts) {
    std::vector<FanReading> three{{0, 1234, 1200, 6000, 1300, 0}, {1, 2000, 1200, 6000, 2000, 0}, {2, 3000.4, 1200, 6000, 3000, 1}};
    EXPECT_EQ(FanFormat::speeds(three, false), "1,234 · 2,000 · 3,000 rpm");
    auto four = three;
    four.push_back({3, 900, 800, 5000, 900, 0});
    EXPECT_EQ(FanFormat::speeds(four, false), "900–3,000 rpm");
    std::vector<FanReading> stopped{{0, 0, 1200, 6000, 0, 0}};
    EXPECT_EQ(FanFormat::speeds(stopped, false), "Off");
    EXPECT_EQ(FanFormat::speeds(stopped, true), "Spinning up");
    stopped[0].target = 2000;
    EXPECT_TRUE(FanFormat::areHeld(stopped));
    EXPECT_EQ(FanFormat::speeds(stopped, false), "Spinning up");
    EXPECT_EQ(FanFormat::speeds({}, false), std::nullopt);
    EXPECT_EQ(FanFormat::compact(999.4), "999");
    EXPECT_EQ(FanFormat::compact(2450), "2.5k");
    EXPECT_EQ(FanFormat::compact(NAN), "–");
    EXPECT_EQ(FanFormat::degrees(61.6), "62°");
    EXPECT_EQ(FanFormat::range(three[0]), "1,200–6,000 rpm");
    EXPECT_EQ(FanFormat::floors(three, FanPreset::boost25), "2,400 rpm, 2,400 rpm, 2,400 rpm");
    EXPECT_EQ(FanFormat::floors(three, FanPreset::automatic), std::nullopt);
    EXPECT_EQ(FanFormat::readout(three, 50), " 3.0k");
    EXPECT_EQ(FanFormat::readout({}, 61.6), "  62°");
    EXPECT_EQ(FanFormat::rangeFraction(three[1]), (2000.0 - 1200) / 4800);
    EXPECT_EQ(FanFormat::probeLine({0, 2400, 1200, 6000, 2400, std::nullopt}),
              "  fan 0  Ac  2400  Mn  1200  Mx  6000  Tg  2400  mode –");
}

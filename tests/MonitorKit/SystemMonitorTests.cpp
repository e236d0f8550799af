#include "CoreKit/ManualScheduler.h"
#include "MonitorKit/SystemMonitor.h"
#include "Platform/Linux/LinuxSystemReadings.h"
#include "Support/Process.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <sstream>
#include <unistd.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

const std::filesystem::path fixtures = std::filesystem::path(TAVRICK_SOURCE_DIR) / "tests/MonitorKit/fixtures/sys";

TEST(SystemMonitorMath, MemoryNeverWrapsBelowZero) {
    struct Case { std::uint64_t total, internal, purgeable, wired, compressed, app, used, available; };
    const Case cases[] = {
        {1000 * 4096, 300, 100, 50, 25, 200 * 4096, 275 * 4096, 725 * 4096},
        {1000 * 4096, 100, 300, 50, 0, 0, 50 * 4096, 950 * 4096},     // purgeable above internal
        {100 * 4096, 300, 0, 50, 0, 300 * 4096, 350 * 4096, 0},       // more in use than installed
    };
    for (const auto& c : cases) {
        auto s = MemorySnapshot::make(4096, c.total, c.internal, c.purgeable, c.wired, c.compressed);
        EXPECT_EQ(s.app, c.app);
        EXPECT_EQ(s.used, c.used);
        EXPECT_EQ(s.available, c.available);
    }
}

TEST(SystemMonitorMath, AmperageAndWatts) {
    const std::pair<std::uint64_t, std::int64_t> amperages[] = {
        {4294966296ULL, -1000}, {0xFC18, -1000}, {1200, 1200}, {0x7FFF, 32767}, {2147483648ULL, -2147483648LL}, {0, 0}};
    for (auto [raw, expected] : amperages) EXPECT_EQ(PowerSnapshot::normaliseAmperage(raw), expected) << raw;
    EXPECT_EQ(PowerSnapshot::wattsFrom(0, 1000), std::nullopt);
    EXPECT_EQ(PowerSnapshot::wattsFrom(std::nullopt, 1000), std::nullopt);
    EXPECT_EQ(PowerSnapshot::wattsFrom(12000, std::nullopt), std::nullopt);
    EXPECT_DOUBLE_EQ(*PowerSnapshot::wattsFrom(12000, -1500), -18.0);
    EXPECT_DOUBLE_EQ(*PowerSnapshot::wattsFrom(1, 1000000), 1.0);
}

TEST(SystemMonitorMath, PowerAndUptimeTexts) {
    auto snap = [](std::optional<double> watts, bool charging, bool plugged) {
        PowerSnapshot p;
        p.watts = watts;
        p.isCharging = charging;
        p.isPluggedIn = plugged;
        return p;
    };
    const std::pair<PowerSnapshot, std::optional<std::string>> summaries[] = {
        {snap(std::nullopt, false, true), "On the adapter"},
        {snap(0.04, false, true), "On the adapter"},
        {snap(-0.04, false, false), std::nullopt},
        {snap(-8.06, false, false), "Using 8.1 W"},
        {snap(12.5, true, true), "Charging at 12.5 W"},
        {snap(3.0, false, true), "3.0 W"},
    };
    for (const auto& [snapshot, expected] : summaries) EXPECT_EQ(PowerFormat::summary(snapshot), expected);
    EXPECT_EQ(PowerFormat::celsius(31.6), "32 °C");
    const std::pair<double, const char*> uptimes[] = {
        {-5, "just now"}, {59.9, "just now"}, {60, "1 min"}, {3599, "59 min"}, {3600, "1 h"},
        {3660, "1 h 1 min"}, {86399, "23 h 59 min"}, {86400, "1 day"}, {3 * 86400 + 5, "3 days"}};
    for (auto [seconds, text] : uptimes) EXPECT_EQ(Uptime::describe(seconds), text) << seconds;
}

TEST(SystemMonitorMath, HogsAreLargestFirstAndSkipTheVanished) {
    std::vector<MemoryHogs::Candidate> candidates{{10, 500}, {11, 0}, {12, 900}, {13, 700}, {14, 900}, {0, 999}, {15, 800}};
    auto nameOf = [](std::int32_t pid) -> std::optional<std::string> {
        if (pid == 13) return std::nullopt;  // exited between the count and the naming
        if (pid == 14) return "systemd";
        return "p" + std::to_string(pid);
    };
    auto hogs = MemoryHogs::top(3, candidates, nameOf, 15);
    ASSERT_EQ(hogs.size(), 3u);
    EXPECT_EQ(hogs[0], (MemoryHog{12, "p12", 900, true}));
    EXPECT_EQ(hogs[1], (MemoryHog{14, "systemd", 900, false}));
    EXPECT_EQ(hogs[2], (MemoryHog{15, "p15", 800, false}));  // this program
    EXPECT_TRUE(MemoryHogs::top(0, candidates, nameOf, 1).empty());
    EXPECT_EQ(ProcessName::choose(std::string_view("/usr/bin/python3"), std::string_view("/x/y")), "python3");
    EXPECT_EQ(ProcessName::choose(std::string_view("/trailing/"), std::string_view("/usr/lib/exe")), "exe");
    EXPECT_EQ(ProcessName::choose(std::nullopt, std::nullopt), std::nullopt);
}

TEST(SystemMonitorService, SamplesOnlyWhileWatchedAndTheDiskEveryTenth) {
    ManualScheduler scheduler;
    int memoryReads = 0, diskReads = 0;
    SystemReadings readings;
    readings.memory = [&] { return MemorySnapshot{static_cast<std::uint64_t>(++memoryReads), 0, 0, 0, 0, 0}; };
    readings.power = [] { return PowerSnapshot{}; };
    readings.disk = [&] { return DiskSnapshot{static_cast<std::uint64_t>(++diskReads), 0}; };
    SystemMonitor monitor(scheduler, readings);
    int memoryChanges = 0;
    auto observation = monitor.memory().observe([&](const auto&) { ++memoryChanges; });

    monitor.removeWatcher();  // nobody watching: stays at zero
    EXPECT_EQ(monitor.watchers(), 0);
    scheduler.advance(10);
    EXPECT_EQ(memoryReads, 0);

    monitor.addWatcher();
    monitor.addWatcher();
    EXPECT_EQ(memoryReads, 1);  // the first watcher reads at once, the second adds nothing
    EXPECT_EQ(diskReads, 1);
    scheduler.advance(SystemMonitor::interval * 9);
    EXPECT_EQ(memoryReads, 10);
    EXPECT_EQ(diskReads, 1);
    scheduler.advance(SystemMonitor::interval);
    EXPECT_EQ(memoryReads, 11);
    EXPECT_EQ(diskReads, 2);  // the 11th sample, ten after the first
    EXPECT_EQ(memoryChanges, 11);

    monitor.removeWatcher();
    scheduler.advance(SystemMonitor::interval * 3);
    EXPECT_EQ(memoryReads, 14);  // one watcher is still there
    monitor.removeWatcher();
    monitor.removeWatcher();
    EXPECT_EQ(monitor.watchers(), 0);
    scheduler.advance(SystemMonitor::interval * 5);
    EXPECT_EQ(memoryReads, 14);
}

TEST(LinuxReadings, MeminfoMapsOntoTheModelAndBadTextGivesNothing) {
    const std::string meminfo =
        "MemTotal:       16000000 kB\nMemFree:         1000000 kB\nMemAvailable:    6000000 kB\n"
        "SwapTotal:       2000000 kB\nSwapFree:        1500000 kB\nKernelStack:       20000 kB\n"
        "PageTables:        80000 kB\nSUnreclaim:       300000 kB\nUnevictable:       100000 kB\nZswap:  400000 kB\n";
    auto memory = LinuxSystemReadings::memoryFrom(LinuxSystemReadings::parseMeminfo(meminfo));
    ASSERT_TRUE(memory);
    EXPECT_EQ(memory->total, 16000000ULL * 1024);
    EXPECT_EQ(memory->used, 10000000ULL * 1024);  // total less MemAvailable, as free(1) counts it
    EXPECT_EQ(memory->available, 6000000ULL * 1024);
    EXPECT_EQ(memory->wired, 500000ULL * 1024);
    EXPECT_EQ(memory->compressed, 400000ULL * 1024);
    EXPECT_EQ(memory->app, 9100000ULL * 1024);

    const char* broken[] = {"", "MemTotal: 100 kB\n", "MemTotal: lots\nMemAvailable: 5 kB\n",
                            "MemTotal:       160", "\x01\x02garbage:::\n\n", "MemTotal: 0 kB\nMemAvailable: 0 kB\n"};
    for (const char* text : broken) EXPECT_EQ(LinuxSystemReadings::memoryFrom(LinuxSystemReadings::parseMeminfo(text)), std::nullopt) << text;

    // Wired that claims more than is in use is held to it: used stays total − available.
    auto odd = LinuxSystemReadings::memoryFrom(LinuxSystemReadings::parseMeminfo(
        "MemTotal: 1000 kB\nMemAvailable: 900 kB\nSUnreclaim: 5000 kB\n"));
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->used, 100u * 1024);
    EXPECT_EQ(odd->app, 0u);

    const std::pair<const char*, MemoryPressure> pressures[] = {
        {"some avg10=0.00 avg60=0.00 avg300=0.00 total=0\nfull avg10=0.00 avg60=0.00 avg300=0.00 total=0\n", MemoryPressure::normal},
        {"some avg10=12.50 avg60=3.00 avg300=1.00 total=9\nfull avg10=2.00 avg60=0 avg300=0 total=1\n", MemoryPressure::warning},
        {"some avg10=45.00 avg60=0 avg300=0 total=9\nfull avg10=1.00 avg60=0 avg300=0 total=1\n", MemoryPressure::critical},
        {"some avg10=20.00 avg60=0 avg300=0 total=9\nfull avg10=10.00 avg60=0 avg300=0 total=1\n", MemoryPressure::critical},
        {"some avg10=", MemoryPressure::normal},
        {"garbage", MemoryPressure::normal},
    };
    for (auto [psi, expected] : pressures) EXPECT_EQ(LinuxSystemReadings::pressureFrom(psi), expected) << psi;
    EXPECT_EQ(LinuxSystemReadings::swappedPages("nr_free_pages 5\npswpin 120\npswpout 30\n"), 150u);
    EXPECT_EQ(LinuxSystemReadings::swappedPages("pswpin 120\n"), std::nullopt);
    EXPECT_EQ(LinuxSystemReadings::swappedPages("pswpin 12x\npswpout 1\n"), std::nullopt);
    const std::pair<double, MemoryPressure> rates[] = {
        {0, MemoryPressure::normal}, {99.9, MemoryPressure::normal}, {100, MemoryPressure::warning}, {1000, MemoryPressure::critical}};
    for (auto [rate, expected] : rates) EXPECT_EQ(LinuxSystemReadings::pressureFromSwapRate(rate), expected) << rate;
}

TEST(LinuxReadings, PowerFromLaptopDesktopAndOddFixtures) {
    auto read = [](const char* machine) {
        return LinuxSystemReadings({.procRoot = "/nonexistent", .sysRoot = fixtures / machine, .volume = "/", .selfPID = 1}).power();
    };
    auto laptop = read("laptop");
    EXPECT_FALSE(laptop.isPluggedIn);
    EXPECT_FALSE(laptop.isCharging);
    EXPECT_EQ(laptop.chargePercent, 57);
    EXPECT_DOUBLE_EQ(*laptop.batteryCelsius, 31.2);
    EXPECT_DOUBLE_EQ(*laptop.watts, -11.4);
    EXPECT_EQ(laptop.thermalState, ThermalState::fair);
    EXPECT_EQ(PowerFormat::summary(laptop), "Using 11.4 W");

    auto desktop = read("desktop");
    EXPECT_TRUE(desktop.isPluggedIn);
    EXPECT_EQ(desktop.adapterWatts, 65);
    EXPECT_EQ(desktop.chargePercent, std::nullopt);
    EXPECT_EQ(desktop.batteryCelsius, std::nullopt);
    EXPECT_EQ(desktop.watts, std::nullopt);
    EXPECT_EQ(desktop.thermalState, ThermalState::unknown);
    EXPECT_EQ(PowerFormat::summary(desktop), "On the adapter");

    auto odd = read("odd");
    EXPECT_TRUE(odd.isPluggedIn);
    EXPECT_EQ(odd.chargePercent, 100);
    EXPECT_EQ(odd.batteryCelsius, std::nullopt);
    EXPECT_EQ(odd.watts, std::nullopt);  // no voltage
    EXPECT_EQ(odd.thermalState, ThermalState::unknown);

    auto charging = read("charging");
    EXPECT_TRUE(charging.isCharging);
    EXPECT_EQ(PowerFormat::summary(charging), "Charging at 24.0 W");

    auto none = read("absent");
    EXPECT_EQ(none, PowerSnapshot{});
}

// free(1) and df(1) read the same kernel figures: the totals agree to the byte.
TEST(LinuxReadings, AgreesWithFreeAndDfOnThisMachine) {
    LinuxSystemReadings readings;
    auto free = runProcess({"/usr/bin/free", "-b"}, {{"PATH", "/usr/bin:/bin"}, {"LC_ALL", "C"}});
    ASSERT_EQ(free.status, 0) << free.output;
    std::istringstream lines(free.output);
    std::string line, label;
    std::uint64_t total = 0, used = 0;
    std::getline(lines, line);
    std::getline(lines, line);
    std::istringstream(line) >> label >> total >> used;
    auto memory = readings.memory();
    ASSERT_TRUE(memory);
    EXPECT_EQ(memory->total, total);
    EXPECT_NEAR(static_cast<double>(memory->used), static_cast<double>(used), static_cast<double>(total) * 0.01);

    auto df = runProcess({"/usr/bin/df", "-B1", "--output=size,avail", "/"}, {{"PATH", "/usr/bin:/bin"}, {"LC_ALL", "C"}});
    ASSERT_EQ(df.status, 0) << df.output;
    std::istringstream dfLines(df.output);
    std::getline(dfLines, line);
    std::uint64_t size = 0, avail = 0;
    dfLines >> size >> avail;
    auto disk = readings.disk();
    ASSERT_TRUE(disk);
    EXPECT_EQ(disk->total, size);
    EXPECT_NEAR(static_cast<double>(disk->available), static_cast<double>(avail), 64.0 * 1024 * 1024);

    auto hogs = readings.hogs(5);
    ASSERT_FALSE(hogs.empty());
    for (std::size_t i = 1; i < hogs.size(); ++i) EXPECT_GE(hogs[i - 1].footprint, hogs[i].footprint);
    auto self = readings.hogs(100000);
    auto mine = std::find_if(self.begin(), self.end(), [](const MemoryHog& h) { return h.pid == getpid(); });
    ASSERT_NE(mine, self.end());
    EXPECT_FALSE(mine->isQuittable);
    EXPECT_EQ(mine->name, "MonitorKitTests");
}

} // namespace

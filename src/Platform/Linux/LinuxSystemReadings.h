#pragma once

#include "MonitorKit/SystemMonitor.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace tavrick {

// The system monitor's readings on Linux: /proc for memory and processes, /sys/class/power_supply
// and /sys/class/thermal for power, statvfs for the disk. Both roots can be moved, so fixture
// trees stand in for a laptop or a desktop.
class LinuxSystemReadings {
public:
    struct Options {
        std::filesystem::path procRoot = "/proc";
        std::filesystem::path sysRoot = "/sys";
        std::filesystem::path volume = "/";
        pid_t selfPID = 0;  // 0: this process
    };

    LinuxSystemReadings();
    explicit LinuxSystemReadings(Options options);

    std::optional<MemorySnapshot> memory() const;
    PowerSnapshot power() const;
    std::optional<DiskSnapshot> disk() const;
    MemoryPressure pressure() const;
    std::optional<SwapUsage> swap() const;
    std::vector<MemoryHog> hogs(int n) const;
    std::optional<std::string> processName(std::int32_t pid) const;

    // All of the above as the monitor's port; the readings object must outlive it.
    SystemReadings port() const;

    // /proc/meminfo as bytes by key; lines that do not read are skipped.
    static std::map<std::string, std::uint64_t, std::less<>> parseMeminfo(std::string_view text);
    // Linux's meminfo onto the monitor's model; nothing without MemTotal and MemAvailable.
    static std::optional<MemorySnapshot> memoryFrom(const std::map<std::string, std::uint64_t, std::less<>>& info);
    // The "avg10" figures of the "some" and "full" lines of /proc/pressure/memory.
    static MemoryPressure pressureFrom(std::string_view psi);
    // pswpin + pswpout of /proc/vmstat: pages swapped in and out since boot.
    static std::optional<std::uint64_t> swappedPages(std::string_view vmstat);
    // Without pressure stall information: the swap traffic between two readings, in pages a
    // second; 100 is swapping to keep up, 1000 heavily.
    static MemoryPressure pressureFromSwapRate(double pagesPerSecond);

private:
    Options options_;
    struct SwapSample {
        std::uint64_t pages = 0;
        double at = 0;
    };
    mutable std::optional<SwapSample> lastSwap_;
};

} // namespace tavrick

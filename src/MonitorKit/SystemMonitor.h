#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

enum class MemoryPressure { normal, warning, critical };
// The sentence under the pressure gauge.
std::string_view explanation(MemoryPressure pressure);
const std::vector<MemoryPressure>& allMemoryPressures();

struct SwapUsage {
    std::uint64_t total = 0;
    std::uint64_t used = 0;
    bool operator==(const SwapUsage&) const = default;
};

struct MemoryHog {
    std::int32_t pid = 0;
    std::string name;
    std::uint64_t footprint = 0;
    bool isQuittable = true;
    bool operator==(const MemoryHog&) const = default;
};

struct MemorySnapshot {
    std::uint64_t total = 0;
    std::uint64_t used = 0;
    std::uint64_t available = 0;
    std::uint64_t app = 0;
    std::uint64_t wired = 0;
    std::uint64_t compressed = 0;
    bool operator==(const MemorySnapshot&) const = default;

    // app = internal − purgeable (never below 0), used = app + wired + compressed, available =
    // total − used (never below 0).
    static MemorySnapshot make(std::uint64_t pageSize, std::uint64_t total, std::uint64_t internalPages,
                               std::uint64_t purgeablePages, std::uint64_t wiredPages, std::uint64_t compressedPages);
};

enum class ThermalState { nominal, fair, serious, critical, unknown };

struct PowerSnapshot {
    std::optional<double> batteryCelsius;
    std::optional<double> watts;
    std::optional<int> adapterWatts;
    bool isCharging = false;
    bool isPluggedIn = false;
    std::optional<int> chargePercent;
    ThermalState thermalState = ThermalState::unknown;
    bool operator==(const PowerSnapshot&) const = default;

    // Nothing when either is missing or the millivolts are below 1; negative while discharging.
    static std::optional<double> wattsFrom(std::optional<std::int64_t> millivolts, std::optional<std::int64_t> milliamps);
    // A current register read as unsigned, back to its signed value: a 32-bit or a 16-bit
    // two's complement number, both seen in the wild.
    static std::int64_t normaliseAmperage(std::uint64_t value);
};

struct DiskSnapshot {
    std::uint64_t total = 0;
    std::uint64_t available = 0;
    bool operator==(const DiskSnapshot&) const = default;
};

namespace PowerFormat {
std::string watts(double watts);
std::string celsius(double celsius);
std::string_view thermal(ThermalState state);
// "Charging at 12.5 W", "Using 8.1 W", "On the adapter", or nothing.
std::optional<std::string> summary(const PowerSnapshot& snapshot);
} // namespace PowerFormat

namespace Uptime {
// "just now", "12 min", "3 h 5 min", "4 days".
std::string describe(double secondsAgo);
} // namespace Uptime

namespace ProcessName {
// Everything after the last "/", or the whole text without one; nothing for an empty result.
std::optional<std::string> lastComponent(std::string_view path);
// The last component of argument zero, else of the executable's path, else nothing.
std::optional<std::string> choose(std::optional<std::string_view> argumentZero, std::optional<std::string_view> executable);
} // namespace ProcessName

namespace MemoryHogs {
// Names that the system needs; they are listed but never offered to quit.
const std::set<std::string, std::less<>>& systemOwned();
struct Candidate {
    std::int32_t pid = 0;
    std::uint64_t footprint = 0;
};
// The `n` largest non-zero footprints, largest first (pid breaks ties), named by `nameOf`; a
// process whose name cannot be read any more is left out. `selfPID` is never quittable.
std::vector<MemoryHog> top(int n, std::vector<Candidate> candidates,
                           const std::function<std::optional<std::string>(std::int32_t)>& nameOf, std::int32_t selfPID);
} // namespace MemoryHogs

// The platform side of the monitor; each reading is nothing when it cannot be made.
struct SystemReadings {
    std::function<std::optional<MemorySnapshot>()> memory;
    std::function<PowerSnapshot()> power;
    std::function<std::optional<DiskSnapshot>()> disk;
    std::function<MemoryPressure()> pressure;
    std::function<std::optional<SwapUsage>()> swap;
    std::function<std::vector<MemoryHog>(int)> hogs;
};

// Samples memory, power and disk while something watches. Main queue only.
class SystemMonitor {
public:
    static constexpr double interval = 2.0;
    static constexpr int diskEvery = 10;

    SystemMonitor(Scheduler& scheduler, SystemReadings readings);
    ~SystemMonitor();
    SystemMonitor(const SystemMonitor&) = delete;
    SystemMonitor& operator=(const SystemMonitor&) = delete;

    void addWatcher();
    void removeWatcher();
    void refresh();

    const Observable<std::optional<MemorySnapshot>>& memory() const { return memory_; }
    const Observable<std::optional<DiskSnapshot>>& disk() const { return disk_; }
    const Observable<PowerSnapshot>& power() const { return power_; }
    int watchers() const { return watchers_; }
    int samplesUntilDiskRefresh() const { return samplesUntilDiskRefresh_; }
    bool isSampling() const { return static_cast<bool>(timer_) && !timer_.isCancelled(); }
    const SystemReadings& readings() const { return readings_; }

private:
    Scheduler& scheduler_;
    SystemReadings readings_;
    Observable<std::optional<MemorySnapshot>> memory_;
    Observable<std::optional<DiskSnapshot>> disk_;
    Observable<PowerSnapshot> power_;
    Cancellable timer_;
    int watchers_ = 0;
    int samplesUntilDiskRefresh_ = 0;
};

} // namespace tavrick

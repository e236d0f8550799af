#include "MonitorKit/SystemMonitor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tavrick {

std::string_view explanation(MemoryPressure pressure) {
    switch (pressure) {
    case MemoryPressure::normal:
        return "macOS has all the memory it needs. Free memory being low is not a problem — the kernel keeps almost none spare on purpose.";
    case MemoryPressure::warning:
        return "macOS is compressing and swapping to keep up. Things still work; the biggest apps below are where the memory has gone.";
    case MemoryPressure::critical:
        return "macOS is short of memory and swapping heavily. Quitting something large will help more than anything else.";
    }
    return "";
}

const std::vector<MemoryPressure>& allMemoryPressures() {
    static const std::vector<MemoryPressure> all{MemoryPressure::normal, MemoryPressure::warning, MemoryPressure::critical};
    return all;
}

MemorySnapshot MemorySnapshot::make(std::uint64_t pageSize, std::uint64_t total, std::uint64_t internalPages,
                                    std::uint64_t purgeablePages, std::uint64_t wiredPages,
                                    std::uint64_t compressedPages) {
    MemorySnapshot s;
    s.total = total;
    s.app = (internalPages > purgeablePages ? internalPages - purgeablePages : 0) * pageSize;
    s.wired = wiredPages * pageSize;
    s.compressed = compressedPages * pageSize;
    s.used = s.app + s.wired + s.compressed;
    s.available = total > s.used ? total - s.used : 0;
    return s;
}

std::optional<double> PowerSnapshot::wattsFrom(std::optional<std::int64_t> millivolts, std::optional<std::int64_t> milliamps) {
    if (!millivolts || !milliamps || *millivolts < 1) return std::nullopt;
    return static_cast<double>(*millivolts) * static_cast<double>(*milliamps) / 1000000.0;
}

std::int64_t PowerSnapshot::normaliseAmperage(std::uint64_t value) {
    if (value >= 2147483648ULL) return static_cast<std::int64_t>(value) - 4294967296LL;
    if (value >= 0x8000 && value <= 0xFFFF) return static_cast<std::int64_t>(value) - 0x10000;
    return static_cast<std::int64_t>(value);
}

namespace PowerFormat {

std::string watts(double watts) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.1f W", std::fabs(watts));
    return buffer;
}

std::string celsius(double celsius) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.0f °C", celsius);
    return buffer;
}

std::string_view thermal(ThermalState state) {
    switch (state) {
    case ThermalState::nominal: return "normal";
    case ThermalState::fair: return "warm";
    case ThermalState::serious:
    case ThermalState::critical: return "overheating";
    case ThermalState::unknown: return "unknown";
    }
    return "unknown";
}

std::optional<std::string> summary(const PowerSnapshot& snapshot) {
    if (!snapshot.watts || std::fabs(*snapshot.watts) < 0.05) {
        if (snapshot.isPluggedIn) return std::string("On the adapter");
        return std::nullopt;
    }
    if (snapshot.isCharging) return "Charging at " + watts(*snapshot.watts);
    if (*snapshot.watts < 0) return "Using " + watts(*snapshot.watts);
    return watts(*snapshot.watts);
}

} // namespace PowerFormat

namespace Uptime {

std::string describe(double secondsAgo) {
    if (!(secondsAgo >= 60)) return "just now";
    auto seconds = static_cast<long long>(secondsAgo);
    if (seconds < 3600) return std::to_string(seconds / 60) + " min";
    if (seconds < 86400) {
        auto minutes = (seconds % 3600) / 60;
        auto text = std::to_string(seconds / 3600) + " h";
        return minutes ? text + " " + std::to_string(minutes) + " min" : text;
    }
    auto days = seconds / 86400;
    return std::to_string(days) + (days == 1 ? " day" : " days");
}

} // namespace Uptime

namespace ProcessName {

std::optional<std::string> lastComponent(std::string_view path) {
    auto slash = path.rfind('/');
    auto name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    if (name.empty()) return std::nullopt;
    return std::string(name);
}

std::optional<std::string> choose(std::optional<std::string_view> argumentZero, std::optional<std::string_view> executable) {
    if (argumentZero) {
        if (auto name = lastComponent(*argumentZero)) return name;
    }
    if (executable) return lastComponent(*executable);
    return std::nullopt;
}

} // namespace ProcessName

namespace MemoryHogs {

const std::set<std::string, std::less<>>& systemOwned() {
    // What keeps the session, the display and the machine itself running: quitting any of them
    // logs the user out or takes the desktop down with it.
    static const std::set<std::string, std::less<>> names{
        "systemd",       "init",           "kthreadd",     "dbus-daemon",  "dbus-broker",  "Xorg",
        "Xwayland",      "gnome-shell",    "kwin_x11",     "kwin_wayland", "plasmashell",  "gdm",
        "gdm-session-worker", "sddm",      "lightdm",      "pipewire",     "wireplumber",  "pulseaudio",
        "NetworkManager", "polkitd",       "udisksd",      "upowerd",      "systemd-journald",
        "systemd-logind", "systemd-udevd", "sshd",         "Xvfb",         "kernel_task",  "WindowServer",
        "launchd",
    };
    return names;
}

std::vector<MemoryHog> top(int n, std::vector<Candidate> candidates,
                           const std::function<std::optional<std::string>(std::int32_t)>& nameOf, std::int32_t selfPID) {
    std::vector<MemoryHog> hogs;
    if (n < 1) return hogs;
    std::erase_if(candidates, [](const Candidate& c) { return c.pid <= 0 || c.footprint == 0; });
    auto larger = [](const Candidate& a, const Candidate& b) {
        return a.footprint != b.footprint ? a.footprint > b.footprint : a.pid < b.pid;
    };
    std::sort(candidates.begin(), candidates.end(), larger);
    for (const auto& candidate : candidates) {
        if (static_cast<int>(hogs.size()) == n) break;
        auto name = nameOf(candidate.pid);
        if (!name) continue;  // gone since it was counted
        bool quittable = candidate.pid != selfPID && !systemOwned().contains(*name);
        hogs.push_back({candidate.pid, std::move(*name), candidate.footprint, quittable});
    }
    return hogs;
}

} // namespace MemoryHogs

SystemMonitor::SystemMonitor(Scheduler& scheduler, SystemReadings readings)
    : scheduler_(scheduler), readings_(std::move(readings)) {}

SystemMonitor::~SystemMonitor() { timer_.cancel(); }

void SystemMonitor::addWatcher() {
    if (++watchers_ != 1) return;
    refresh();
    timer_ = scheduler_.every(interval, [this] { refresh(); });
}

void SystemMonitor::removeWatcher() {
    if (watchers_ == 0) return;
    if (--watchers_ == 0) {
        timer_.cancel();
        timer_ = {};
    }
}

void SystemMonitor::refresh() {
    if (readings_.memory) memory_.set(readings_.memory());
    if (readings_.power) power_.set(readings_.power());
    if (samplesUntilDiskRefresh_ <= 0) {
        if (readings_.disk) disk_.set(readings_.disk());
        samplesUntilDiskRefresh_ = diskEvery;
    }
    --samplesUntilDiskRefresh_;
}

} // namespace tavrick

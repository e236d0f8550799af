#include "Platform/Linux/LinuxSystemReadings.h"

#include "CoreKit/FileIO.h"
#include "MonitorKit/ProcessFootprint.h"

#include <charconv>
#include <cmath>
#include <ctime>
#include <utility>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace tavrick {

namespace {

std::optional<std::string> readText(const std::filesystem::path& path) {
    int error = 0;
    return FileIO::readAll(path, error);
}

std::string_view trimmed(std::string_view text) {
    auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

std::optional<std::int64_t> integer(std::string_view text) {
    text = trimmed(text);
    std::int64_t value = 0;
    auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && ptr == text.data() + text.size() && !text.empty()) return value;
    return std::nullopt;
}

std::optional<std::int64_t> attribute(const std::filesystem::path& dir, const char* name) {
    auto text = readText(dir / name);
    if (!text) return std::nullopt;
    return integer(*text);
}

std::string word(const std::filesystem::path& dir, const char* name) {
    auto text = readText(dir / name);
    return text ? std::string(trimmed(*text)) : std::string();
}

bool allDigits(const char* name) {
    if (!*name) return false;
    for (const char* c = name; *c; ++c) {
        if (*c < '0' || *c > '9') return false;
    }
    return true;
}

} // namespace

LinuxSystemReadings::LinuxSystemReadings() : LinuxSystemReadings(Options{}) {}

LinuxSystemReadings::LinuxSystemReadings(Options options) : options_(std::move(options)) {
    if (options_.selfPID == 0) options_.selfPID = getpid();
}

std::map<std::string, std::uint64_t, std::less<>> LinuxSystemReadings::parseMeminfo(std::string_view text) {
    std::map<std::string, std::uint64_t, std::less<>> info;
    while (!text.empty()) {
        auto end = text.find('\n');
        auto line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        auto colon = line.find(':');
        if (colon == std::string_view::npos || colon == 0) continue;
        auto rest = trimmed(line.substr(colon + 1));
        std::uint64_t value = 0;
        auto [ptr, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
        if (error != std::errc()) continue;
        auto unit = trimmed(std::string_view(ptr, static_cast<std::size_t>(rest.data() + rest.size() - ptr)));
        if (unit == "kB") {
            if (value > UINT64_MAX / 1024) continue;
            value *= 1024;
        } else if (!unit.empty()) {
            continue;
        }
        info.emplace(std::string(line.substr(0, colon)), value);
    }
    return info;
}

std::optional<MemorySnapshot> LinuxSystemReadings::memoryFrom(const std::map<std::string, std::uint64_t, std::less<>>& info) {
    auto get = [&](std::string_view key) -> std::uint64_t {
        auto it = info.find(key);
        return it == info.end() ? 0 : it->second;
    };
    auto total = info.find("MemTotal");
    auto available = info.find("MemAvailable");
    if (total == info.end() || available == info.end() || total->second == 0) return std::nullopt;
    // Used is what the kernel cannot hand out without swapping: total less MemAvailable, the
    // figure free(1) shows. Of that, the kernel's own unmovable memory is "wired", zswap's pool
    // is "compressed", and the rest belongs to programs.
    std::uint64_t used = total->second > available->second ? total->second - available->second : 0;
    std::uint64_t compressed = std::min(get("Zswap"), used);
    std::uint64_t wired = std::min(get("KernelStack") + get("PageTables") + get("SUnreclaim") + get("Unevictable"),
                                   used - compressed);
    return MemorySnapshot::make(1, total->second, used - compressed - wired, 0, wired, compressed);
}

MemoryPressure LinuxSystemReadings::pressureFrom(std::string_view psi) {
    auto average = [&](std::string_view kind) -> double {
        auto at = psi.find(kind);
        if (at == std::string_view::npos) return 0;
        auto key = psi.find("avg10=", at);
        auto line = psi.find('\n', at);
        if (key == std::string_view::npos || (line != std::string_view::npos && key > line)) return 0;
        double value = 0;
        auto text = psi.substr(key + 6);
        auto [ptr, error] = std::from_chars(text.data(), text.data() + std::min<std::size_t>(text.size(), 16), value);
        return error == std::errc() && std::isfinite(value) ? value : 0;
    };
    // Share of the last ten seconds in which every task (full) or at least one (some) waited
    // for memory.
    double some = average("some "), full = average("full ");
    if (full >= 10 || some >= 40) return MemoryPressure::critical;
    if (some >= 10) return MemoryPressure::warning;
    return MemoryPressure::normal;
}

std::optional<MemorySnapshot> LinuxSystemReadings::memory() const {
    auto text = readText(options_.procRoot / "meminfo");
    if (!text) return std::nullopt;
    return memoryFrom(parseMeminfo(*text));
}

std::optional<std::uint64_t> LinuxSystemReadings::swappedPages(std::string_view vmstat) {
    std::optional<std::uint64_t> in, out;
    while (!vmstat.empty()) {
        auto end = vmstat.find('\n');
        auto line = vmstat.substr(0, end);
        vmstat = end == std::string_view::npos ? std::string_view{} : vmstat.substr(end + 1);
        auto blank = line.find(' ');
        if (blank == std::string_view::npos) continue;
        auto key = line.substr(0, blank);
        if (key != "pswpin" && key != "pswpout") continue;
        auto digits = trimmed(line.substr(blank + 1));
        std::uint64_t value = 0;
        auto [ptr, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error != std::errc() || ptr != digits.data() + digits.size()) return std::nullopt;
        (key == "pswpin" ? in : out) = value;
    }
    if (!in || !out) return std::nullopt;
    return *in + *out;
}

MemoryPressure LinuxSystemReadings::pressureFromSwapRate(double pagesPerSecond) {
    if (pagesPerSecond >= 1000) return MemoryPressure::critical;
    if (pagesPerSecond >= 100) return MemoryPressure::warning;
    return MemoryPressure::normal;
}

MemoryPressure LinuxSystemReadings::pressure() const {
    if (auto text = readText(options_.procRoot / "pressure" / "memory")) return pressureFrom(*text);
    // A kernel built without pressure stall information: judge by how fast it swaps.
    auto vmstat = readText(options_.procRoot / "vmstat");
    auto pages = vmstat ? swappedPages(*vmstat) : std::nullopt;
    if (!pages) return MemoryPressure::normal;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    SwapSample sample{*pages, static_cast<double>(now.tv_sec) + now.tv_nsec / 1e9};
    auto previous = std::exchange(lastSwap_, sample);
    if (!previous || sample.at <= previous->at || sample.pages < previous->pages) return MemoryPressure::normal;
    return pressureFromSwapRate(static_cast<double>(sample.pages - previous->pages) / (sample.at - previous->at));
}

std::optional<SwapUsage> LinuxSystemReadings::swap() const {
    auto text = readText(options_.procRoot / "meminfo");
    if (!text) return std::nullopt;
    auto info = parseMeminfo(*text);
    auto total = info.find("SwapTotal"), free = info.find("SwapFree");
    if (total == info.end() || free == info.end()) return std::nullopt;
    return SwapUsage{total->second, total->second > free->second ? total->second - free->second : 0};
}

PowerSnapshot LinuxSystemReadings::power() const {
    PowerSnapshot snapshot;
    std::error_code code;
    const auto supplies = options_.sysRoot / "class" / "power_supply";
    bool sawBattery = false;
    for (const auto& entry : std::filesystem::directory_iterator(supplies, code)) {
        const auto& dir = entry.path();
        auto type = word(dir, "type");
        if (type == "Mains" || type == "USB") {
            if (attribute(dir, "online").value_or(0) == 1) {
                snapshot.isPluggedIn = true;
                auto microvolts = attribute(dir, "voltage_max"), microamps = attribute(dir, "current_max");
                if (microvolts && microamps && *microvolts > 0 && *microamps > 0) {
                    snapshot.adapterWatts = static_cast<int>(std::lround(static_cast<double>(*microvolts) / 1e6 *
                                                                         static_cast<double>(*microamps) / 1e6));
                }
            }
        } else if (type == "Battery" && !sawBattery && attribute(dir, "present").value_or(1) == 1) {
            sawBattery = true;
            auto status = word(dir, "status");
            snapshot.isCharging = status == "Charging";
            if (auto capacity = attribute(dir, "capacity"); capacity && *capacity >= 0) {
                snapshot.chargePercent = static_cast<int>(std::min<std::int64_t>(*capacity, 100));
            }
            if (auto temp = attribute(dir, "temp")) snapshot.batteryCelsius = static_cast<double>(*temp) / 10.0;
            std::optional<std::int64_t> millivolts, milliamps;
            if (auto uv = attribute(dir, "voltage_now")) millivolts = *uv / 1000;
            if (auto ua = attribute(dir, "current_now")) {
                // Some gauges print a negative 32-bit register as unsigned.
                auto microamps = *ua >= 2147483648LL && *ua < 4294967296LL
                                     ? PowerSnapshot::normaliseAmperage(static_cast<std::uint64_t>(*ua))
                                     : *ua;
                milliamps = microamps / 1000;
            } else if (auto uw = attribute(dir, "power_now"); uw && millivolts && *millivolts > 0) {
                milliamps = *uw / *millivolts;  // µW / mV = mA
            }
            // Most gauges report the size of the current, not its direction: the status gives
            // the sign, negative while the battery runs the machine.
            if (milliamps && *milliamps > 0 && status == "Discharging") *milliamps = -*milliamps;
            if (milliamps && *milliamps < 0 && status == "Charging") *milliamps = -*milliamps;
            snapshot.watts = PowerSnapshot::wattsFrom(millivolts, milliamps);
        }
    }
    // The hottest thermal zone against fixed marks stands in for the system's thermal state.
    std::optional<double> hottest;
    for (const auto& entry : std::filesystem::directory_iterator(options_.sysRoot / "class" / "thermal", code)) {
        if (!entry.path().filename().string().starts_with("thermal_zone")) continue;
        if (auto milli = attribute(entry.path(), "temp"); milli && *milli > -50000 && *milli < 200000) {
            hottest = std::max(hottest.value_or(-1000.0), static_cast<double>(*milli) / 1000.0);
        }
    }
    if (hottest) {
        snapshot.thermalState = *hottest < 75   ? ThermalState::nominal
                                : *hottest < 90 ? ThermalState::fair
                                : *hottest < 100 ? ThermalState::serious
                                                 : ThermalState::critical;
    }
    return snapshot;
}

std::optional<DiskSnapshot> LinuxSystemReadings::disk() const {
    struct statvfs info {};
    if (statvfs(options_.volume.c_str(), &info) != 0) return std::nullopt;
    return DiskSnapshot{static_cast<std::uint64_t>(info.f_blocks) * info.f_frsize,
                        static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize};
}

std::optional<std::string> LinuxSystemReadings::processName(std::int32_t pid) const {
    const auto dir = options_.procRoot / std::to_string(pid);
    std::optional<std::string> argumentZero;
    if (auto cmdline = readText(dir / "cmdline"); cmdline && !cmdline->empty()) {
        argumentZero = cmdline->substr(0, cmdline->find('\0'));
    }
    std::error_code code;
    auto exe = std::filesystem::read_symlink(dir / "exe", code);
    std::optional<std::string> executable;
    if (!code) executable = exe.string();
    std::optional<std::string_view> a0, ex;
    if (argumentZero) a0 = *argumentZero;
    if (executable) ex = *executable;
    if (auto name = ProcessName::choose(a0, ex)) return name;
    // Kernel threads have neither; their name is in comm.
    if (auto comm = readText(dir / "comm"); comm && !trimmed(*comm).empty()) return std::string(trimmed(*comm));
    return std::nullopt;
}

std::vector<MemoryHog> LinuxSystemReadings::hogs(int n) const {
    if (n < 1) return {};
    std::vector<MemoryHogs::Candidate> candidates;
    DIR* dir = opendir(options_.procRoot.c_str());
    if (!dir) return {};
    std::string path = options_.procRoot.string() + "/";
    char buffer[4096];
    while (auto* entry = readdir(dir)) {
        if (!allDigits(entry->d_name)) continue;
        std::string status = path + entry->d_name + "/status";
        int fd = open(status.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        auto length = read(fd, buffer, sizeof buffer);
        close(fd);
        if (length <= 0) continue;
        auto footprint = ProcessFootprint::fromStatus(std::string_view(buffer, static_cast<std::size_t>(length)));
        if (!footprint || *footprint == 0) continue;
        candidates.push_back({static_cast<std::int32_t>(std::atoi(entry->d_name)), *footprint});
    }
    closedir(dir);
    return MemoryHogs::top(n, std::move(candidates), [this](std::int32_t pid) { return processName(pid); },
                           static_cast<std::int32_t>(options_.selfPID));
}

SystemReadings LinuxSystemReadings::port() const {
    return SystemReadings{
        .memory = [this] { return memory(); },
        .power = [this] { return power(); },
        .disk = [this] { return disk(); },
        .pressure = [this] { return pressure(); },
        .swap = [this] { return swap(); },
        .hogs = [this](int n) { return hogs(n); },
    };
}

} // namespace tavrick

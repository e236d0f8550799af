#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

struct DieTemperature {
    std::uint64_t registryID = 0;
    std::string name;
    double celsius = 0;
    friend bool operator==(const DieTemperature&, const DieTemperature&) = default;
};

struct ThermalSummary {
    int validCount = 0;
    std::optional<double> hottest;
    bool isStale = false;
    bool isUsable() const { return validCount > 0 && !isStale; }
    friend bool operator==(const ThermalSummary&, const ThermalSummary&) = default;
};

// Tells live die readings from implausible and frozen ones. A plain value owned by its caller.
struct ThermalFilter {
    static constexpr double plausibleMinimum = 5.0;
    static constexpr double plausibleMaximum = 130.0;
    static constexpr double staleAfter = 30.0;

    std::vector<std::uint64_t> lastBits;
    std::optional<double> unchangedSince;

    static bool isPlausible(double celsius);
    static ThermalSummary summarize(const std::vector<double>& values);
    ThermalSummary assess(const std::vector<double>& values, double now);
};

// Where die temperatures come from: the sensors that exist now, each read once. A source may
// lose its sensors (across sleep, say) and find them again when enumerated afresh.
class DieSensorSource {
public:
    virtual ~DieSensorSource() = default;
    // The die sensors by registry ID, with their names.
    virtual std::vector<std::pair<std::uint64_t, std::string>> enumerate() = 0;
    // Nothing for a sensor that gave no reading.
    virtual std::optional<double> read(std::uint64_t registryID) = 0;
};

// The chip's die temperatures, safe from any thread.
class ThermalSensors {
public:
    explicit ThermalSensors(DieSensorSource& source) : source_(source) {}
    std::vector<DieTemperature> read();
    void reenumerate();

private:
    std::vector<DieTemperature> lockedReadAll();
    void lockedEnumerate();
    DieSensorSource& source_;
    std::mutex lock_;
    std::vector<std::pair<std::uint64_t, std::string>> services_;
    bool enumerated_ = false;
};

} // namespace tavrick

#include "FanCore/Thermal.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace tavrick {

bool ThermalFilter::isPlausible(double celsius) {
    return std::isfinite(celsius) && celsius >= plausibleMinimum && celsius <= plausibleMaximum;
}

ThermalSummary ThermalFilter::summarize(const std::vector<double>& values) {
    ThermalSummary summary;
    for (double v : values) {
        if (!isPlausible(v)) continue;
        ++summary.validCount;
        if (!summary.hottest || v > *summary.hottest) summary.hottest = v;
    }
    return summary;
}

ThermalSummary ThermalFilter::assess(const std::vector<double>& values, double now) {
    std::vector<double> plausible;
    for (double v : values) {
        if (isPlausible(v)) plausible.push_back(v);
    }
    if (plausible.empty()) {
        lastBits.clear();
        unchangedSince.reset();
        return {};
    }
    std::vector<std::uint64_t> bits;
    bits.reserve(plausible.size());
    for (double v : plausible) bits.push_back(std::bit_cast<std::uint64_t>(v));

    ThermalSummary summary;
    summary.validCount = static_cast<int>(plausible.size());
    summary.hottest = *std::max_element(plausible.begin(), plausible.end());
    // Exactly the same bits, in the same order: live sensors change every second, so a
    // tolerance would only blur what "frozen" means.
    if (bits == lastBits && unchangedSince && now >= *unchangedSince) {
        summary.isStale = now - *unchangedSince >= staleAfter;
        return summary;
    }
    lastBits = std::move(bits);
    unchangedSince = now;
    return summary;
}

void ThermalSensors::lockedEnumerate() {
    services_ = source_.enumerate();
    std::sort(services_.begin(), services_.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    enumerated_ = true;
}

std::vector<DieTemperature> ThermalSensors::lockedReadAll() {
    std::vector<DieTemperature> out;
    for (const auto& [id, name] : services_) {
        if (auto celsius = source_.read(id)) out.push_back({id, name, *celsius});
    }
    return out;
}

std::vector<DieTemperature> ThermalSensors::read() {
    std::lock_guard guard(lock_);
    if (!enumerated_) lockedEnumerate();
    auto temperatures = lockedReadAll();
    if (temperatures.empty()) {
        // Sensors can be replaced across sleep; one fresh look, no more.
        lockedEnumerate();
        temperatures = lockedReadAll();
    }
    return temperatures;
}

void ThermalSensors::reenumerate() {
    std::lock_guard guard(lock_);
    lockedEnumerate();
}

} // namespace tavrick

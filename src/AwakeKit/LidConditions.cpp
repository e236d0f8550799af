#include "AwakeKit/LidConditions.h"

#include <algorithm>
#include <array>

namespace tavrick {

namespace {
constexpr std::array sources = {PowerSource::powerAdapter, PowerSource::battery};
} // namespace

LidConditions LidConditions::read(const LidSensors& sensors) {
    const LidReadings readings = sensors ? sensors() : LidReadings{};
    LidConditions conditions;
    conditions.isOnPowerAdapter = readings.onPowerAdapter.value_or(true);
    conditions.externalDisplays = std::max(0, readings.externalDisplays);
    for (const auto& name : readings.externalInputNames) {
        std::string device = name && !name->empty() ? *name : "an external device";
        auto& list = conditions.externalInputDevices;
        if (std::find(list.begin(), list.end(), device) == list.end()) list.push_back(std::move(device));
    }
    conditions.isLidClosed = readings.lidClosed;
    return conditions;
}

std::string_view rawValue(PowerSource source) {
    return source == PowerSource::powerAdapter ? "powerAdapter" : "battery";
}

std::optional<PowerSource> powerSourceFromRaw(std::string_view raw) {
    for (auto source : sources) {
        if (rawValue(source) == raw) return source;
    }
    return std::nullopt;
}

std::span<const PowerSource> allPowerSources() {
    return sources;
}

std::string_view displayName(PowerSource source) {
    return source == PowerSource::powerAdapter ? "On power adapter" : "On battery";
}

} // namespace tavrick

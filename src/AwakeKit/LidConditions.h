#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// What the hardware reports, as read; `LidConditions::read` applies the rules for what could not
// be read.
struct LidReadings {
    // Nothing when no power source could be read.
    std::optional<bool> onPowerAdapter;
    int externalDisplays = 0;
    // External keyboards and mice; nothing for a device without a name.
    std::vector<std::optional<std::string>> externalInputNames;
    // A lid that cannot be read counts as open.
    bool lidClosed = false;
};

// Reads the hardware afresh on every call.
using LidSensors = std::function<LidReadings()>;

// What decides whether a laptop keeps running with its lid shut.
struct LidConditions {
    bool isOnPowerAdapter = true;
    int externalDisplays = 0;
    std::vector<std::string> externalInputDevices;
    bool isLidClosed = false;

    bool hasExternalDisplay() const { return externalDisplays > 0; }
    bool hasExternalInput() const { return !externalInputDevices.empty(); }
    bool meetsDisplayAndInputRequirements() const { return hasExternalDisplay() && hasExternalInput(); }

    // A machine whose power source cannot be read is taken to be on the adapter: a desktop has no
    // battery. A device without a name is "an external device"; duplicates are dropped.
    static LidConditions read(const LidSensors& sensors);

    friend bool operator==(const LidConditions&, const LidConditions&) = default;
};

enum class PowerSource { powerAdapter, battery };
std::string_view rawValue(PowerSource source);
std::optional<PowerSource> powerSourceFromRaw(std::string_view raw);
std::span<const PowerSource> allPowerSources();
// "On power adapter", "On battery"
std::string_view displayName(PowerSource source);
inline PowerSource powerSource(bool isOnAdapter) {
    return isOnAdapter ? PowerSource::powerAdapter : PowerSource::battery;
}

} // namespace tavrick

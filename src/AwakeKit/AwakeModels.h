#pragma once

#include "AwakeKit/LocalCalendar.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace tavrick {

enum class AwakeMode { keepDisplayOn, allowDisplaySleep };

std::string_view rawValue(AwakeMode mode);
std::optional<AwakeMode> awakeModeFromRaw(std::string_view raw);
std::span<const AwakeMode> allAwakeModes();
// "Keep display on"
std::string_view displayName(AwakeMode mode);
// "The screen stays lit and the Mac stays awake."
std::string_view explanation(AwakeMode mode);
// The kind of power assertion the mode holds: "PreventUserIdleDisplaySleep" or
// "PreventUserIdleSystemSleep".
std::string_view assertionType(AwakeMode mode);

// How long a keep-awake session lasts.
struct AwakeSession {
    struct Until {
        double date = 0;  // seconds since 1970
        friend bool operator==(const Until&, const Until&) = default;
    };
    struct WhileAppRunning {
        std::string bundleID;
        std::string name;
        friend bool operator==(const WhileAppRunning&, const WhileAppRunning&) = default;
    };
    struct Indefinite {
        friend bool operator==(Indefinite, Indefinite) = default;
    };
    std::variant<Until, WhileAppRunning, Indefinite> value;

    static AwakeSession until(double date) { return {Until{date}}; }
    static AwakeSession whileAppRunning(std::string bundleID, std::string name) {
        return {WhileAppRunning{std::move(bundleID), std::move(name)}};
    }
    static AwakeSession indefinite() { return {Indefinite{}}; }

    // "Until 9:41 AM", "While Firefox is running", "Indefinitely".
    std::string description(const LocalCalendar& calendar = LocalCalendar::current()) const;

    friend bool operator==(const AwakeSession&, const AwakeSession&) = default;
};

// The lengths the menu offers; the raw value is seconds.
enum class AwakeDuration { fifteenMinutes = 900, thirtyMinutes = 1800, fortyFiveMinutes = 2700, oneHour = 3600 };
std::span<const AwakeDuration> allAwakeDurations();
// "15 minutes", "1 hour"
std::string_view displayName(AwakeDuration duration);

} // namespace tavrick

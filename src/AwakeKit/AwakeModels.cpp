#include "AwakeKit/AwakeModels.h"

#include <array>

namespace tavrick {

namespace {
constexpr std::array modes = {AwakeMode::keepDisplayOn, AwakeMode::allowDisplaySleep};
constexpr std::array durations = {AwakeDuration::fifteenMinutes, AwakeDuration::thirtyMinutes,
                                  AwakeDuration::fortyFiveMinutes, AwakeDuration::oneHour};
} // namespace

std::string_view rawValue(AwakeMode mode) {
    return mode == AwakeMode::keepDisplayOn ? "keepDisplayOn" : "allowDisplaySleep";
}

std::optional<AwakeMode> awakeModeFromRaw(std::string_view raw) {
    for (auto mode : modes) {
        if (rawValue(mode) == raw) return mode;
    }
    return std::nullopt;
}

std::span<const AwakeMode> allAwakeModes() {
    return modes;
}

std::string_view displayName(AwakeMode mode) {
    return mode == AwakeMode::keepDisplayOn ? "Keep display on" : "Allow display to sleep";
}

std::string_view explanation(AwakeMode mode) {
    return mode == AwakeMode::keepDisplayOn ? "The screen stays lit and the Mac stays awake."
                                            : "The screen may turn off, but the Mac keeps running.";
}

std::string_view assertionType(AwakeMode mode) {
    return mode == AwakeMode::keepDisplayOn ? "PreventUserIdleDisplaySleep" : "PreventUserIdleSystemSleep";
}

std::string AwakeSession::description(const LocalCalendar& calendar) const {
    if (auto* until = std::get_if<Until>(&value)) return "Until " + calendar.shortTime(until->date);
    if (auto* app = std::get_if<WhileAppRunning>(&value)) return "While " + app->name + " is running";
    return "Indefinitely";
}

std::span<const AwakeDuration> allAwakeDurations() {
    return durations;
}

std::string_view displayName(AwakeDuration duration) {
    switch (duration) {
    case AwakeDuration::fifteenMinutes: return "15 minutes";
    case AwakeDuration::thirtyMinutes: return "30 minutes";
    case AwakeDuration::fortyFiveMinutes: return "45 minutes";
    case AwakeDuration::oneHour: return "1 hour";
    }
    return "15 minutes";
}

} // namespace tavrick

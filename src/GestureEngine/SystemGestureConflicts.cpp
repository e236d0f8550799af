#include "GestureEngine/SystemGestureConflicts.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <map>

namespace tavrick {

namespace {

// Text as the system's defaults read a number from it: leading blanks, an optional sign and the
// digits that follow; nothing readable is 0.
std::int64_t leadingInteger(const std::string& text) {
    std::size_t at = 0;
    while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
    if (at < text.size() && text[at] == '+') ++at;
    std::int64_t value = 0;
    auto result = std::from_chars(text.data() + at, text.data() + text.size(), value);
    if (result.ec == std::errc::result_out_of_range) {
        return text[at] == '-' ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    }
    return result.ec == std::errc() ? value : 0;
}

} // namespace

std::int64_t SystemGestureSettings::integerValue(const PreferenceValue& value) {
    if (auto* b = value.asBool()) return *b ? 1 : 0;
    if (auto* i = value.asInteger()) return *i;
    if (auto* r = value.asReal()) {
        if (!std::isfinite(*r)) return 0;
        if (*r >= 9.2e18) return std::numeric_limits<std::int64_t>::max();
        if (*r <= -9.2e18) return std::numeric_limits<std::int64_t>::min();
        return static_cast<std::int64_t>(*r);
    }
    if (auto* s = value.asString()) return leadingInteger(*s);
    return 0;
}

bool SystemGestureSettings::booleanValue(const PreferenceValue& value) {
    if (auto* s = value.asString()) {
        std::size_t at = 0;
        while (at < s->size() && std::isspace(static_cast<unsigned char>((*s)[at]))) ++at;
        if (at < s->size()) {
            const char first = static_cast<char>(std::tolower(static_cast<unsigned char>((*s)[at])));
            if (first == 'y' || first == 't') return true;
        }
        return leadingInteger(*s) != 0;
    }
    if (auto* r = value.asReal()) return std::isfinite(*r) && *r != 0.0;
    return integerValue(value) != 0;
}

bool SystemGestureSettings::anyDomainEnables(const OpenDomain& open, const std::string& key, bool defaultValue) {
    bool answer = defaultValue;
    for (const char* domain : trackpadDomains) {
        auto store = open ? open(domain) : nullptr;
        if (!store) continue;
        auto value = store->object(key);
        if (!value) continue;
        if (integerValue(*value) != 0) return true;
        answer = false;
    }
    return answer;
}

bool SystemGestureSettings::dockFlag(const OpenDomain& open, const std::string& key, bool defaultValue) {
    auto store = open ? open(dockDomain) : nullptr;
    if (!store) return defaultValue;
    auto value = store->object(key);
    return value ? booleanValue(*value) : defaultValue;
}

SystemGestureSettings SystemGestureSettings::current(const OpenDomain& openAfresh) {
    // Each domain is opened once for all eight keys, so that one reading is one state of it.
    std::map<std::string, std::shared_ptr<const PreferenceStore>> opened;
    const OpenDomain open = [&](const std::string& domain) {
        auto it = opened.find(domain);
        if (it == opened.end()) it = opened.emplace(domain, openAfresh ? openAfresh(domain) : nullptr).first;
        return it->second;
    };
    SystemGestureSettings s;
    s.threeFingerVertical = anyDomainEnables(open, "TrackpadThreeFingerVertSwipeGesture", false);
    s.fourFingerVertical = anyDomainEnables(open, "TrackpadFourFingerVertSwipeGesture", true);
    s.threeFingerHorizontal = anyDomainEnables(open, "TrackpadThreeFingerHorizSwipeGesture", false);
    s.fourFingerHorizontal = anyDomainEnables(open, "TrackpadFourFingerHorizSwipeGesture", true);
    s.fiveFingerPinch = anyDomainEnables(open, "TrackpadFiveFingerPinchGesture", true);
    s.fourFingerSpread = anyDomainEnables(open, "TrackpadFourFingerPinchGesture", true);
    s.missionControl = dockFlag(open, "showMissionControlGestureEnabled", true);
    s.appExpose = dockFlag(open, "showAppExposeGestureEnabled", true);
    return s;
}

namespace SystemGestureConflicts {

namespace {

const char* const moreGestures = " in System Settings › Trackpad › More Gestures";

Conflict make(const std::string& feature, bool offersOtherFingerCount) {
    std::string advice = "Turn off “" + feature + "”" + moreGestures;
    advice += offersOtherFingerCount ? ", or use a different finger count." : ".";
    return Conflict{feature, advice};
}

std::optional<Conflict> swipe(int fingers, GestureDirection direction, const SystemGestureSettings& s) {
    if (fingers != 3 && fingers != 4) return std::nullopt;
    switch (direction) {
    case GestureDirection::up:
    case GestureDirection::down: {
        const bool vertical = fingers == 3 ? s.threeFingerVertical : s.fourFingerVertical;
        if (!vertical) return std::nullopt;
        if (direction == GestureDirection::up) {
            if (s.missionControl) return make("Mission Control", true);
        } else if (s.appExpose) {
            return make("App Exposé", true);
        }
        return std::nullopt;
    }
    case GestureDirection::left:
    case GestureDirection::right:
        if (fingers == 3 ? s.threeFingerHorizontal : s.fourFingerHorizontal) {
            return make("Swipe between full-screen applications", true);
        }
        return std::nullopt;
    case GestureDirection::expand:
    case GestureDirection::contract: return std::nullopt;
    }
    return std::nullopt;
}

std::optional<Conflict> pinch(int fingers, std::optional<GestureDirection> direction, const SystemGestureSettings& s) {
    if (fingers == 4 && direction == GestureDirection::expand && s.fourFingerSpread) return make("Show Desktop", false);
    if (fingers == 5 && direction == GestureDirection::contract && s.fiveFingerPinch) return make("Launchpad", false);
    return std::nullopt;
}

} // namespace

std::size_t ConflictHash::operator()(const Conflict& conflict) const {
    const std::size_t a = std::hash<std::string>{}(conflict.systemFeature);
    const std::size_t b = std::hash<std::string>{}(conflict.advice);
    return a ^ (b + 0x9e3779b97f4a7c15ULL + (a << 6) + (a >> 2));
}

std::optional<Conflict> conflict(const GestureSpec& gesture, const SystemGestureSettings& settings) {
    switch (gesture.kind) {
    case GestureKind::swipe:
        if (!gesture.direction) return std::nullopt;
        return swipe(gesture.fingerCount, *gesture.direction, settings);
    case GestureKind::pinch: return pinch(gesture.fingerCount, gesture.direction, settings);
    case GestureKind::tap:
    case GestureKind::rotate: return std::nullopt;
    }
    return std::nullopt;
}

std::vector<MappingConflict> scan(const std::vector<Mapping>& mappings, const SystemGestureSettings& settings) {
    std::vector<MappingConflict> found;
    for (const auto& mapping : mappings) {
        if (!mapping.isEnabled) continue;
        const auto* gesture = mapping.trigger.asGesture();
        if (!gesture) continue;
        if (auto c = conflict(*gesture, settings)) found.push_back({mapping, std::move(*c)});
    }
    return found;
}

Advice advice(const Conflict& conflict) {
    return Advice{"macOS also uses this gesture for " + conflict.systemFeature, conflict.advice,
                  "macOS uses this for " + conflict.systemFeature};
}

std::string onboardingClosing(const std::vector<Mapping>& examples, const SystemGestureSettings& settings) {
    const auto found = scan(examples, settings);
    if (found.empty()) return "You already have the conflicting system gestures switched off — nothing will double up.";
    // Each feature once, in the order the examples meet them.
    std::vector<std::string> features;
    for (const auto& entry : found) {
        if (std::find(features.begin(), features.end(), entry.conflict.systemFeature) == features.end()) {
            features.push_back(entry.conflict.systemFeature);
        }
    }
    std::string text = "macOS also uses ";
    for (std::size_t i = 0; i < features.size(); ++i) {
        if (i > 0) text += i + 1 == features.size() ? " and " : ", ";
        text += features[i];
    }
    return text + ". Tavrick warns you when a gesture you bind collides with one.";
}

const char* const firesTwiceHelp =
    "macOS is acting on it too. Tavrick reads the trackpad passively and cannot always stop the system responding. "
    "Either turn the conflicting gesture off in Trackpad settings, or use a finger count macOS does not claim — "
    "five fingers, taps and pinches are free.";

} // namespace SystemGestureConflicts

} // namespace tavrick

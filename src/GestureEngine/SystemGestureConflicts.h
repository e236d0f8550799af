#pragma once

#include "CoreKit/Models.h"
#include "CoreKit/PreferenceStore.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// Which multi-finger gestures the system claims for itself, as its own trackpad and Dock
// preferences say. Plain value; only `current` reads the preferences.
struct SystemGestureSettings {
    bool threeFingerVertical = false;
    bool fourFingerVertical = true;
    bool threeFingerHorizontal = false;
    bool fourFingerHorizontal = true;
    bool fiveFingerPinch = true;
    bool fourFingerSpread = true;
    bool missionControl = true;
    bool appExpose = true;

    // Opens another program's preference domain by name, read afresh; nothing when the domain
    // cannot be opened.
    using OpenDomain = std::function<std::shared_ptr<const PreferenceStore>(const std::string& domain)>;

    // The built-in trackpad's domain first, then the Bluetooth one's.
    static constexpr const char* trackpadDomains[2] = {"com.apple.AppleMultitouchTrackpad",
                                                       "com.apple.driver.AppleBluetoothMultitouch.trackpad"};
    static constexpr const char* dockDomain = "com.apple.dock";

    // Reads every flag now. An unreadable domain or a missing key gives the default.
    static SystemGestureSettings current(const OpenDomain& open);

    // One trackpad that turns the gesture on is enough: a non-zero integer in either trackpad
    // domain answers true at once; a zero only stands when no later domain says otherwise.
    static bool anyDomainEnables(const OpenDomain& open, const std::string& key, bool defaultValue);
    // The Dock's switch for `key`, or the default when it has no value.
    static bool dockFlag(const OpenDomain& open, const std::string& key, bool defaultValue);

    // A stored value read the way the system's own defaults read a number or a switch of
    // another type: true is 1, a real is cut to its integer part, text is read for a leading
    // integer ("YES" and "true" also switch on), anything else is 0 or off.
    static std::int64_t integerValue(const PreferenceValue& value);
    static bool booleanValue(const PreferenceValue& value);

    friend bool operator==(const SystemGestureSettings&, const SystemGestureSettings&) = default;
};

namespace SystemGestureConflicts {

struct Conflict {
    std::string systemFeature;
    std::string advice;

    friend bool operator==(const Conflict&, const Conflict&) = default;
};

struct ConflictHash {
    std::size_t operator()(const Conflict& conflict) const;
};

// A binding that the system acts on too.
struct MappingConflict {
    Mapping mapping;
    Conflict conflict;

    friend bool operator==(const MappingConflict&, const MappingConflict&) = default;
};

// What a gesture editor and a binding row show for a conflict: the title, the advice beneath it,
// and the shorter line of a row.
struct Advice {
    std::string title;
    std::string detail;
    std::string rowText;

    friend bool operator==(const Advice&, const Advice&) = default;
};

// Swipes of three or four fingers and two pinches can collide; taps and rotations never do.
std::optional<Conflict> conflict(const GestureSpec& gesture, const SystemGestureSettings& settings);

// Every enabled gesture binding that collides, in the order given.
std::vector<MappingConflict> scan(const std::vector<Mapping>& mappings, const SystemGestureSettings& settings);

Advice advice(const Conflict& conflict);

// The last sentence of the welcome flow's gesture page, after scanning its example bindings.
std::string onboardingClosing(const std::vector<Mapping>& examples, const SystemGestureSettings& settings);

// The help text for a gesture that fires twice.
extern const char* const firesTwiceHelp;

} // namespace SystemGestureConflicts

} // namespace tavrick

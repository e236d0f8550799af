#pragma once

#include "CoreKit/PreferenceStore.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tavrick {

enum class TweakGroup { finder, dock, windows, screenshots, privacy, sound, security };
enum class TweakCategory { finder, desktop, screenshots, system };
enum class RestartTarget { finder, dock, windowManager, notificationCentre, systemUIServer, powerChime };

const char* rawValue(TweakGroup group);
const char* title(TweakGroup group);
TweakCategory category(TweakGroup group);
const char* rawValue(TweakCategory category);
const char* title(TweakCategory category);
std::vector<TweakGroup> groups(TweakCategory category);

const char* rawValue(RestartTarget target);
const char* displayName(RestartTarget target);
const char* bundleIdentifier(RestartTarget target);
// Where the application lives; nothing for a target without one.
std::optional<std::string> applicationURL(RestartTarget target);
// The system's supervisor brings it back by itself after a quit.
bool relaunchesItself(RestartTarget target);

// The value that makes a setting count as on.
struct TweakValue {
    std::variant<bool, std::int64_t, double, std::string> value;

    // Stored preferences are loosely typed, so the comparison is tolerant by this value's kind.
    bool matches(const PreferenceValue& stored) const;
    PreferenceValue preferenceValue() const;
    friend bool operator==(const TweakValue&, const TweakValue&) = default;
};

struct TweakSetting {
    std::string domain;
    std::string key;
    TweakValue onValue;

    // The global domain is every application's; any other domain is its own.
    std::string applicationID() const;
};

struct Tweak {
    std::string id;
    TweakGroup group;
    std::string title;
    std::string detail;
    std::vector<TweakSetting> settings;
    std::optional<RestartTarget> restart;
};

// Another program's preference domain, read afresh on every call. Nothing when the domain
// cannot be reached.
using PreferenceDomains = std::function<std::shared_ptr<PreferenceStore>(const std::string& applicationID)>;

namespace Tweaks {

inline constexpr const char* anyApplication = "kCFPreferencesAnyApplication";

const std::vector<Tweak>& all();
std::vector<Tweak> all(TweakGroup group);
std::vector<Tweak> all(TweakCategory category);
std::vector<TweakGroup> populatedGroups();
std::vector<TweakGroup> populatedGroups(TweakCategory category);
std::vector<TweakCategory> populatedCategories();
std::optional<Tweak> tweak(std::string_view id);

std::optional<PreferenceValue> read(const TweakSetting& setting, const PreferenceDomains& domains);
// True only when every setting holds its on value; a tweak without settings is on.
bool isOn(const Tweak& tweak, const PreferenceDomains& domains);
bool readBool(const std::string& key, const std::string& domain, bool fallback, const PreferenceDomains& domains);

} // namespace Tweaks

} // namespace tavrick

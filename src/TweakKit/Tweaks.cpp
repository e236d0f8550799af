#include "TweakKit/Tweaks.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace tavrick {

const char* rawValue(TweakGroup group) {
    switch (group) {
    case TweakGroup::finder: return "finder";
    case TweakGroup::dock: return "dock";
    case TweakGroup::windows: return "windows";
    case TweakGroup::screenshots: return "screenshots";
    case TweakGroup::privacy: return "privacy";
    case TweakGroup::sound: return "sound";
    case TweakGroup::security: return "security";
    }
    return "finder";
}

const char* title(TweakGroup group) {
    switch (group) {
    case TweakGroup::finder: return "Finder";
    case TweakGroup::dock: return "Dock";
    case TweakGroup::windows: return "Windows";
    case TweakGroup::screenshots: return "Screenshots";
    case TweakGroup::privacy: return "Privacy";
    case TweakGroup::sound: return "Sound";
    case TweakGroup::security: return "Security";
    }
    return "Finder";
}

TweakCategory category(TweakGroup group) {
    switch (group) {
    case TweakGroup::finder: return TweakCategory::finder;
    case TweakGroup::dock:
    case TweakGroup::windows: return TweakCategory::desktop;
    case TweakGroup::screenshots: return TweakCategory::screenshots;
    case TweakGroup::privacy:
    case TweakGroup::sound:
    case TweakGroup::security: return TweakCategory::system;
    }
    return TweakCategory::system;
}

const char* rawValue(TweakCategory category) {
    switch (category) {
    case TweakCategory::finder: return "finder";
    case TweakCategory::desktop: return "desktop";
    case TweakCategory::screenshots: return "screenshots";
    case TweakCategory::system: return "system";
    }
    return "system";
}

const char* title(TweakCategory category) {
    switch (category) {
    case TweakCategory::finder: return "Finder";
    case TweakCategory::desktop: return "Desktop";
    case TweakCategory::screenshots: return "Screenshots";
    case TweakCategory::system: return "System";
    }
    return "System";
}

namespace {
constexpr TweakGroup allGroups[] = {TweakGroup::finder,      TweakGroup::dock,    TweakGroup::windows,
                                    TweakGroup::screenshots, TweakGroup::privacy, TweakGroup::sound,
                                    TweakGroup::security};
constexpr TweakCategory allCategories[] = {TweakCategory::finder, TweakCategory::desktop, TweakCategory::screenshots,
                                           TweakCategory::system};
} // namespace

std::vector<TweakGroup> groups(TweakCategory wanted) {
    std::vector<TweakGroup> out;
    for (auto group : allGroups) {
        if (category(group) == wanted) out.push_back(group);
    }
    return out;
}

namespace {
struct TargetRow {
    const char* raw;
    const char* display;
    const char* bundle;
    const char* application;
    bool relaunches;
};
const TargetRow& row(RestartTarget target) {
    static const TargetRow rows[] = {
        {"finder", "Finder", "com.apple.finder", "/System/Library/CoreServices/Finder.app", false},
        {"dock", "the Dock", "com.apple.dock", "/System/Library/CoreServices/Dock.app", true},
        {"windowManager", "the window manager", "com.apple.WindowManager",
         "/System/Library/CoreServices/WindowManager.app", true},
        {"notificationCentre", "Notification Centre", "com.apple.notificationcenterui",
         "/System/Library/CoreServices/NotificationCenter.app", true},
        {"systemUIServer", "the menu bar", "com.apple.systemuiserver", "/System/Library/CoreServices/SystemUIServer.app",
         true},
        {"powerChime", "the charging chime", "com.apple.PowerChime", nullptr, false},
    };
    return rows[static_cast<int>(target)];
}
} // namespace

const char* rawValue(RestartTarget target) { return row(target).raw; }
const char* displayName(RestartTarget target) { return row(target).display; }
const char* bundleIdentifier(RestartTarget target) { return row(target).bundle; }
std::optional<std::string> applicationURL(RestartTarget target) {
    if (!row(target).application) return std::nullopt;
    return std::string(row(target).application);
}
bool relaunchesItself(RestartTarget target) { return row(target).relaunches; }

namespace {
template <class Number>
std::optional<Number> parseWhole(std::string_view text) {
    Number value{};
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty()) return std::nullopt;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// A preference number of any kind, as the system's number type would give it.
std::optional<double> number(const PreferenceValue& stored) {
    if (auto b = stored.asBool()) return *b ? 1.0 : 0.0;
    if (auto i = stored.asInteger()) return static_cast<double>(*i);
    if (auto r = stored.asReal()) return *r;
    return std::nullopt;
}
} // namespace

bool TweakValue::matches(const PreferenceValue& stored) const {
    if (auto on = std::get_if<bool>(&value)) {
        if (auto b = stored.asBool()) return *b == *on;
        if (auto n = number(stored)) return (*n != 0) == *on;
        if (auto s = stored.asString()) return (*s == "1" || *s == "true" || *s == "yes") == *on;
        return false;
    }
    if (auto on = std::get_if<std::int64_t>(&value)) {
        if (auto i = stored.asInteger()) return *i == *on;
        if (auto n = number(stored)) return static_cast<std::int64_t>(*n) == *on;
        if (auto s = stored.asString()) return parseWhole<std::int64_t>(*s) == *on;
        return false;
    }
    if (auto on = std::get_if<double>(&value)) {
        std::optional<double> have = number(stored);
        if (auto s = stored.asString()) {
            char* end = nullptr;
            double parsed = std::strtod(s->c_str(), &end);
            if (!s->empty() && end == s->c_str() + s->size()) have = parsed;
        }
        return have && std::fabs(*have - *on) < 0.0001;
    }
    auto on = std::get<std::string>(value);
    auto s = stored.asString();
    return s && *s == on;
}

PreferenceValue TweakValue::preferenceValue() const {
    return std::visit([](const auto& v) { return PreferenceValue(v); }, value);
}

std::string TweakSetting::applicationID() const {
    return domain == "NSGlobalDomain" ? Tweaks::anyApplication : domain;
}

namespace Tweaks {

namespace {
TweakSetting on(const char* domain, const char* key, TweakValue value) { return {domain, key, std::move(value)}; }
TweakValue yes{true};
TweakValue no{false};
} // namespace

const std::vector<Tweak>& all() {
    using G = TweakGroup;
    using R = RestartTarget;
    static const std::vector<Tweak> tweaks = {
        {"showHiddenFiles", G::finder, "Show hidden files", "Dotfiles and system folders appear in every Finder window.",
         {on("com.apple.finder", "AppleShowAllFiles", yes)}, R::finder},
        {"showAllExtensions", G::finder, "Show all filename extensions",
         "Every file shows its extension, including the ones Finder normally hides.",
         {on("NSGlobalDomain", "AppleShowAllExtensions", yes)}, R::finder},
        {"showPathBar", G::finder, "Show the path bar", "The folder you are in, spelled out along the bottom of the window.",
         {on("com.apple.finder", "ShowPathbar", yes)}, R::finder},
        {"showStatusBar", G::finder, "Show the status bar", "How many items are in the folder, and how much space is free.",
         {on("com.apple.finder", "ShowStatusBar", yes)}, R::finder},
        {"searchCurrentFolder", G::finder, "Search the current folder first",
         "Typing in a Finder window searches where you are, not the whole Mac.",
         {on("com.apple.finder", "FXDefaultSearchScope", TweakValue{std::string("SCcf")})}, R::finder},
        {"sortFoldersFirst", G::finder, "Keep folders above files",
         "Folders sort to the top of every window rather than mixing in alphabetically.",
         {on("com.apple.finder", "_FXSortFoldersFirst", yes)}, R::finder},
        {"noExtensionWarning", G::finder, "No warning when changing an extension",
         "Renaming .txt to .md stops asking whether you are sure.",
         {on("com.apple.finder", "FXEnableExtensionChangeWarning", no)}, R::finder},
        {"noDSStoreOnShares", G::finder, "No .DS_Store on network and USB drives",
         "Stops Finder leaving its hidden layout files on shared folders and memory sticks.",
         {on("com.apple.desktopservices", "DSDontWriteNetworkStores", yes),
          on("com.apple.desktopservices", "DSDontWriteUSBStores", yes)},
         std::nullopt},
        {"instantDock", G::dock, "Instant hide and show",
         "Removes the pause and the animation when the Dock slides away and back.",
         {on("com.apple.dock", "autohide-delay", TweakValue{0.0}),
          on("com.apple.dock", "autohide-time-modifier", TweakValue{0.0})},
         R::dock},
        {"dimHiddenApps", G::dock, "Dim hidden apps",
         "Apps hidden with ⌘H show a faded icon, so you can tell they are running.",
         {on("com.apple.dock", "showhidden", yes)}, R::dock},
        {"runningAppsOnly", G::dock, "Only running apps",
         "Hides everything you have pinned. The Dock becomes a list of what is open.",
         {on("com.apple.dock", "static-only", yes)}, R::dock},
        {"noRecentApps", G::dock, "No recent applications",
         "Removes the section of recently used apps at the end of the Dock.",
         {on("com.apple.dock", "show-recents", no)}, R::dock},
        {"fixedSpaceOrder", G::dock, "Keep Spaces in a fixed order",
         "Stops Mission Control rearranging your desktops by how recently you used them.",
         {on("com.apple.dock", "mru-spaces", no)}, R::dock},
        {"scaleMinimise", G::dock, "Scale instead of genie",
         "Minimising a window scales it down rather than pouring it into the Dock.",
         {on("com.apple.dock", "mineffect", TweakValue{std::string("scale")})}, R::dock},
        {"noTiledMargins", G::windows, "No gaps between tiled windows",
         "Tiled windows sit flush against each other and the screen edge.",
         {on("com.apple.WindowManager", "EnableTiledWindowMargins", no)}, R::windowManager},
        {"noClickToShowDesktop", G::windows, "Clicking the wallpaper does nothing",
         "Stops a click on the desktop sweeping every window out of the way.",
         {on("com.apple.WindowManager", "EnableStandardClickToShowDesktop", no)}, R::windowManager},
        {"noEdgeDragTiling", G::windows, "No tiling by dragging to an edge",
         "Dragging a window to the side of the screen stops snapping it into a half.",
         {on("com.apple.WindowManager", "EnableTilingByEdgeDrag", no)}, R::windowManager},
        {"screenshotJPEG", G::screenshots, "Save screenshots as JPEG",
         "Smaller files than PNG, at the cost of sharp edges on text.",
         {on("com.apple.screencapture", "type", TweakValue{std::string("jpg")})}, R::systemUIServer},
        {"noScreenshotShadow", G::screenshots, "No drop shadow around windows",
         "A window shot comes out cropped to the window, without the grey halo.",
         {on("com.apple.screencapture", "disable-shadow", yes)}, R::systemUIServer},
        {"noScreenshotThumbnail", G::screenshots, "No floating thumbnail",
         "The screenshot is written straight to disk instead of hovering in the corner first.",
         {on("com.apple.screencapture", "show-thumbnail", no)}, R::systemUIServer},
        {"noScreenshotDate", G::screenshots, "No date in the filename",
         "Files are named “Screenshot” and numbered, without the timestamp.",
         {on("com.apple.screencapture", "include-date", no)}, R::systemUIServer},
        {"hideNotificationsWhileSharing", G::privacy, "Hide notifications while screen sharing",
         "Banners stop appearing on screen, so a message does not arrive in front of a meeting.",
         {on("com.apple.notificationcenterui", "dndDisplayNotifications", no)}, R::notificationCentre},
        {"noICloudByDefault", G::privacy, "Do not save to iCloud by default",
         "The Save dialog opens on your disk rather than iCloud Drive.",
         {on("NSGlobalDomain", "NSDocumentSaveNewDocumentsToCloud", no)}, std::nullopt},
        {"noSiriSharingOrAds", G::privacy, "Opt out of Siri sharing and personalised ads",
         "Siri recordings are not shared for review, and the App Store and News stop tailoring ads.",
         {on("com.apple.assistant.support", "Siri Data Sharing Opt-In Status", TweakValue{std::int64_t{2}}),
          on("com.apple.AdLib", "allowApplePersonalizedAdvertising", no)},
         std::nullopt},
        {"chargingChime", G::sound, "Chime when the power is connected",
         "The sound an iPhone makes when it starts charging, on every Mac rather than only the ones that ship with it.",
         {on("com.apple.PowerChime", "ChimeOnAllHardware", yes)}, R::powerChime},
        {"noQuarantinePrompt", G::security, "Skip the “downloaded from the internet” warning",
         "Weakens Gatekeeper: macOS stops asking before the first launch of anything you download, for every app "
         "rather than one. Leave this off unless you know why you want it.",
         {on("com.apple.LaunchServices", "LSQuarantine", no)}, std::nullopt},
    };
    return tweaks;
}

std::vector<Tweak> all(TweakGroup group) {
    std::vector<Tweak> out;
    for (const auto& t : all()) {
        if (t.group == group) out.push_back(t);
    }
    return out;
}

std::vector<Tweak> all(TweakCategory wanted) {
    std::vector<Tweak> out;
    for (const auto& t : all()) {
        if (category(t.group) == wanted) out.push_back(t);
    }
    return out;
}

std::vector<TweakGroup> populatedGroups() {
    std::vector<TweakGroup> out;
    for (auto group : allGroups) {
        if (!all(group).empty()) out.push_back(group);
    }
    return out;
}

std::vector<TweakGroup> populatedGroups(TweakCategory wanted) {
    std::vector<TweakGroup> out;
    for (auto group : groups(wanted)) {
        if (!all(group).empty()) out.push_back(group);
    }
    return out;
}

std::vector<TweakCategory> populatedCategories() {
    std::vector<TweakCategory> out;
    for (auto c : allCategories) {
        if (!all(c).empty()) out.push_back(c);
    }
    return out;
}

std::optional<Tweak> tweak(std::string_view id) {
    for (const auto& t : all()) {
        if (t.id == id) return t;
    }
    return std::nullopt;
}

std::optional<PreferenceValue> read(const TweakSetting& setting, const PreferenceDomains& domains) {
    // The store reads its file afresh, so a change made by another process shows at once.
    auto store = domains ? domains(setting.applicationID()) : nullptr;
    if (!store) return std::nullopt;
    return store->object(setting.key);
}

bool isOn(const Tweak& tweak, const PreferenceDomains& domains) {
    return std::all_of(tweak.settings.begin(), tweak.settings.end(), [&](const TweakSetting& setting) {
        auto stored = read(setting, domains);
        return stored && setting.onValue.matches(*stored);
    });
}

bool readBool(const std::string& key, const std::string& domain, bool fallback, const PreferenceDomains& domains) {
    auto stored = read(TweakSetting{domain, key, TweakValue{true}}, domains);
    if (!stored) return fallback;
    return TweakValue{true}.matches(*stored);
}

} // namespace Tweaks

} // namespace tavrick

// Which bindings the system acts on too: reading its trackpad and Dock switches, the rule table
// and the exact advice texts.
#include "GestureEngine/SystemGestureConflicts.h"

#include <gtest/gtest.h>

#include <map>

using namespace tavrick;
using namespace tavrick::SystemGestureConflicts;

namespace {

using Values = PreferenceValue::Dictionary;

// Domains held in memory; a domain not listed does not open.
SystemGestureSettings::OpenDomain domains(std::map<std::string, Values> byName) {
    return [byName = std::move(byName)](const std::string& name) -> std::shared_ptr<const PreferenceStore> {
        auto it = byName.find(name);
        if (it == byName.end()) return nullptr;
        return std::make_shared<InMemoryPreferenceStore>(it->second);
    };
}

const std::string builtIn = "com.apple.AppleMultitouchTrackpad";
const std::string bluetooth = "com.apple.driver.AppleBluetoothMultitouch.trackpad";
const std::string dock = "com.apple.dock";
const std::string fourVertical = "TrackpadFourFingerVertSwipeGesture";
const std::string threeVertical = "TrackpadThreeFingerVertSwipeGesture";

GestureSpec swipe(int fingers, GestureDirection direction) { return {fingers, GestureKind::swipe, direction}; }
GestureSpec pinch(int fingers, GestureDirection direction) { return {fingers, GestureKind::pinch, direction}; }

SystemGestureSettings allOn() {
    SystemGestureSettings s;
    s.threeFingerVertical = s.fourFingerVertical = s.threeFingerHorizontal = s.fourFingerHorizontal = true;
    s.fiveFingerPinch = s.fourFingerSpread = s.missionControl = s.appExpose = true;
    return s;
}

Mapping mapping(const std::string& name, Trigger trigger, bool enabled = true) {
    Mapping m;
    m.id = UUID::random();
    m.name = name;
    m.trigger = std::move(trigger);
    m.action = ActionSpec::toggleAwake();
    m.isEnabled = enabled;
    return m;
}

} // namespace

// A trackpad gesture is on when any trackpad domain enables it; a Dock switch reads as a boolean.
TEST(SystemGestureSettings, TrackpadCountsAndDockSwitchesWithTheirDefaults) {
    struct Case {
        const char* what;
        std::map<std::string, Values> domains;
        bool defaultValue;
        bool expected;
    };
    const std::string key = "showMissionControlGestureEnabled";
    const std::vector<Case> trackpad = {
        {"absent everywhere, default off", {}, false, false},
        {"absent everywhere, default on", {}, true, true},
        {"domains open but hold other keys", {{builtIn, {{"Other", 1}}}, {bluetooth, {}}}, true, true},
        {"zero built-in, two over Bluetooth", {{builtIn, {{fourVertical, 0}}}, {bluetooth, {{fourVertical, 2}}}}, false, true},
        {"two built-in, zero over Bluetooth", {{builtIn, {{fourVertical, 2}}}, {bluetooth, {{fourVertical, 0}}}}, false, true},
        {"zero in both, default on", {{builtIn, {{fourVertical, 0}}}, {bluetooth, {{fourVertical, 0}}}}, true, false},
        {"zero in one, absent in the other", {{bluetooth, {{fourVertical, 0}}}}, true, false},
        {"negative counts as on", {{builtIn, {{fourVertical, -1}}}}, false, true},
        {"a bool true reads as one", {{builtIn, {{fourVertical, true}}}}, false, true},
        {"a bool false reads as zero", {{builtIn, {{fourVertical, false}}}}, true, false},
        {"a real is cut to its integer part", {{builtIn, {{fourVertical, 0.9}}}}, true, false},
        {"a real of 2.5 is on", {{builtIn, {{fourVertical, 2.5}}}}, false, true},
        {"text with a leading number", {{builtIn, {{fourVertical, " 3 fingers"}}}}, false, true},
        {"text that is no number reads as zero", {{builtIn, {{fourVertical, "YES"}}}}, true, false},
        {"bytes read as zero", {{builtIn, {{fourVertical, PreferenceValue::data("\x01")}}}}, true, false},
    };
    for (const auto& c : trackpad) {
        EXPECT_EQ(SystemGestureSettings::anyDomainEnables(domains(c.domains), fourVertical, c.defaultValue), c.expected)
            << c.what;
    }
    // No way to open domains at all is the same as nothing set.
    EXPECT_TRUE(SystemGestureSettings::anyDomainEnables(nullptr, fourVertical, true));
    const std::vector<Case> dockSwitches = {
        {"no dock domain", {}, true, true},
        {"dock without the key", {{dock, {}}}, true, true},
        {"false", {{dock, {{key, false}}}}, true, false},
        {"true over a default of off", {{dock, {{key, true}}}}, false, true},
        {"integer zero", {{dock, {{key, 0}}}}, true, false},
        {"integer seven", {{dock, {{key, 7}}}}, false, true},
        {"text YES", {{dock, {{key, "YES"}}}}, false, true},
        {"text true", {{dock, {{key, "true"}}}}, false, true},
        {"text NO", {{dock, {{key, "NO"}}}}, true, false},
        {"text 0", {{dock, {{key, "0"}}}}, true, false},
        {"a real of 0.5", {{dock, {{key, 0.5}}}}, false, true},
        // The key in a trackpad domain is not the Dock's.
        {"only in a trackpad domain", {{builtIn, {{key, false}}}}, true, true},
    };
    for (const auto& c : dockSwitches) {
        EXPECT_EQ(SystemGestureSettings::dockFlag(domains(c.domains), key, c.defaultValue), c.expected) << c.what;
    }
}

TEST(SystemGestureSettings, CurrentReadsEachFlagFromItsOwnKey) {
    // Nothing set anywhere: the defaults.
    SystemGestureSettings defaults;
    EXPECT_EQ(SystemGestureSettings::current(domains({})), defaults);
    EXPECT_FALSE(defaults.threeFingerVertical);
    EXPECT_TRUE(defaults.fourFingerVertical);

    // Every flag turned to the opposite of its default, one key each, so a key read into the
    // wrong field shows.
    auto flipped = SystemGestureSettings::current(domains({
        {builtIn,
         {{threeVertical, 1},
          {fourVertical, 0},
          {"TrackpadThreeFingerHorizSwipeGesture", 2},
          {"TrackpadFourFingerHorizSwipeGesture", 0},
          {"TrackpadFiveFingerPinchGesture", 0}}},
        {bluetooth, {{"TrackpadFourFingerPinchGesture", 0}}},
        {dock, {{"showMissionControlGestureEnabled", false}, {"showAppExposeGestureEnabled", false}}},
    }));
    EXPECT_TRUE(flipped.threeFingerVertical);
    EXPECT_FALSE(flipped.fourFingerVertical);
    EXPECT_TRUE(flipped.threeFingerHorizontal);
    EXPECT_FALSE(flipped.fourFingerHorizontal);
    EXPECT_FALSE(flipped.fiveFingerPinch);
    EXPECT_FALSE(flipped.fourFingerSpread);
    EXPECT_FALSE(flipped.missionControl);
    EXPECT_FALSE(flipped.appExpose);

    // One reading opens each domain once, so that it sees one state of each file.
    std::map<std::string, int> opens;
    SystemGestureSettings::current([&](const std::string& name) -> std::shared_ptr<const PreferenceStore> {
        ++opens[name];
        return nullptr;
    });
    EXPECT_EQ(opens, (std::map<std::string, int>{{builtIn, 1}, {bluetooth, 1}, {dock, 1}}));
}

TEST(SystemGestureConflicts, TheRuleTableWithItsExactAdvice) {
    const Conflict missionControl{
        "Mission Control",
        "Turn off “Mission Control” in System Settings › Trackpad › More Gestures, or use a different finger count."};
    const Conflict appExpose{
        "App Exposé",
        "Turn off “App Exposé” in System Settings › Trackpad › More Gestures, or use a different finger count."};
    const Conflict fullScreen{"Swipe between full-screen applications",
                              "Turn off “Swipe between full-screen applications” in System Settings › Trackpad › More "
                              "Gestures, or use a different finger count."};
    const Conflict showDesktop{"Show Desktop", "Turn off “Show Desktop” in System Settings › Trackpad › More Gestures."};
    const Conflict launchpad{"Launchpad", "Turn off “Launchpad” in System Settings › Trackpad › More Gestures."};

    using D = GestureDirection;
    struct Case {
        GestureSpec gesture;
        std::optional<Conflict> expected;
    };
    const std::vector<Case> cases = {
        {swipe(3, D::up), missionControl},
        {swipe(4, D::up), missionControl},
        {swipe(3, D::down), appExpose},
        {swipe(4, D::down), appExpose},
        {swipe(3, D::left), fullScreen},
        {swipe(4, D::right), fullScreen},
        {swipe(3, D::expand), std::nullopt},
        {swipe(4, D::contract), std::nullopt},
        // Two and five fingers are never claimed by a swipe.
        {swipe(2, D::up), std::nullopt},
        {swipe(5, D::up), std::nullopt},
        {swipe(5, D::left), std::nullopt},
        {GestureSpec{3, GestureKind::swipe, std::nullopt}, std::nullopt},
        {pinch(4, D::expand), showDesktop},
        {pinch(5, D::contract), launchpad},
        {pinch(4, D::contract), std::nullopt},
        {pinch(5, D::expand), std::nullopt},
        {pinch(3, D::expand), std::nullopt},
        {GestureSpec{4, GestureKind::pinch, std::nullopt}, std::nullopt},
        {GestureSpec{3, GestureKind::tap, std::nullopt}, std::nullopt},
        {GestureSpec{4, GestureKind::tap, D::up}, std::nullopt},
        {GestureSpec{4, GestureKind::rotate, D::left}, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(conflict(c.gesture, allOn()), c.expected) << c.gesture.displayString();
    }
}

TEST(SystemGestureConflicts, EachSwitchGuardsOnlyItsOwnGestures) {
    using D = GestureDirection;
    struct Case {
        const char* what;
        bool SystemGestureSettings::*off;
        std::vector<GestureSpec> freed;
        std::vector<GestureSpec> stillClaimed;
    };
    const std::vector<Case> cases = {
        {"three-finger vertical off", &SystemGestureSettings::threeFingerVertical, {swipe(3, D::up), swipe(3, D::down)},
         {swipe(4, D::up), swipe(4, D::down), swipe(3, D::left)}},
        {"four-finger vertical off", &SystemGestureSettings::fourFingerVertical, {swipe(4, D::up), swipe(4, D::down)},
         {swipe(3, D::up), swipe(4, D::left)}},
        {"three-finger horizontal off", &SystemGestureSettings::threeFingerHorizontal,
         {swipe(3, D::left), swipe(3, D::right)}, {swipe(4, D::left), swipe(3, D::up)}},
        {"four-finger horizontal off", &SystemGestureSettings::fourFingerHorizontal,
         {swipe(4, D::left), swipe(4, D::right)}, {swipe(3, D::right), swipe(4, D::down)}},
        // Mission Control guards only the upward swipe, App Exposé only the downward one.
        {"Mission Control off", &SystemGestureSettings::missionControl, {swipe(3, D::up), swipe(4, D::up)},
         {swipe(3, D::down), swipe(4, D::down)}},
        {"App Exposé off", &SystemGestureSettings::appExpose, {swipe(3, D::down), swipe(4, D::down)},
         {swipe(3, D::up), swipe(4, D::up)}},
        {"spread off", &SystemGestureSettings::fourFingerSpread, {pinch(4, D::expand)}, {pinch(5, D::contract)}},
        {"five-finger pinch off", &SystemGestureSettings::fiveFingerPinch, {pinch(5, D::contract)}, {pinch(4, D::expand)}},
    };
    for (const auto& c : cases) {
        auto settings = allOn();
        settings.*(c.off) = false;
        for (const auto& g : c.freed) EXPECT_FALSE(conflict(g, settings)) << c.what << ": " << g.displayString();
        for (const auto& g : c.stillClaimed) EXPECT_TRUE(conflict(g, settings)) << c.what << ": " << g.displayString();
    }
    // The vertical flag off frees the upward swipe whatever Mission Control says.
    SystemGestureSettings settings;
    settings.threeFingerVertical = false;
    settings.missionControl = true;
    EXPECT_FALSE(conflict(swipe(3, D::up), settings));
}

TEST(SystemGestureConflicts, ScanKeepsOrderAndSkipsDisabledAndOtherTriggers) {
    using D = GestureDirection;
    const std::vector<Mapping> mappings = {
        mapping("Down", Trigger::gesture(swipe(4, D::down))),
        mapping("Key", Trigger::hotkey(HotkeySpec{1, Modifiers::option})),
        mapping("Disabled up", Trigger::gesture(swipe(4, D::up)), false),
        mapping("Tap", Trigger::gesture(GestureSpec{3, GestureKind::tap, std::nullopt})),
        mapping("Mouse", Trigger::mouseGesture(MouseGestureSpec{{D::up}})),
        mapping("Spread", Trigger::gesture(pinch(4, D::expand))),
        mapping("Up", Trigger::gesture(swipe(3, D::up))),
    };
    const auto found = scan(mappings, allOn());
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].mapping.name, "Down");
    EXPECT_EQ(found[0].conflict.systemFeature, "App Exposé");
    EXPECT_EQ(found[1].mapping.name, "Spread");
    EXPECT_EQ(found[1].conflict.systemFeature, "Show Desktop");
    EXPECT_EQ(found[2].mapping.name, "Up");
    EXPECT_EQ(found[2].conflict.systemFeature, "Mission Control");
    EXPECT_TRUE(scan({}, allOn()).empty());
}

TEST(SystemGestureConflicts, TheTextsAUserReads) {
    const Conflict launchpad{"Launchpad", "Turn off “Launchpad” in System Settings › Trackpad › More Gestures."};
    EXPECT_EQ(advice(launchpad), (Advice{"macOS also uses this gesture for Launchpad",
                                         "Turn off “Launchpad” in System Settings › Trackpad › More Gestures.",
                                         "macOS uses this for Launchpad"}));
    // Conflicts are hashable values: equal ones hash alike.
    EXPECT_EQ(ConflictHash{}(launchpad), ConflictHash{}(Conflict{launchpad}));
    EXPECT_NE(ConflictHash{}(launchpad), ConflictHash{}(Conflict{"Launchpad", ""}));

    using D = GestureDirection;
    const std::vector<Mapping> examples = {
        mapping("Up", Trigger::gesture(swipe(3, D::up))),
        mapping("Left", Trigger::gesture(swipe(3, D::left))),
        mapping("Down", Trigger::gesture(swipe(3, D::down))),
        mapping("Also up", Trigger::gesture(swipe(4, D::up))),
    };
    SystemGestureSettings none;
    none.threeFingerVertical = none.threeFingerHorizontal = none.fourFingerVertical = false;
    EXPECT_EQ(onboardingClosing(examples, none),
              "You already have the conflicting system gestures switched off — nothing will double up.");
    EXPECT_EQ(onboardingClosing(examples, allOn()),
              "macOS also uses Mission Control, Swipe between full-screen applications and App Exposé. Tavrick warns "
              "you when a gesture you bind collides with one.");
    SystemGestureSettings oneOn = none;
    oneOn.threeFingerHorizontal = true;
    EXPECT_EQ(onboardingClosing(examples, oneOn),
              "macOS also uses Swipe between full-screen applications. Tavrick warns you when a gesture you bind "
              "collides with one.");
    EXPECT_EQ(std::string(firesTwiceHelp),
              "macOS is acting on it too. Tavrick reads the trackpad passively and cannot always stop the system "
              "responding. Either turn the conflicting gesture off in Trackpad settings, or use a finger count macOS "
              "does not claim — five fingers, taps and pinches are free.");
}

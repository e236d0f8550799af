#include "CoreKit/KeyCodes.h"
#include "CoreKit/Models.h"

#include "RawValues.h"
#include "Support/USLayout.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>
#include <unordered_set>

using namespace tavrick;
using nlohmann::json;

namespace {

// Names of ordinary keys depend on the installed layout; these tests want the US names.
class ModelsTest : public ::testing::Test {
    tavrick::testing::USLayout layout_;
};

UUID fixedID(int n) {
    char text[37];
    std::snprintf(text, sizeof text, "00000000-0000-4000-8000-%012d", n);
    return *UUID::parse(text);
}

} // namespace

// ---- Modifiers ----

TEST_F(ModelsTest, ModifierSymbolsFollowControlOptionShiftCommandAndHideFunction) {
    struct Case {
        std::int64_t raw;
        std::string symbols;
        bool safe;
    };
    const Case cases[] = {
        {0, "", false},         {1, "⌘", true},       {2, "⇧", false},     {4, "⌥", true},
        {8, "⌃", true},         {16, "", true},       {3, "⇧⌘", true},     {9, "⌃⌘", true},
        {12, "⌃⌥", true},       {15, "⌃⌥⇧⌘", true}, {31, "⌃⌥⇧⌘", true}, {18, "⇧", true},
    };
    for (const auto& c : cases) {
        Modifiers m(c.raw);
        EXPECT_EQ(m.symbolString(), c.symbols) << c.raw;
        EXPECT_EQ(m.isSafeForGlobalHotkey(), c.safe) << c.raw;
    }
}

TEST_F(ModelsTest, ModifiersConvertToAndFromEventFlagsDroppingOtherBits) {
    struct Case {
        Modifiers modifier;
        std::uint64_t flag;
    };
    const Case cases[] = {
        {Modifiers::command, 0x100000}, {Modifiers::shift, 0x20000},     {Modifiers::option, 0x80000},
        {Modifiers::control, 0x40000},  {Modifiers::function, 0x800000},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.modifier.cgFlags(), c.flag);
        EXPECT_EQ(Modifiers::fromCGFlags(c.flag), c.modifier);
    }
    // Caps lock, the numeric pad bit and device-dependent low bits are not modifiers.
    EXPECT_EQ(Modifiers::fromCGFlags(0x10000 | 0x200000 | 0xFF | 0x100000), Modifiers::command);
    EXPECT_EQ(Modifiers::fromCGFlags(0x10000), Modifiers());
    EXPECT_EQ(Modifiers(31).cgFlags(), 0x100000u | 0x20000 | 0x80000 | 0x40000 | 0x800000);
    EXPECT_EQ(Modifiers::fromCGFlags(Modifiers(13).cgFlags()), Modifiers(13));
}

TEST_F(ModelsTest, HotkeyDisplayStringsUseSymbolsThenKeyName) {
    struct Case {
        HotkeySpec spec;
        std::string text;
    };
    const Case cases[] = {
        {{49, Modifiers(9)}, "⌃⌘Space"}, {{123, Modifiers(12)}, "⌃⌥←"}, {{8, Modifiers(1)}, "⌘C"},
        {{36, Modifiers(12)}, "⌃⌥↩"},    {{122, Modifiers(0)}, "F1"},   {{200, Modifiers(2)}, "⇧Key 200"},
        {{0, Modifiers(16)}, "A"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.spec.displayString(), c.text);
}

// ---- Gestures ----

TEST_F(ModelsTest, TriggerTexts) {
    EXPECT_EQ(Trigger::hotkey({124, Modifiers(12)}).displayString(), "⌃⌥→");
    EXPECT_EQ(Trigger::gesture({3, GestureKind::swipe, GestureDirection::left}).displayString(), "3-finger swipe left");
    EXPECT_EQ(Trigger::gesture({4, GestureKind::tap, std::nullopt}).displayString(), "4-finger tap");
    EXPECT_EQ(Trigger::gesture({5, GestureKind::pinch, GestureDirection::expand}).displayString(), "5-finger pinch expand");
    EXPECT_EQ(Trigger::mouseGesture({{GestureDirection::down}}).displayString(), "Mouse ↓");
}

TEST_F(ModelsTest, MouseGestureValidityAndTexts) {
    using D = GestureDirection;
    struct Case {
        std::vector<D> strokes;
        bool valid;
        std::string symbols, spelled;
    };
    const Case cases[] = {
        {{}, false, "", ""},
        {{D::up}, true, "↑", "up"},
        {{D::up, D::left}, true, "↑←", "up, then left"},
        {{D::down, D::right, D::up}, true, "↓→↑", "down, then right, then up"},
        {{D::down, D::right, D::up, D::left}, false, "↓→↑←", "down, then right, then up, then left"},
        {{D::up, D::expand}, false, "↑⤢", "up, then expand"},
    };
    for (const auto& c : cases) {
        MouseGestureSpec spec{c.strokes};
        EXPECT_EQ(spec.isValid(), c.valid) << c.spelled;
        EXPECT_EQ(spec.symbols(), c.symbols);
        EXPECT_EQ(spec.displayString(), "Mouse " + c.symbols);
        EXPECT_EQ(spec.spelledOut(), c.spelled);
    }
}

TEST_F(ModelsTest, ScopeNamesIdsAndMatching) {
    auto safari = GestureScope::app("com.apple.Safari", "Safari");
    auto everywhere = GestureScope::everywhere();
    EXPECT_EQ(safari.displayName(), "In Safari");
    EXPECT_EQ(everywhere.displayName(), "Everywhere");
    EXPECT_EQ(safari.bundleID(), "com.apple.Safari");
    EXPECT_EQ(everywhere.bundleID(), std::nullopt);

    struct Case {
        const GestureScope& scope;
        std::optional<std::string> frontmost;
        bool matches;
    };
    const Case cases[] = {
        {everywhere, std::nullopt, true},
        {everywhere, "com.apple.Safari", true},
        {safari, "com.apple.Safari", true},
        {safari, "com.apple.safari", false},
        {safari, "com.apple.Terminal", false},
        {safari, std::nullopt, false},
        {safari, "", false},
    };
    for (const auto& c : cases) EXPECT_EQ(c.scope.matches(c.frontmost), c.matches) << c.frontmost.value_or("nil");
}

// ---- Action enumerations ----

// The raw values are what files store: each family reads back from them, in declaration order.
TEST_F(ModelsTest, EveryEnumerationRoundTripsThroughItsStoredText) {
    const auto raws = [](auto cases) { return tavrick::testing::roundTrippedRaws(cases); };
    EXPECT_EQ(raws(allCases<GestureKind>()), "swipe tap pinch rotate");
    EXPECT_EQ(raws(allCases<GestureDirection>()), "up down left right expand contract");
    EXPECT_EQ(raws(allCases<WindowCommand>()),
              "leftHalf rightHalf topHalf bottomHalf leftThird centerThird rightThird leftTwoThirds rightTwoThirds "
              "topLeftQuarter topRightQuarter bottomLeftQuarter bottomRightQuarter maximize center nextDisplay "
              "previousDisplay restore");
    EXPECT_EQ(raws(allCases<SystemCommand>()),
              "openFinder closeWindow quitApplication missionControl copy nextFullScreenApp previousFullScreenApp");
    EXPECT_EQ(raws(allCases<PomodoroAction>()), "startOrPause skipPhase reset");
    EXPECT_EQ(raws(allCases<FanPreset>()), "automatic boost25 boost50 max toggleBoost");
    for (const char* other : {"Swipe", "upLeft", "LeftHalf", "boost", ""}) {
        EXPECT_FALSE(fromRaw<GestureKind>(other) || fromRaw<GestureDirection>(other) ||
                     fromRaw<WindowCommand>(other) || fromRaw<FanPreset>(other))
            << other;
    }
    EXPECT_TRUE(needsDirection(GestureKind::swipe));
    EXPECT_FALSE(needsDirection(GestureKind::pinch));
}

TEST_F(ModelsTest, FanPresetLevelsAndChoices) {
    const std::pair<FanPreset, std::optional<double>> levels[] = {
        {FanPreset::automatic, std::nullopt}, {FanPreset::boost25, 0.25}, {FanPreset::boost50, 0.5},
        {FanPreset::max, 1.0},                {FanPreset::toggleBoost, std::nullopt},
    };
    for (const auto& [preset, expected] : levels) {
        EXPECT_EQ(level(preset), expected) << rawValue(preset);
        EXPECT_EQ(isBoostStep(preset), preset == FanPreset::boost25 || preset == FanPreset::boost50);
    }
    auto choices = FanPresets::choices();
    EXPECT_EQ(std::vector<FanPreset>(choices.begin(), choices.end()),
              (std::vector<FanPreset>{FanPreset::automatic, FanPreset::boost25, FanPreset::boost50, FanPreset::max}));
}

TEST_F(ModelsTest, FanPresetResolution) {
    using F = FanPreset;
    struct Case {
        F preset, current, lastBoost, expected;
    };
    const Case cases[] = {
        {F::toggleBoost, F::max, F::boost25, F::automatic},
        {F::toggleBoost, F::boost25, F::boost25, F::automatic},
        {F::toggleBoost, F::boost50, F::boost50, F::automatic},
        {F::toggleBoost, F::automatic, F::max, F::boost50},
        {F::toggleBoost, F::automatic, F::boost25, F::boost25},
        {F::toggleBoost, F::automatic, F::automatic, F::boost50},
        {F::toggleBoost, F::toggleBoost, F::boost25, F::boost25},
        {F::toggleBoost, F::toggleBoost, F::toggleBoost, F::boost50},
        {F::max, F::automatic, F::boost25, F::max},
        {F::automatic, F::max, F::boost25, F::automatic},
        {F::boost25, F::boost25, F::boost50, F::boost25},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(resolved(c.preset, c.current, c.lastBoost), c.expected)
            << rawValue(c.preset) << " from " << rawValue(c.current) << " last " << rawValue(c.lastBoost);
    }
}

// ---- ActionSpec ----

TEST_F(ModelsTest, ActionDisplayStringsAndFlags) {
    struct Case {
        ActionSpec action;
        std::string text;
        bool accessibility;
        bool ownPanel;
    };
    const Case cases[] = {
        {ActionSpec::window(WindowCommand::nextDisplay), "Move to Next Display", true, false},
        {ActionSpec::sendKeystroke({8, Modifiers(1)}), "Send ⌘C", true, false},
        {ActionSpec::launchOrActivate("com.apple.Safari"), "Open com.apple.Safari", false, false},
        {ActionSpec::openURL(URL{"file:///Users/me/a.txt"}), "Open file:///Users/me/a.txt", false, false},
        {ActionSpec::revealFile("~/Documents/"), "Reveal Documents", false, false},
        {ActionSpec::revealFile("/"), "Reveal /", false, false},
        {ActionSpec::revealFile("notes.txt"), "Reveal notes.txt", false, false},
        {ActionSpec::toggleAwake(), "Toggle Keep Awake", false, false},
        {ActionSpec::system(SystemCommand::copy), "Copy", true, false},
        {ActionSpec::showClipboardHistory(), "Show clipboard history", false, true},
        {ActionSpec::showSelectionBar(), "Show selection bar", true, true},
        {ActionSpec::showNotepad(), "Show notepad", false, true},
        {ActionSpec::fans(FanPreset::toggleBoost), "Toggle fan boost", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.action.displayString(), c.text);
        EXPECT_EQ(c.action.requiresAccessibility(), c.accessibility) << c.text;
        EXPECT_EQ(c.action.managesOwnPanel(), c.ownPanel) << c.text;
    }
    for (auto command : allCases<SystemCommand>()) {
        EXPECT_EQ(requiresAccessibility(command),
                  command != SystemCommand::openFinder && command != SystemCommand::missionControl)
            << rawValue(command);
    }
}

TEST_F(ModelsTest, MappingNameFallsBackToTheActionAndScopeToEverywhere) {
    Mapping named{fixedID(1), "Tile left", Trigger::hotkey({123, Modifiers(12)}),
                  ActionSpec::window(WindowCommand::leftHalf), true, std::nullopt};
    EXPECT_EQ(named.effectiveName(), "Tile left");
    Mapping unnamed = named;
    unnamed.name = "";
    EXPECT_EQ(unnamed.effectiveName(), "Left Half");
    EXPECT_EQ(unnamed.toJSON()["name"], "") << "a blank name stays blank on disk";
    EXPECT_EQ(unnamed.effectiveScope(), GestureScope::everywhere());
    unnamed.scope = GestureScope::app("com.apple.Safari", "Safari");
    EXPECT_EQ(unnamed.effectiveScope().displayName(), "In Safari");
}

// ---- JSON forms ----

TEST_F(ModelsTest, EveryActionFormRoundTrips) {
    struct Case {
        std::string text;
        ActionSpec action;
    };
    const Case cases[] = {
        {R"({"window":{"_0":"leftHalf"}})", ActionSpec::window(WindowCommand::leftHalf)},
        {R"({"sendKeystroke":{"_0":{"keyCode":8,"modifiers":1}}})", ActionSpec::sendKeystroke({8, Modifiers(1)})},
        {R"({"launchOrActivate":{"bundleID":"com.apple.Safari"}})", ActionSpec::launchOrActivate("com.apple.Safari")},
        {R"({"openURL":{"_0":"file:///Users/me/a.txt"}})", ActionSpec::openURL(URL{"file:///Users/me/a.txt"})},
        {R"({"revealFile":{"path":"~/Documents"}})", ActionSpec::revealFile("~/Documents")},
        {R"({"toggleAwake":{}})", ActionSpec::toggleAwake()},
        {R"({"system":{"_0":"openFinder"}})", ActionSpec::system(SystemCommand::openFinder)},
        {R"({"pomodoro":{"_0":"startOrPause"}})", ActionSpec::pomodoro(PomodoroAction::startOrPause)},
        {R"({"showClipboardHistory":{}})", ActionSpec::showClipboardHistory()},
        {R"({"showSelectionBar":{}})", ActionSpec::showSelectionBar()},
        {R"({"showNotepad":{}})", ActionSpec::showNotepad()},
        {R"({"fans":{"_0":"boost50"}})", ActionSpec::fans(FanPreset::boost50)},
    };
    std::set<std::string> casesSeen;
    for (const auto& c : cases) {
        EXPECT_EQ(ActionSpec::fromJSON(json::parse(c.text)), c.action) << c.text;
        EXPECT_EQ(c.action.toJSON().dump(), c.text);
        casesSeen.insert(std::string(c.action.caseName()));
    }
    EXPECT_EQ(casesSeen.size(), std::variant_size_v<ActionSpec::Value>) << "every case has a row";
}

TEST_F(ModelsTest, EveryTriggerAndScopeFormRoundTrips) {
    struct TriggerCase {
        std::string text;
        Trigger trigger;
    };
    const TriggerCase triggers[] = {
        {R"({"hotkey":{"_0":{"keyCode":49,"modifiers":9}}})", Trigger::hotkey({49, Modifiers(9)})},
        {R"({"gesture":{"_0":{"direction":"left","fingerCount":3,"kind":"swipe"}}})",
         Trigger::gesture({3, GestureKind::swipe, GestureDirection::left})},
        {R"({"gesture":{"_0":{"fingerCount":4,"kind":"tap"}}})", Trigger::gesture({4, GestureKind::tap, std::nullopt})},
        {R"({"mouseGesture":{"_0":{"strokes":["up","left"]}}})",
         Trigger::mouseGesture({{GestureDirection::up, GestureDirection::left}})},
        {R"({"mouseGesture":{"_0":{"strokes":[]}}})", Trigger::mouseGesture({})},
    };
    for (const auto& c : triggers) {
        EXPECT_EQ(Trigger::fromJSON(json::parse(c.text)), c.trigger) << c.text;
        EXPECT_EQ(c.trigger.toJSON().dump(), c.text);
    }

    const std::pair<std::string, GestureScope> scopes[] = {
        {R"({"everywhere":{}})", GestureScope::everywhere()},
        {R"({"app":{"bundleID":"com.apple.Safari","name":"Safari"}})", GestureScope::app("com.apple.Safari", "Safari")},
    };
    for (const auto& [text, scope] : scopes) {
        EXPECT_EQ(GestureScope::fromJSON(json::parse(text)), scope) << text;
        EXPECT_EQ(scope.toJSON().dump(), text);
    }
}

TEST_F(ModelsTest, MappingFormLeavesScopeOutWhenNilAndWritesUpperCaseIds) {
    auto text = R"({"action":{"window":{"_0":"maximize"}},"id":"7a1c3e52-0b4d-4f6a-9c21-5d8e00000005",)"
                R"("isEnabled":false,"name":"","trigger":{"hotkey":{"_0":{"keyCode":36,"modifiers":12}}}})";
    auto mapping = Mapping::fromJSON(json::parse(text));
    EXPECT_EQ(mapping.id.uuidString(), "7A1C3E52-0B4D-4F6A-9C21-5D8E00000005");
    EXPECT_FALSE(mapping.isEnabled);
    EXPECT_EQ(mapping.scope, std::nullopt);
    auto written = mapping.toJSON();
    EXPECT_FALSE(written.contains("scope"));
    EXPECT_EQ(written.dump(),
              R"({"action":{"window":{"_0":"maximize"}},"id":"7A1C3E52-0B4D-4F6A-9C21-5D8E00000005",)"
              R"("isEnabled":false,"name":"","trigger":{"hotkey":{"_0":{"keyCode":36,"modifiers":12}}}})");

    mapping.scope = GestureScope::app("com.apple.Safari", "Safari");
    EXPECT_EQ(mapping.toJSON()["scope"].dump(), R"({"app":{"bundleID":"com.apple.Safari","name":"Safari"}})");
    EXPECT_EQ(Mapping::fromJSON(mapping.toJSON()), mapping);

    // A null scope reads as none, like an absent one.
    auto withNull = json::parse(text);
    withNull["scope"] = nullptr;
    EXPECT_EQ(Mapping::fromJSON(withNull).scope, std::nullopt);
}

TEST_F(ModelsTest, OldBoostPresetReadsAsBoost50AndWritesTheNewName) {
    auto action = ActionSpec::fromJSON(json::parse(R"({"fans":{"_0":"boost"}})"));
    EXPECT_EQ(action, ActionSpec::fans(FanPreset::boost50));
    EXPECT_EQ(action.toJSON().dump(), R"({"fans":{"_0":"boost50"}})");
}

TEST_F(ModelsTest, DecodingChecksShapeOnly) {
    auto mouse = Trigger::fromJSON(json::parse(R"({"mouseGesture":{"_0":{"strokes":["up","left","down","expand"]}}})"));
    ASSERT_NE(mouse.asMouseGesture(), nullptr);
    EXPECT_EQ(mouse.asMouseGesture()->strokes.size(), 4u);
    EXPECT_FALSE(mouse.asMouseGesture()->isValid());

    auto tap = Trigger::fromJSON(json::parse(R"({"gesture":{"_0":{"fingerCount":2,"kind":"tap","direction":"up"}}})"));
    ASSERT_NE(tap.asGesture(), nullptr);
    EXPECT_EQ(tap.asGesture()->direction, GestureDirection::up);

    // Keys this build does not use are passed over, as are whole-valued numbers with a fraction.
    auto hotkey = Trigger::fromJSON(json::parse(R"({"hotkey":{"_0":{"keyCode":49.0,"modifiers":9,"extra":1}}})"));
    EXPECT_EQ(hotkey, Trigger::hotkey({49, Modifiers(9)}));
    auto window = ActionSpec::fromJSON(json::parse(R"({"window":{"_0":"center"},"note":"hi"})"));
    EXPECT_EQ(window, ActionSpec::window(WindowCommand::center));
}

TEST_F(ModelsTest, DecodingErrorTexts) {
    const std::string valid = R"({"action":{"toggleAwake":{}},"id":"7A1C3E52-0B4D-4F6A-9C21-5D8E00000001",)"
                              R"("isEnabled":true,"name":"n","trigger":{"hotkey":{"_0":{"keyCode":49,"modifiers":9}}}})";
    ASSERT_NO_THROW(Mapping::fromJSON(json::parse(valid)));

    struct Case {
        std::string pointer;  // the part of the valid mapping to replace ("" for the whole)
        std::string replacement;
        std::string error;
    };
    const Case cases[] = {
        {"/action", R"({"teleport":{}})", "Invalid number of keys found, expected one."},
        {"/action", R"({"toggleAwake":{},"showNotepad":{}})", "Invalid number of keys found, expected one."},
        {"/scope", R"({"app":{"bundleID":"a","name":"b"},"everywhere":{}})",
         "Invalid number of keys found, expected one."},
        {"/action", R"({"fans":{"_0":"boost75"}})", "No fan preset is called boost75"},
        {"/action", R"({"window":{"_0":"sideways"}})", "Cannot initialize WindowCommand from invalid String value sideways"},
        {"/action", R"({"openURL":{"_0":""}})", "Invalid URL string."},
        {"/action", R"({"toggleAwake":true})", "Expected an object for “toggleAwake” but found a bool."},
        {"/action", R"({"window":{}})", "No value for key “_0”."},
        {"/action", R"({"launchOrActivate":{"_0":"com.apple.Safari"}})", "No value for key “bundleID”."},
        {"/action", R"("toggleAwake")", "Expected an object but found text."},
        {"/trigger", R"({"hotkey":{"_0":{"keyCode":"49","modifiers":9}}})",
         "Expected a number for “keyCode” but found text."},
        {"/trigger", R"({"hotkey":{"_0":{"keyCode":70000,"modifiers":9}}})",
         "The number for “keyCode” does not fit between 0 and 65535."},
        {"/trigger", R"({"hotkey":{"_0":{"keyCode":49.5,"modifiers":9}}})",
         "Expected a whole number for “keyCode” but found a number."},
        {"/trigger", R"({"hotkey":{"_0":{"keyCode":49}}})", "No value for key “modifiers”."},
        {"/trigger", R"({"gesture":{"_0":{"fingerCount":3,"kind":"swipe","direction":"north"}}})",
         "Cannot initialize GestureDirection from invalid String value north"},
        {"/trigger", R"({"mouseGesture":{"_0":{"strokes":"up"}}})", "Expected an array for “strokes” but found text."},
        {"/trigger", R"({"mouseGesture":{"_0":{"strokes":["up","diagonal"]}}})",
         "Cannot initialize GestureDirection from invalid String value diagonal"},
        {"/id", R"("not-a-uuid")", "Attempted to decode UUID from invalid UUID string."},
        {"/isEnabled", "1", "Expected a bool for “isEnabled” but found a number."},
        {"/name", "null", "Expected text for “name” but found null."},
        {"", "[]", "Expected an object but found an array."},
    };
    for (const auto& c : cases) {
        auto record = json::parse(valid);
        if (c.pointer.empty()) {
            record = json::parse(c.replacement);
        } else {
            record[json::json_pointer(c.pointer)] = json::parse(c.replacement);
        }
        try {
            Mapping::fromJSON(record);
            ADD_FAILURE() << "decoded " << record.dump();
        } catch (const DecodingError& error) {
            EXPECT_EQ(std::string(error.what()), c.error) << c.pointer << " = " << c.replacement;
        }
    }

    for (const char* key : {"id", "name", "trigger", "action", "isEnabled"}) {
        auto record = json::parse(valid);
        record.erase(key);
        try {
            Mapping::fromJSON(record);
            ADD_FAILURE() << "decoded without " << key;
        } catch (const DecodingError& error) {
            EXPECT_EQ(std::string(error.what()), std::string("No value for key “") + key + "”.");
        }
    }
}

// ---- Equality, hashing, ids ----

TEST_F(ModelsTest, EqualValuesHashEquallyAndEveryFieldCounts) {
    Mapping base{fixedID(1), "n", Trigger::hotkey({49, Modifiers(9)}), ActionSpec::toggleAwake(), true, std::nullopt};
    std::vector<Mapping> variants(7, base);
    variants[1].id = fixedID(2);
    variants[2].name = "m";
    variants[3].trigger = Trigger::hotkey({49, Modifiers(8)});
    variants[4].action = ActionSpec::showNotepad();
    variants[5].isEnabled = false;
    variants[6].scope = GestureScope::everywhere();
    std::unordered_set<Mapping> set(variants.begin(), variants.end());
    EXPECT_EQ(set.size(), variants.size());
    for (std::size_t i = 1; i < variants.size(); ++i) EXPECT_NE(variants[i], base) << i;
    Mapping copy = base;
    EXPECT_EQ(std::hash<Mapping>{}(copy), std::hash<Mapping>{}(base));

    std::unordered_set<HotkeySpec> hotkeys{{49, Modifiers(9)}, {49, Modifiers(9)}, {9, Modifiers(49)}};
    EXPECT_EQ(hotkeys.size(), 2u);
    std::unordered_set<Trigger> triggers{Trigger::gesture({3, GestureKind::tap, std::nullopt}),
                                         Trigger::gesture({3, GestureKind::tap, GestureDirection::up}),
                                         Trigger::mouseGesture({{GestureDirection::up}}),
                                         Trigger::mouseGesture({{GestureDirection::up}})};
    EXPECT_EQ(triggers.size(), 3u);
    EXPECT_NE(ActionSpec::revealFile("a"), ActionSpec::launchOrActivate("a"));
}

TEST_F(ModelsTest, RandomIdsAreVersion4AndDistinct) {
    std::unordered_set<UUID> seen;
    for (int i = 0; i < 1000; ++i) {
        auto id = UUID::random();
        auto text = id.uuidString();
        ASSERT_EQ(text.size(), 36u);
        EXPECT_EQ(text[14], '4');
        EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
        EXPECT_EQ(UUID::parse(text), id);
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST_F(ModelsTest, UUIDTextForms) {
    auto id = UUID::parse("0b6e1a52-3c1f-4d2a-9e10-5a7cffffff01");
    ASSERT_TRUE(id);
    EXPECT_EQ(id->uuidString(), "0B6E1A52-3C1F-4D2A-9E10-5A7CFFFFFF01");
    const char* invalid[] = {
        "",
        "0B6E1A52-3C1F-4D2A-9E10-5A7CFFFFFF0",    // short
        "0B6E1A52-3C1F-4D2A-9E10-5A7CFFFFFF011",  // long
        "0B6E1A523C1F-4D2A-9E10-5A7CFFFFFF01-",   // dash moved
        "0B6E1A52-3C1F-4D2A-9E10-5A7CFFFFFG01",   // not hex
        "{B6E1A52-3C1F-4D2A-9E10-5A7CFFFFFF01",   // braces are not part of the form
        "0B6E1A52 3C1F 4D2A 9E10 5A7CFFFFFF01",
    };
    for (const char* text : invalid) EXPECT_EQ(UUID::parse(text), std::nullopt) << text;
}

#pragma once

#include "CoreKit/JSONValue.h"
#include "CoreKit/Modifiers.h"
#include "CoreKit/MouseGesture.h"
#include "CoreKit/RawValue.h"
#include "CoreKit/UUID.h"

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

// The mapping model: one trigger bound to one action. Case and field names here are the on-disk
// form, so a file written by one build stays readable by the next.
namespace tavrick {

// A URL kept as its absolute text, which is what is stored and what is opened.
struct URL {
    std::string absoluteString;

    // Empty text is not a URL.
    static std::optional<URL> fromString(std::string text);

    friend bool operator==(const URL&, const URL&) = default;
};

// ---- Trackpad gestures ----

enum class GestureKind { swipe, tap, pinch, rotate };

std::string_view rawValue(GestureKind kind);
// "Swipe", "Tap", "Pinch", "Rotate".
std::string_view displayName(GestureKind kind);
// Only a swipe needs a direction to be complete.
bool needsDirection(GestureKind kind);

template <>
std::optional<GestureKind> fromRaw<GestureKind>(std::string_view raw);
template <>
std::span<const GestureKind> allCases<GestureKind>();

struct GestureSpec {
    int fingerCount = 3;
    GestureKind kind = GestureKind::swipe;
    std::optional<GestureDirection> direction;

    // "3-finger swipe left", "4-finger tap".
    std::string displayString() const;

    // {"fingerCount":3,"kind":"swipe","direction":"left"}; "direction" is left out when nil.
    nlohmann::json toJSON() const;
    static GestureSpec fromJSON(const nlohmann::json& json);

    friend bool operator==(const GestureSpec&, const GestureSpec&) = default;
};

// ---- Triggers ----

// What fires a mapping: a key combination, a trackpad gesture or a mouse shape.
struct Trigger {
    using Value = std::variant<HotkeySpec, GestureSpec, MouseGestureSpec>;
    Value value;

    Trigger() = default;
    Trigger(HotkeySpec spec) : value(spec) {}
    Trigger(GestureSpec spec) : value(spec) {}
    Trigger(MouseGestureSpec spec) : value(std::move(spec)) {}

    static Trigger hotkey(HotkeySpec spec) { return Trigger(spec); }
    static Trigger gesture(GestureSpec spec) { return Trigger(spec); }
    static Trigger mouseGesture(MouseGestureSpec spec) { return Trigger(std::move(spec)); }

    const HotkeySpec* asHotkey() const { return std::get_if<HotkeySpec>(&value); }
    const GestureSpec* asGesture() const { return std::get_if<GestureSpec>(&value); }
    const MouseGestureSpec* asMouseGesture() const { return std::get_if<MouseGestureSpec>(&value); }

    // "hotkey", "gesture" or "mouseGesture": the key of the on-disk form.
    std::string_view caseName() const;
    // The payload's display string.
    std::string displayString() const;

    // {"hotkey":{"_0":{...}}} and likewise for the other cases.
    nlohmann::json toJSON() const;
    static Trigger fromJSON(const nlohmann::json& json);

    friend bool operator==(const Trigger&, const Trigger&) = default;
};

// Where a mouse gesture applies: one application, or everywhere.
struct GestureScope {
    struct App {
        std::string bundleID;
        std::string name;
        friend bool operator==(const App&, const App&) = default;
    };
    struct Everywhere {
        friend bool operator==(Everywhere, Everywhere) = default;
    };
    using Value = std::variant<App, Everywhere>;
    Value value = Everywhere{};

    static GestureScope app(std::string bundleID, std::string name) {
        return GestureScope{App{std::move(bundleID), std::move(name)}};
    }
    static GestureScope everywhere() { return GestureScope{Everywhere{}}; }

    const App* asApp() const { return std::get_if<App>(&value); }
    bool isEverywhere() const { return std::holds_alternative<Everywhere>(value); }

    // "Everywhere", or "In " + the application's name.
    std::string displayName() const;
    // The application's bundle id; nothing for everywhere.
    std::optional<std::string> bundleID() const;
    // Everywhere matches anything, no frontmost application included; an application scope
    // matches only its own id.
    bool matches(const std::optional<std::string>& frontmostBundleID) const;

    // {"everywhere":{}} or {"app":{"bundleID":"com.apple.Safari","name":"Safari"}}
    nlohmann::json toJSON() const;
    static GestureScope fromJSON(const nlohmann::json& json);

    friend bool operator==(const GestureScope&, const GestureScope&) = default;
};

// ---- Actions ----

enum class WindowCommand {
    leftHalf,
    rightHalf,
    topHalf,
    bottomHalf,
    leftThird,
    centerThird,
    rightThird,
    leftTwoThirds,
    rightTwoThirds,
    topLeftQuarter,
    topRightQuarter,
    bottomLeftQuarter,
    bottomRightQuarter,
    maximize,
    center,
    nextDisplay,
    previousDisplay,
    restore,
};

std::string_view rawValue(WindowCommand command);
std::string_view displayName(WindowCommand command);
template <>
std::optional<WindowCommand> fromRaw<WindowCommand>(std::string_view raw);
template <>
std::span<const WindowCommand> allCases<WindowCommand>();

enum class SystemCommand {
    openFinder,
    closeWindow,
    quitApplication,
    missionControl,
    copy,
    nextFullScreenApp,
    previousFullScreenApp,
};

std::string_view rawValue(SystemCommand command);
std::string_view displayName(SystemCommand command);
// Commands that act on another application's window or send it keys.
bool requiresAccessibility(SystemCommand command);
template <>
std::optional<SystemCommand> fromRaw<SystemCommand>(std::string_view raw);
template <>
std::span<const SystemCommand> allCases<SystemCommand>();

enum class PomodoroAction { startOrPause, skipPhase, reset };

std::string_view rawValue(PomodoroAction action);
std::string_view displayName(PomodoroAction action);
template <>
std::optional<PomodoroAction> fromRaw<PomodoroAction>(std::string_view raw);
template <>
std::span<const PomodoroAction> allCases<PomodoroAction>();

enum class FanPreset { automatic, boost25, boost50, max, toggleBoost };

// Also the preset's id.
std::string_view rawValue(FanPreset preset);
// "Fans at Boost 50%" and so on.
std::string_view displayName(FanPreset preset);
// "Auto", "25%", "50%", "Max", "Toggle".
std::string_view shortTitle(FanPreset preset);
// "Auto (macOS controls)", "Boost 25%", ...
std::string_view title(FanPreset preset);
// The share of the fans' range, for the presets that fix one.
std::optional<double> level(FanPreset preset);
// Boost 25% and 50%; max is not a boost step.
bool isBoostStep(FanPreset preset);
// What a preset means given the current one: toggle boost goes to automatic from any boost, and
// from automatic to the last boost step used (or the default boost).
FanPreset resolved(FanPreset preset, FanPreset current, FanPreset lastBoost);

template <>
std::optional<FanPreset> fromRaw<FanPreset>(std::string_view raw);
template <>
std::span<const FanPreset> allCases<FanPreset>();

namespace FanPresets {
inline constexpr FanPreset defaultBoost = FanPreset::boost50;
// What the fan menu offers, in order: automatic, 25%, 50%, max.
std::span<const FanPreset> choices();
// A single text value. The older "boost" still reads as boost50; other unknown text fails with
// "No fan preset is called " + the text.
FanPreset decode(const nlohmann::json& json);
} // namespace FanPresets

// What a mapping does when it fires.
struct ActionSpec {
    struct Window {
        WindowCommand command;
        friend bool operator==(const Window&, const Window&) = default;
    };
    struct SendKeystroke {
        HotkeySpec keystroke;
        friend bool operator==(const SendKeystroke&, const SendKeystroke&) = default;
    };
    struct LaunchOrActivate {
        std::string bundleID;
        friend bool operator==(const LaunchOrActivate&, const LaunchOrActivate&) = default;
    };
    struct OpenURL {
        URL url;
        friend bool operator==(const OpenURL&, const OpenURL&) = default;
    };
    struct RevealFile {
        std::string path;
        friend bool operator==(const RevealFile&, const RevealFile&) = default;
    };
    struct ToggleAwake {
        friend bool operator==(ToggleAwake, ToggleAwake) = default;
    };
    struct System {
        SystemCommand command;
        friend bool operator==(const System&, const System&) = default;
    };
    struct Pomodoro {
        PomodoroAction action;
        friend bool operator==(const Pomodoro&, const Pomodoro&) = default;
    };
    struct ShowClipboardHistory {
        friend bool operator==(ShowClipboardHistory, ShowClipboardHistory) = default;
    };
    struct ShowSelectionBar {
        friend bool operator==(ShowSelectionBar, ShowSelectionBar) = default;
    };
    struct ShowNotepad {
        friend bool operator==(ShowNotepad, ShowNotepad) = default;
    };
    struct Fans {
        FanPreset preset;
        friend bool operator==(const Fans&, const Fans&) = default;
    };

    // In declaration order; the order is part of the model.
    using Value = std::variant<Window, SendKeystroke, LaunchOrActivate, OpenURL, RevealFile, ToggleAwake, System,
                               Pomodoro, ShowClipboardHistory, ShowSelectionBar, ShowNotepad, Fans>;
    Value value = Window{WindowCommand::leftHalf};

    ActionSpec() = default;
    template <class Case, class = std::enable_if_t<std::is_constructible_v<Value, Case>>>
    ActionSpec(Case c) : value(std::move(c)) {}

    static ActionSpec window(WindowCommand command) { return Window{command}; }
    static ActionSpec sendKeystroke(HotkeySpec keystroke) { return SendKeystroke{keystroke}; }
    static ActionSpec launchOrActivate(std::string bundleID) { return LaunchOrActivate{std::move(bundleID)}; }
    static ActionSpec openURL(URL url) { return OpenURL{std::move(url)}; }
    static ActionSpec revealFile(std::string path) { return RevealFile{std::move(path)}; }
    static ActionSpec toggleAwake() { return ToggleAwake{}; }
    static ActionSpec system(SystemCommand command) { return System{command}; }
    static ActionSpec pomodoro(PomodoroAction action) { return Pomodoro{action}; }
    static ActionSpec showClipboardHistory() { return ShowClipboardHistory{}; }
    static ActionSpec showSelectionBar() { return ShowSelectionBar{}; }
    static ActionSpec showNotepad() { return ShowNotepad{}; }
    static ActionSpec fans(FanPreset preset) { return Fans{preset}; }

    template <class Case>
    const Case* as() const {
        return std::get_if<Case>(&value);
    }

    // The key of the on-disk form ("window", "sendKeystroke", ...).
    std::string_view caseName() const;
    std::string displayString() const;
    // Window moves, keystrokes, the selection bar and some system commands need Accessibility.
    bool requiresAccessibility() const;
    // The clipboard history, selection bar and notepad open a panel of their own.
    bool managesOwnPanel() const;

    nlohmann::json toJSON() const;
    static ActionSpec fromJSON(const nlohmann::json& json);

    friend bool operator==(const ActionSpec&, const ActionSpec&) = default;
};

// One trigger bound to one action.
struct Mapping {
    UUID id;
    std::string name;
    Trigger trigger;
    ActionSpec action;
    bool isEnabled = true;
    // Only mouse gestures consult it; on other triggers it is stored and carried unchanged.
    std::optional<GestureScope> scope;

    // The name, or the action's display string when the name is empty.
    std::string effectiveName() const;
    GestureScope effectiveScope() const { return scope.value_or(GestureScope::everywhere()); }

    // "id", "name", "trigger", "action", "isEnabled", and "scope" only when there is one.
    nlohmann::json toJSON() const;
    // Throws DecodingError when a required key is missing, a value has the wrong type, or a case
    // is one this build does not know.
    static Mapping fromJSON(const nlohmann::json& json);

    friend bool operator==(const Mapping&, const Mapping&) = default;
};

} // namespace tavrick

template <>
struct std::hash<tavrick::URL> {
    std::size_t operator()(const tavrick::URL& url) const noexcept { return std::hash<std::string>{}(url.absoluteString); }
};

template <>
struct std::hash<tavrick::GestureSpec> {
    std::size_t operator()(const tavrick::GestureSpec& spec) const noexcept {
        std::size_t seed = std::hash<int>{}(spec.fingerCount);
        tavrick::hashCombine(seed, static_cast<std::size_t>(spec.kind));
        tavrick::hashCombine(seed, spec.direction ? static_cast<std::size_t>(*spec.direction) + 1 : 0);
        return seed;
    }
};

template <>
struct std::hash<tavrick::Trigger> {
    std::size_t operator()(const tavrick::Trigger& trigger) const noexcept;
};

template <>
struct std::hash<tavrick::GestureScope> {
    std::size_t operator()(const tavrick::GestureScope& scope) const noexcept;
};

template <>
struct std::hash<tavrick::ActionSpec> {
    std::size_t operator()(const tavrick::ActionSpec& action) const noexcept;
};

template <>
struct std::hash<tavrick::Mapping> {
    std::size_t operator()(const tavrick::Mapping& mapping) const noexcept;
};

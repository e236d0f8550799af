#include "CoreKit/Models.h"

#include <nlohmann/json.hpp>

#include <array>
#include <limits>

namespace tavrick {

namespace {

// One row a case: the raw value (also the on-disk form) and the name people see.
template <class E>
struct Row {
    E value;
    std::string_view raw;
    std::string_view name;
};

template <class E, std::size_t N>
constexpr std::array<E, N> casesOf(const std::array<Row<E>, N>& rows) {
    std::array<E, N> cases{};
    for (std::size_t i = 0; i < N; ++i) cases[i] = rows[i].value;
    return cases;
}

template <class E, std::size_t N>
const Row<E>& rowOf(const std::array<Row<E>, N>& rows, E value) {
    return rows[static_cast<std::size_t>(value)];
}

template <class E, std::size_t N>
std::optional<E> lookup(const std::array<Row<E>, N>& rows, std::string_view raw) {
    for (const auto& row : rows) {
        if (row.raw == raw) return row.value;
    }
    return std::nullopt;
}

template <class E>
E decodeRaw(const nlohmann::json& json, std::string_view key, std::string_view typeName) {
    auto raw = JSONRead::string(json, key);
    auto value = fromRaw<E>(raw);
    if (!value) throw JSONRead::invalidRawValue(typeName, raw);
    return *value;
}

// An enumeration with payload, written as {"case":{...}}.
nlohmann::json oneKey(std::string_view caseName, nlohmann::json payload) {
    nlohmann::json object = nlohmann::json::object();
    object.emplace(std::string(caseName), std::move(payload));
    return object;
}

nlohmann::json unlabelled(nlohmann::json payload) {
    return oneKey("_0", std::move(payload));
}

const nlohmann::json& unlabelledPayload(const nlohmann::json& caseObject) {
    return JSONRead::field(caseObject, "_0");
}

// ---- Tables ----

constexpr std::array<Row<GestureKind>, 4> gestureKinds = {{
    {GestureKind::swipe, "swipe", "Swipe"},
    {GestureKind::tap, "tap", "Tap"},
    {GestureKind::pinch, "pinch", "Pinch"},
    {GestureKind::rotate, "rotate", "Rotate"},
}};
constexpr auto allGestureKinds = casesOf(gestureKinds);

constexpr std::array<Row<WindowCommand>, 18> windowCommands = {{
    {WindowCommand::leftHalf, "leftHalf", "Left Half"},
    {WindowCommand::rightHalf, "rightHalf", "Right Half"},
    {WindowCommand::topHalf, "topHalf", "Top Half"},
    {WindowCommand::bottomHalf, "bottomHalf", "Bottom Half"},
    {WindowCommand::leftThird, "leftThird", "Left Third"},
    {WindowCommand::centerThird, "centerThird", "Center Third"},
    {WindowCommand::rightThird, "rightThird", "Right Third"},
    {WindowCommand::leftTwoThirds, "leftTwoThirds", "Left Two Thirds"},
    {WindowCommand::rightTwoThirds, "rightTwoThirds", "Right Two Thirds"},
    {WindowCommand::topLeftQuarter, "topLeftQuarter", "Top Left Quarter"},
    {WindowCommand::topRightQuarter, "topRightQuarter", "Top Right Quarter"},
    {WindowCommand::bottomLeftQuarter, "bottomLeftQuarter", "Bottom Left Quarter"},
    {WindowCommand::bottomRightQuarter, "bottomRightQuarter", "Bottom Right Quarter"},
    {WindowCommand::maximize, "maximize", "Maximize"},
    {WindowCommand::center, "center", "Center"},
    {WindowCommand::nextDisplay, "nextDisplay", "Move to Next Display"},
    {WindowCommand::previousDisplay, "previousDisplay", "Move to Previous Display"},
    {WindowCommand::restore, "restore", "Restore Previous Size"},
}};
constexpr auto allWindowCommands = casesOf(windowCommands);

constexpr std::array<Row<SystemCommand>, 7> systemCommands = {{
    {SystemCommand::openFinder, "openFinder", "Open Finder"},
    {SystemCommand::closeWindow, "closeWindow", "Close window"},
    {SystemCommand::quitApplication, "quitApplication", "Quit application"},
    {SystemCommand::missionControl, "missionControl", "Open Mission Control"},
    {SystemCommand::copy, "copy", "Copy"},
    {SystemCommand::nextFullScreenApp, "nextFullScreenApp", "Next full-screen app"},
    {SystemCommand::previousFullScreenApp, "previousFullScreenApp", "Previous full-screen app"},
}};
constexpr auto allSystemCommands = casesOf(systemCommands);

constexpr std::array<Row<PomodoroAction>, 3> pomodoroActions = {{
    {PomodoroAction::startOrPause, "startOrPause", "Start or pause Pomodoro"},
    {PomodoroAction::skipPhase, "skipPhase", "Skip Pomodoro phase"},
    {PomodoroAction::reset, "reset", "Reset Pomodoro"},
}};
constexpr auto allPomodoroActions = casesOf(pomodoroActions);

constexpr std::array<Row<FanPreset>, 5> fanPresets = {{
    {FanPreset::automatic, "automatic", "Fans on Auto (macOS)"},
    {FanPreset::boost25, "boost25", "Fans at Boost 25%"},
    {FanPreset::boost50, "boost50", "Fans at Boost 50%"},
    {FanPreset::max, "max", "Fans at Max"},
    {FanPreset::toggleBoost, "toggleBoost", "Toggle fan boost"},
}};
constexpr auto allFanPresets = casesOf(fanPresets);
constexpr std::array<FanPreset, 4> fanChoices = {FanPreset::automatic, FanPreset::boost25, FanPreset::boost50,
                                                 FanPreset::max};

constexpr std::array<std::string_view, 3> triggerCases = {"hotkey", "gesture", "mouseGesture"};
constexpr std::array<std::string_view, 2> scopeCases = {"app", "everywhere"};
constexpr std::array<std::string_view, 12> actionCases = {
    "window",  "sendKeystroke", "launchOrActivate",     "openURL",          "revealFile",  "toggleAwake",
    "system",  "pomodoro",      "showClipboardHistory", "showSelectionBar", "showNotepad", "fans",
};

// The last component of a path as a person reads it: trailing slashes do not count, and "/"
// stays "/".
std::string lastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    if (path == "/") return "/";
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

} // namespace

// ---- URL ----

std::optional<URL> URL::fromString(std::string text) {
    if (text.empty()) return std::nullopt;
    return URL{std::move(text)};
}

// ---- GestureKind ----

std::string_view rawValue(GestureKind kind) {
    return rowOf(gestureKinds, kind).raw;
}
std::string_view displayName(GestureKind kind) {
    return rowOf(gestureKinds, kind).name;
}
bool needsDirection(GestureKind kind) {
    return kind == GestureKind::swipe;
}
template <>
std::optional<GestureKind> fromRaw<GestureKind>(std::string_view raw) {
    return lookup(gestureKinds, raw);
}
template <>
std::span<const GestureKind> allCases<GestureKind>() {
    return allGestureKinds;
}

// ---- GestureSpec ----

std::string GestureSpec::displayString() const {
    // Raw values are the lower-case kind names.
    std::string text = std::to_string(fingerCount) + "-finger " + std::string(rawValue(kind));
    if (direction) {
        text += " ";
        text += rawValue(*direction);
    }
    return text;
}

nlohmann::json GestureSpec::toJSON() const {
    nlohmann::json object{{"fingerCount", fingerCount}, {"kind", std::string(rawValue(kind))}};
    if (direction) object["direction"] = std::string(rawValue(*direction));
    return object;
}

GestureSpec GestureSpec::fromJSON(const nlohmann::json& json) {
    const auto& object = JSONRead::object(json);
    GestureSpec spec;
    spec.fingerCount = static_cast<int>(JSONRead::integer(JSONRead::field(object, "fingerCount"), "fingerCount",
                                                          std::numeric_limits<int>::min(),
                                                          std::numeric_limits<int>::max()));
    spec.kind = decodeRaw<GestureKind>(JSONRead::field(object, "kind"), "kind", "GestureKind");
    if (const auto* direction = JSONRead::optionalField(object, "direction")) {
        spec.direction = decodeRaw<GestureDirection>(*direction, "direction", "GestureDirection");
    }
    return spec;
}

// ---- Trigger ----

std::string_view Trigger::caseName() const {
    return triggerCases[value.index()];
}

std::string Trigger::displayString() const {
    return std::visit([](const auto& spec) { return spec.displayString(); }, value);
}

nlohmann::json Trigger::toJSON() const {
    return oneKey(caseName(), unlabelled(std::visit([](const auto& spec) { return spec.toJSON(); }, value)));
}

Trigger Trigger::fromJSON(const nlohmann::json& json) {
    auto [index, payload] = JSONRead::oneCase(json, triggerCases);
    const auto& body = unlabelledPayload(*payload);
    switch (index) {
    case 0:
        return HotkeySpec::fromJSON(body);
    case 1:
        return GestureSpec::fromJSON(body);
    default:
        return MouseGestureSpec::fromJSON(body);
    }
}

// ---- GestureScope ----

std::string GestureScope::displayName() const {
    if (const auto* app = asApp()) return "In " + app->name;
    return "Everywhere";
}

std::optional<std::string> GestureScope::bundleID() const {
    if (const auto* app = asApp()) return app->bundleID;
    return std::nullopt;
}

bool GestureScope::matches(const std::optional<std::string>& frontmostBundleID) const {
    if (const auto* app = asApp()) return frontmostBundleID && *frontmostBundleID == app->bundleID;
    return true;
}

nlohmann::json GestureScope::toJSON() const {
    if (const auto* app = asApp()) return oneKey("app", {{"bundleID", app->bundleID}, {"name", app->name}});
    return oneKey("everywhere", nlohmann::json::object());
}

GestureScope GestureScope::fromJSON(const nlohmann::json& json) {
    auto [index, payload] = JSONRead::oneCase(json, scopeCases);
    if (index == 1) return everywhere();
    return app(JSONRead::string(JSONRead::field(*payload, "bundleID"), "bundleID"),
               JSONRead::string(JSONRead::field(*payload, "name"), "name"));
}

// ---- WindowCommand, SystemCommand, PomodoroAction ----

std::string_view rawValue(WindowCommand command) {
    return rowOf(windowCommands, command).raw;
}
std::string_view displayName(WindowCommand command) {
    return rowOf(windowCommands, command).name;
}
template <>
std::optional<WindowCommand> fromRaw<WindowCommand>(std::string_view raw) {
    return lookup(windowCommands, raw);
}
template <>
std::span<const WindowCommand> allCases<WindowCommand>() {
    return allWindowCommands;
}

std::string_view rawValue(SystemCommand command) {
    return rowOf(systemCommands, command).raw;
}
std::string_view displayName(SystemCommand command) {
    return rowOf(systemCommands, command).name;
}
bool requiresAccessibility(SystemCommand command) {
    return command != SystemCommand::openFinder && command != SystemCommand::missionControl;
}
template <>
std::optional<SystemCommand> fromRaw<SystemCommand>(std::string_view raw) {
    return lookup(systemCommands, raw);
}
template <>
std::span<const SystemCommand> allCases<SystemCommand>() {
    return allSystemCommands;
}

std::string_view rawValue(PomodoroAction action) {
    return rowOf(pomodoroActions, action).raw;
}
std::string_view displayName(PomodoroAction action) {
    return rowOf(pomodoroActions, action).name;
}
template <>
std::optional<PomodoroAction> fromRaw<PomodoroAction>(std::string_view raw) {
    return lookup(pomodoroActions, raw);
}
template <>
std::span<const PomodoroAction> allCases<PomodoroAction>() {
    return allPomodoroActions;
}

// ---- FanPreset ----

std::string_view rawValue(FanPreset preset) {
    return rowOf(fanPresets, preset).raw;
}
std::string_view displayName(FanPreset preset) {
    return rowOf(fanPresets, preset).name;
}
std::string_view shortTitle(FanPreset preset) {
    switch (preset) {
    case FanPreset::automatic:
        return "Auto";
    case FanPreset::boost25:
        return "25%";
    case FanPreset::boost50:
        return "50%";
    case FanPreset::max:
        return "Max";
    case FanPreset::toggleBoost:
        return "Toggle";
    }
    return {};
}
std::string_view title(FanPreset preset) {
    switch (preset) {
    case FanPreset::automatic:
        return "Auto (macOS controls)";
    case FanPreset::boost25:
        return "Boost 25%";
    case FanPreset::boost50:
        return "Boost 50%";
    case FanPreset::max:
        return "Max";
    case FanPreset::toggleBoost:
        return "Toggle Boost";
    }
    return {};
}
std::optional<double> level(FanPreset preset) {
    switch (preset) {
    case FanPreset::boost25:
        return 0.25;
    case FanPreset::boost50:
        return 0.5;
    case FanPreset::max:
        return 1.0;
    case FanPreset::automatic:
    case FanPreset::toggleBoost:
        break;
    }
    return std::nullopt;
}
bool isBoostStep(FanPreset preset) {
    return preset == FanPreset::boost25 || preset == FanPreset::boost50;
}
FanPreset resolved(FanPreset preset, FanPreset current, FanPreset lastBoost) {
    if (preset != FanPreset::toggleBoost) return preset;
    if (current != FanPreset::automatic && current != FanPreset::toggleBoost) return FanPreset::automatic;
    return isBoostStep(lastBoost) ? lastBoost : FanPresets::defaultBoost;
}
template <>
std::optional<FanPreset> fromRaw<FanPreset>(std::string_view raw) {
    return lookup(fanPresets, raw);
}
template <>
std::span<const FanPreset> allCases<FanPreset>() {
    return allFanPresets;
}

namespace FanPresets {
std::span<const FanPreset> choices() {
    return fanChoices;
}
FanPreset decode(const nlohmann::json& json) {
    auto raw = JSONRead::string(json, "fans");
    if (auto preset = fromRaw<FanPreset>(raw)) return *preset;
    // Older builds had a single boost step.
    if (raw == "boost") return FanPreset::boost50;
    throw DecodingError("No fan preset is called " + raw);
}
} // namespace FanPresets

// ---- ActionSpec ----

std::string_view ActionSpec::caseName() const {
    return actionCases[value.index()];
}

std::string ActionSpec::displayString() const {
    return std::visit(
        [](const auto& action) -> std::string {
            using T = std::decay_t<decltype(action)>;
            if constexpr (std::is_same_v<T, Window>) {
                return std::string(tavrick::displayName(action.command));
            } else if constexpr (std::is_same_v<T, SendKeystroke>) {
                return "Send " + action.keystroke.displayString();
            } else if constexpr (std::is_same_v<T, LaunchOrActivate>) {
                return "Open " + action.bundleID;
            } else if constexpr (std::is_same_v<T, OpenURL>) {
                return "Open " + action.url.absoluteString;
            } else if constexpr (std::is_same_v<T, RevealFile>) {
                return "Reveal " + lastPathComponent(action.path);
            } else if constexpr (std::is_same_v<T, ToggleAwake>) {
                return "Toggle Keep Awake";
            } else if constexpr (std::is_same_v<T, System>) {
                return std::string(tavrick::displayName(action.command));
            } else if constexpr (std::is_same_v<T, Pomodoro>) {
                return std::string(tavrick::displayName(action.action));
            } else if constexpr (std::is_same_v<T, ShowClipboardHistory>) {
                return "Show clipboard history";
            } else if constexpr (std::is_same_v<T, ShowSelectionBar>) {
                return "Show selection bar";
            } else if constexpr (std::is_same_v<T, ShowNotepad>) {
                return "Show notepad";
            } else {
                static_assert(std::is_same_v<T, Fans>);
                return std::string(tavrick::displayName(action.preset));
            }
        },
        value);
}

bool ActionSpec::requiresAccessibility() const {
    if (const auto* system = as<System>()) return tavrick::requiresAccessibility(system->command);
    return as<Window>() || as<SendKeystroke>() || as<ShowSelectionBar>();
}

bool ActionSpec::managesOwnPanel() const {
    return as<ShowClipboardHistory>() || as<ShowSelectionBar>() || as<ShowNotepad>();
}

nlohmann::json ActionSpec::toJSON() const {
    nlohmann::json payload = std::visit(
        [](const auto& action) -> nlohmann::json {
            using T = std::decay_t<decltype(action)>;
            if constexpr (std::is_same_v<T, Window>) {
                return unlabelled(std::string(rawValue(action.command)));
            } else if constexpr (std::is_same_v<T, SendKeystroke>) {
                return unlabelled(action.keystroke.toJSON());
            } else if constexpr (std::is_same_v<T, LaunchOrActivate>) {
                return nlohmann::json{{"bundleID", action.bundleID}};
            } else if constexpr (std::is_same_v<T, OpenURL>) {
                return unlabelled(action.url.absoluteString);
            } else if constexpr (std::is_same_v<T, RevealFile>) {
                return nlohmann::json{{"path", action.path}};
            } else if constexpr (std::is_same_v<T, System>) {
                return unlabelled(std::string(rawValue(action.command)));
            } else if constexpr (std::is_same_v<T, Pomodoro>) {
                return unlabelled(std::string(rawValue(action.action)));
            } else if constexpr (std::is_same_v<T, Fans>) {
                return unlabelled(std::string(rawValue(action.preset)));
            } else {
                return nlohmann::json::object();
            }
        },
        value);
    return oneKey(caseName(), std::move(payload));
}

ActionSpec ActionSpec::fromJSON(const nlohmann::json& json) {
    auto [index, payload] = JSONRead::oneCase(json, actionCases);
    const auto& body = *payload;
    switch (index) {
    case 0:
        return window(decodeRaw<WindowCommand>(unlabelledPayload(body), "_0", "WindowCommand"));
    case 1:
        return sendKeystroke(HotkeySpec::fromJSON(unlabelledPayload(body)));
    case 2:
        return launchOrActivate(JSONRead::string(JSONRead::field(body, "bundleID"), "bundleID"));
    case 3: {
        auto url = URL::fromString(JSONRead::string(unlabelledPayload(body), "_0"));
        if (!url) throw DecodingError("Invalid URL string.");
        return openURL(std::move(*url));
    }
    case 4:
        return revealFile(JSONRead::string(JSONRead::field(body, "path"), "path"));
    case 5:
        return toggleAwake();
    case 6:
        return system(decodeRaw<SystemCommand>(unlabelledPayload(body), "_0", "SystemCommand"));
    case 7:
        return pomodoro(decodeRaw<PomodoroAction>(unlabelledPayload(body), "_0", "PomodoroAction"));
    case 8:
        return showClipboardHistory();
    case 9:
        return showSelectionBar();
    case 10:
        return showNotepad();
    default:
        return fans(FanPresets::decode(unlabelledPayload(body)));
    }
}

// ---- Mapping ----

std::string Mapping::effectiveName() const {
    return name.empty() ? action.displayString() : name;
}

nlohmann::json Mapping::toJSON() const {
    nlohmann::json object{
        {"id", id.uuidString()},     {"name", name},           {"trigger", trigger.toJSON()},
        {"action", action.toJSON()}, {"isEnabled", isEnabled},
    };
    if (scope) object["scope"] = scope->toJSON();
    return object;
}

Mapping Mapping::fromJSON(const nlohmann::json& json) {
    const auto& object = JSONRead::object(json);
    Mapping mapping;
    auto idText = JSONRead::string(JSONRead::field(object, "id"), "id");
    auto id = UUID::parse(idText);
    if (!id) throw DecodingError("Attempted to decode UUID from invalid UUID string.");
    mapping.id = *id;
    mapping.name = JSONRead::string(JSONRead::field(object, "name"), "name");
    mapping.trigger = Trigger::fromJSON(JSONRead::field(object, "trigger"));
    mapping.action = ActionSpec::fromJSON(JSONRead::field(object, "action"));
    mapping.isEnabled = JSONRead::boolean(JSONRead::field(object, "isEnabled"), "isEnabled");
    if (const auto* scope = JSONRead::optionalField(object, "scope")) mapping.scope = GestureScope::fromJSON(*scope);
    return mapping;
}

} // namespace tavrick

// ---- Hashing over every field ----

std::size_t std::hash<tavrick::Trigger>::operator()(const tavrick::Trigger& trigger) const noexcept {
    std::size_t seed = trigger.value.index();
    std::visit([&](const auto& spec) { tavrick::hashCombine(seed, std::hash<std::decay_t<decltype(spec)>>{}(spec)); },
               trigger.value);
    return seed;
}

std::size_t std::hash<tavrick::GestureScope>::operator()(const tavrick::GestureScope& scope) const noexcept {
    std::size_t seed = scope.value.index();
    if (const auto* app = scope.asApp()) {
        tavrick::hashCombine(seed, std::hash<std::string>{}(app->bundleID));
        tavrick::hashCombine(seed, std::hash<std::string>{}(app->name));
    }
    return seed;
}

std::size_t std::hash<tavrick::ActionSpec>::operator()(const tavrick::ActionSpec& action) const noexcept {
    using A = tavrick::ActionSpec;
    std::size_t seed = action.value.index();
    std::visit(
        [&](const auto& payload) {
            using T = std::decay_t<decltype(payload)>;
            if constexpr (std::is_same_v<T, A::Window> || std::is_same_v<T, A::System>) {
                tavrick::hashCombine(seed, static_cast<std::size_t>(payload.command));
            } else if constexpr (std::is_same_v<T, A::SendKeystroke>) {
                tavrick::hashCombine(seed, std::hash<tavrick::HotkeySpec>{}(payload.keystroke));
            } else if constexpr (std::is_same_v<T, A::LaunchOrActivate>) {
                tavrick::hashCombine(seed, std::hash<std::string>{}(payload.bundleID));
            } else if constexpr (std::is_same_v<T, A::OpenURL>) {
                tavrick::hashCombine(seed, std::hash<tavrick::URL>{}(payload.url));
            } else if constexpr (std::is_same_v<T, A::RevealFile>) {
                tavrick::hashCombine(seed, std::hash<std::string>{}(payload.path));
            } else if constexpr (std::is_same_v<T, A::Pomodoro>) {
                tavrick::hashCombine(seed, static_cast<std::size_t>(payload.action));
            } else if constexpr (std::is_same_v<T, A::Fans>) {
                tavrick::hashCombine(seed, static_cast<std::size_t>(payload.preset));
            }
        },
        action.value);
    return seed;
}

std::size_t std::hash<tavrick::Mapping>::operator()(const tavrick::Mapping& mapping) const noexcept {
    std::size_t seed = std::hash<tavrick::UUID>{}(mapping.id);
    tavrick::hashCombine(seed, std::hash<std::string>{}(mapping.name));
    tavrick::hashCombine(seed, std::hash<tavrick::Trigger>{}(mapping.trigger));
    tavrick::hashCombine(seed, std::hash<tavrick::ActionSpec>{}(mapping.action));
    tavrick::hashCombine(seed, mapping.isEnabled ? 1 : 0);
    tavrick::hashCombine(seed, mapping.scope ? std::hash<tavrick::GestureScope>{}(*mapping.scope) + 1 : 0);
    return seed;
}

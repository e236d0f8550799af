#include "CoreKit/SettingsTypes.h"

#include <array>

namespace tavrick {

namespace {

constexpr std::array menuBarIconStyles{MenuBarIconStyle::tavrick, MenuBarIconStyle::gestures,
                                       MenuBarIconStyle::command};
constexpr std::array menuBarReadouts{MenuBarReadout::off, MenuBarReadout::fanSpeed, MenuBarReadout::chipTemperature};
constexpr std::array networkAlertModes{NetworkAlertMode::off, NetworkAlertMode::newApps,
                                       NetworkAlertMode::newAppsAndHosts};
constexpr std::array appAppearances{AppAppearance::system, AppAppearance::light, AppAppearance::dark};
constexpr std::array notepadPresentations{NotepadPresentation::window, NotepadPresentation::underMenuBar};
constexpr std::array selectionModes{SelectionMode::off, SelectionMode::onDemand, SelectionMode::automatic};

template <class E, std::size_t N>
std::optional<E> lookUp(std::string_view raw, const std::array<E, N>& cases) {
    for (E candidate : cases) {
        if (rawValue(candidate) == raw) return candidate;
    }
    return std::nullopt;
}

} // namespace

std::string_view rawValue(MenuBarIconStyle style) {
    switch (style) {
    case MenuBarIconStyle::tavrick: return "tavrick";
    case MenuBarIconStyle::gestures: return "gestures";
    case MenuBarIconStyle::command: return "command";
    }
    return "gestures";
}

std::string_view displayName(MenuBarIconStyle style) {
    switch (style) {
    case MenuBarIconStyle::tavrick: return "Tavrick";
    case MenuBarIconStyle::gestures: return "Gestures";
    case MenuBarIconStyle::command: return "Command";
    }
    return "Gestures";
}

template <>
std::optional<MenuBarIconStyle> fromRaw<MenuBarIconStyle>(std::string_view raw) {
    return lookUp(raw, menuBarIconStyles);
}

template <>
std::span<const MenuBarIconStyle> allCases<MenuBarIconStyle>() {
    return menuBarIconStyles;
}

std::optional<std::string_view> systemImageName(MenuBarIconStyle style) {
    switch (style) {
    case MenuBarIconStyle::tavrick: return std::nullopt;
    case MenuBarIconStyle::gestures: return "cursorarrow.motionlines";
    case MenuBarIconStyle::command: return "command";
    }
    return std::nullopt;
}

std::string_view rawValue(MenuBarReadout readout) {
    switch (readout) {
    case MenuBarReadout::off: return "off";
    case MenuBarReadout::fanSpeed: return "fanSpeed";
    case MenuBarReadout::chipTemperature: return "chipTemperature";
    }
    return "off";
}

std::string_view displayName(MenuBarReadout readout) {
    switch (readout) {
    case MenuBarReadout::off: return "Nothing";
    case MenuBarReadout::fanSpeed: return "Fan speed";
    case MenuBarReadout::chipTemperature: return "Chip temperature";
    }
    return "Nothing";
}

template <>
std::optional<MenuBarReadout> fromRaw<MenuBarReadout>(std::string_view raw) {
    return lookUp(raw, menuBarReadouts);
}

template <>
std::span<const MenuBarReadout> allCases<MenuBarReadout>() {
    return menuBarReadouts;
}

std::string_view rawValue(NetworkAlertMode mode) {
    switch (mode) {
    case NetworkAlertMode::off: return "off";
    case NetworkAlertMode::newApps: return "newApps";
    case NetworkAlertMode::newAppsAndHosts: return "newAppsAndHosts";
    }
    return "newAppsAndHosts";
}

std::string_view displayName(NetworkAlertMode mode) {
    switch (mode) {
    case NetworkAlertMode::off: return "Never";
    case NetworkAlertMode::newApps: return "A program I have not seen before";
    case NetworkAlertMode::newAppsAndHosts: return "That, and new places a program connects to";
    }
    return "That, and new places a program connects to";
}

template <>
std::optional<NetworkAlertMode> fromRaw<NetworkAlertMode>(std::string_view raw) {
    return lookUp(raw, networkAlertModes);
}

template <>
std::span<const NetworkAlertMode> allCases<NetworkAlertMode>() {
    return networkAlertModes;
}

bool alertsOnNewApps(NetworkAlertMode mode) { return mode != NetworkAlertMode::off; }

bool alertsOnNewHosts(NetworkAlertMode mode) { return mode == NetworkAlertMode::newAppsAndHosts; }

std::string_view rawValue(AppAppearance appearance) {
    switch (appearance) {
    case AppAppearance::system: return "system";
    case AppAppearance::light: return "light";
    case AppAppearance::dark: return "dark";
    }
    return "system";
}

std::string_view displayName(AppAppearance appearance) {
    switch (appearance) {
    case AppAppearance::system: return "Match System";
    case AppAppearance::light: return "Light";
    case AppAppearance::dark: return "Dark";
    }
    return "Match System";
}

template <>
std::optional<AppAppearance> fromRaw<AppAppearance>(std::string_view raw) {
    return lookUp(raw, appAppearances);
}

template <>
std::span<const AppAppearance> allCases<AppAppearance>() {
    return appAppearances;
}

std::string_view rawValue(NotepadPresentation presentation) {
    switch (presentation) {
    case NotepadPresentation::window: return "window";
    case NotepadPresentation::underMenuBar: return "underMenuBar";
    }
    return "underMenuBar";
}

std::string_view displayName(NotepadPresentation presentation) {
    switch (presentation) {
    case NotepadPresentation::window: return "In a window";
    case NotepadPresentation::underMenuBar: return "Under the menu bar";
    }
    return "Under the menu bar";
}

template <>
std::optional<NotepadPresentation> fromRaw<NotepadPresentation>(std::string_view raw) {
    return lookUp(raw, notepadPresentations);
}

template <>
std::span<const NotepadPresentation> allCases<NotepadPresentation>() {
    return notepadPresentations;
}

std::string_view rawValue(SelectionMode mode) {
    switch (mode) {
    case SelectionMode::off: return "off";
    case SelectionMode::onDemand: return "onDemand";
    case SelectionMode::automatic: return "automatic";
    }
    return "off";
}

std::string_view displayName(SelectionMode mode) {
    switch (mode) {
    case SelectionMode::off: return "Off";
    case SelectionMode::onDemand: return "Only when I ask for it";
    case SelectionMode::automatic: return "Whenever I select text";
    }
    return "Off";
}

std::string_view detail(SelectionMode mode) {
    switch (mode) {
    case SelectionMode::off: return "The selection bar never appears.";
    case SelectionMode::onDemand:
        return "Bind “Show selection bar” to a gesture or shortcut, then use it with text selected. Nothing "
               "appears until you ask.";
    case SelectionMode::automatic:
        return "The bar appears next to text as soon as you finish selecting it with the mouse, and goes away "
               "when you click, type or scroll.";
    }
    return "";
}

template <>
std::optional<SelectionMode> fromRaw<SelectionMode>(std::string_view raw) {
    return lookUp(raw, selectionModes);
}

template <>
std::span<const SelectionMode> allCases<SelectionMode>() {
    return selectionModes;
}

} // namespace tavrick

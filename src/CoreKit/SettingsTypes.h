#pragma once

#include "CoreKit/RawValue.h"

#include <optional>
#include <span>
#include <string_view>

namespace tavrick {

// The small enumerations of the settings. Each is stored as its raw value, which is the case
// name; the settings read text this build does not know as the property's default, so a value
// written by a newer build or by hand never stops the program from reading its settings.

enum class MenuBarIconStyle { tavrick, gestures, command };
std::string_view rawValue(MenuBarIconStyle style);
std::string_view displayName(MenuBarIconStyle style);
template <>
std::optional<MenuBarIconStyle> fromRaw<MenuBarIconStyle>(std::string_view raw);
template <>
std::span<const MenuBarIconStyle> allCases<MenuBarIconStyle>();
// The system symbol of the style; none for `tavrick`, which draws the program's own glyph.
std::optional<std::string_view> systemImageName(MenuBarIconStyle style);

enum class MenuBarReadout { off, fanSpeed, chipTemperature };
std::string_view rawValue(MenuBarReadout readout);
std::string_view displayName(MenuBarReadout readout);
template <>
std::optional<MenuBarReadout> fromRaw<MenuBarReadout>(std::string_view raw);
template <>
std::span<const MenuBarReadout> allCases<MenuBarReadout>();

enum class NetworkAlertMode { off, newApps, newAppsAndHosts };
std::string_view rawValue(NetworkAlertMode mode);
std::string_view displayName(NetworkAlertMode mode);
template <>
std::optional<NetworkAlertMode> fromRaw<NetworkAlertMode>(std::string_view raw);
template <>
std::span<const NetworkAlertMode> allCases<NetworkAlertMode>();
bool alertsOnNewApps(NetworkAlertMode mode);
bool alertsOnNewHosts(NetworkAlertMode mode);

enum class AppAppearance { system, light, dark };
std::string_view rawValue(AppAppearance appearance);
std::string_view displayName(AppAppearance appearance);
template <>
std::optional<AppAppearance> fromRaw<AppAppearance>(std::string_view raw);
template <>
std::span<const AppAppearance> allCases<AppAppearance>();

enum class NotepadPresentation { window, underMenuBar };
std::string_view rawValue(NotepadPresentation presentation);
std::string_view displayName(NotepadPresentation presentation);
template <>
std::optional<NotepadPresentation> fromRaw<NotepadPresentation>(std::string_view raw);
template <>
std::span<const NotepadPresentation> allCases<NotepadPresentation>();

enum class SelectionMode { off, onDemand, automatic };
std::string_view rawValue(SelectionMode mode);
std::string_view displayName(SelectionMode mode);
// The sentence under the choice in the settings.
std::string_view detail(SelectionMode mode);
template <>
std::optional<SelectionMode> fromRaw<SelectionMode>(std::string_view raw);
template <>
std::span<const SelectionMode> allCases<SelectionMode>();

} // namespace tavrick

#pragma once

#include "CoreKit/RawValue.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// The sections of the menu, in the order a new layout shows them.
enum class MenuBarSection {
    masterToggle,
    windowSnapping,
    clipboard,
    pomodoro,
    system,
    fans,
    network,
    keepAwake,
    finder,
    notepad,
    vault,
};

std::string_view rawValue(MenuBarSection section);
// Absent for text this build does not know.
template <>
std::optional<MenuBarSection> fromRaw<MenuBarSection>(std::string_view raw);
template <>
std::span<const MenuBarSection> allCases<MenuBarSection>();
// The line under the section's name in the layout editor.
std::string_view detail(MenuBarSection section);

struct MenuBarItem {
    MenuBarSection section;
    bool isEnabled = true;
    friend bool operator==(const MenuBarItem&, const MenuBarItem&) = default;
};

// The user's choice of what the menu shows and in which order.
namespace MenuBarLayout {

// Every section in declaration order, each enabled.
std::vector<MenuBarItem> defaultLayout();

// Reads a stored layout: a JSON array of {"section": text, "isEnabled": bool}. Absent when the
// bytes are not such an array; an item naming a section this build does not know is dropped
// and the rest are kept. The result is normalized.
std::optional<std::vector<MenuBarItem>> decode(std::string_view bytes);
std::optional<std::vector<MenuBarItem>> decode(const std::vector<std::uint8_t>& bytes);

// The first item of each section in the given order, then each missing section, enabled, in
// declaration order: every section exactly once, so a layout from an older build gains the new
// sections at the end.
std::vector<MenuBarItem> normalized(const std::vector<MenuBarItem>& items);

// The stored form: a compact JSON array with the keys of `decode`.
std::string encode(const std::vector<MenuBarItem>& items);

} // namespace MenuBarLayout

} // namespace tavrick

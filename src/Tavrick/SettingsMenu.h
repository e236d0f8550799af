#pragma once

#include "CoreKit/MenuBarLayout.h"
#include "CoreKit/MenuModel.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

class AppCoordinator;

// Every preference as a line of the menu: switches for the yes-or-no ones, a choice list for
// each enumeration, typed fields for numbers and texts (with their ranges), the stored-only
// values shown as they are, and the layout editor that moves and hides sections.
namespace SettingsMenu {

using Commands = std::map<std::string, std::function<void()>>;
using Fields = std::map<std::string, std::function<bool(const std::string&)>>;

void build(AppCoordinator& coordinator, std::vector<MenuEntry>& into, Commands& commands, Fields& fields);

// `section` moved by `offset` places (negative is up), stopping at either end. The list is
// returned unchanged when the section is not in it.
std::vector<MenuBarItem> moved(std::vector<MenuBarItem> items, MenuBarSection section, int offset);

// A whole decimal number in [low, high]; text outside the range is brought to its nearer end.
// Nothing for anything that is not a whole number (blanks around it are allowed).
struct Clamped {
    std::int64_t value;
    bool wasClamped;
};
std::optional<Clamped> parseClamped(const std::string& text, std::int64_t low, std::int64_t high);

} // namespace SettingsMenu

} // namespace tavrick

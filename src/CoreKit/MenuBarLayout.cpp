#include "CoreKit/MenuBarLayout.h"

#include <nlohmann/json.hpp>

#include <array>
#include <bitset>

namespace tavrick {

namespace {

constexpr std::array allSections{
    MenuBarSection::masterToggle, MenuBarSection::windowSnapping, MenuBarSection::clipboard,
    MenuBarSection::pomodoro,     MenuBarSection::system,         MenuBarSection::fans,
    MenuBarSection::network,      MenuBarSection::keepAwake,      MenuBarSection::finder,
    MenuBarSection::notepad,      MenuBarSection::vault,
};

} // namespace

std::string_view rawValue(MenuBarSection section) {
    switch (section) {
    case MenuBarSection::masterToggle: return "masterToggle";
    case MenuBarSection::windowSnapping: return "windowSnapping";
    case MenuBarSection::clipboard: return "clipboard";
    case MenuBarSection::pomodoro: return "pomodoro";
    case MenuBarSection::system: return "system";
    case MenuBarSection::fans: return "fans";
    case MenuBarSection::network: return "network";
    case MenuBarSection::keepAwake: return "keepAwake";
    case MenuBarSection::finder: return "finder";
    case MenuBarSection::notepad: return "notepad";
    case MenuBarSection::vault: return "vault";
    }
    return "";
}

template <>
std::optional<MenuBarSection> fromRaw<MenuBarSection>(std::string_view raw) {
    for (auto section : allSections) {
        if (rawValue(section) == raw) return section;
    }
    return std::nullopt;
}

template <>
std::span<const MenuBarSection> allCases<MenuBarSection>() {
    return allSections;
}

std::string_view detail(MenuBarSection section) {
    switch (section) {
    case MenuBarSection::masterToggle: return "Turns all shortcuts and gestures on or off";
    case MenuBarSection::windowSnapping: return "Drag a window to a screen edge to snap it";
    case MenuBarSection::clipboard: return "Recent copies, newest first";
    case MenuBarSection::pomodoro: return "Timer status, start, pause and skip";
    case MenuBarSection::system: return "Memory and disk usage, battery temperature and watts";
    case MenuBarSection::fans: return "Fan speeds, the hottest reading from the chip, and Boost";
    case MenuBarSection::network: return "Which of your programs are connected, and where to";
    case MenuBarSection::keepAwake: return "Turn on, timed sessions, and app-bound sessions";
    case MenuBarSection::finder: return "Show hidden files, and relaunch Finder";
    case MenuBarSection::notepad: return "A scratch note, always where you left it";
    case MenuBarSection::vault: return "Cards, accounts, wallet addresses and API keys";
    }
    return "";
}

namespace MenuBarLayout {

std::vector<MenuBarItem> defaultLayout() {
    std::vector<MenuBarItem> items;
    items.reserve(allSections.size());
    for (auto section : allSections) items.push_back({section, true});
    return items;
}

std::optional<std::vector<MenuBarItem>> decode(std::string_view bytes) {
    auto document = nlohmann::json::parse(bytes, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded() || !document.is_array()) return std::nullopt;
    std::vector<MenuBarItem> items;
    for (const auto& raw : document) {
        // Each element must have the stored shape; one that does not makes the whole list
        // unreadable, as a section this build merely does not know does not.
        if (!raw.is_object()) return std::nullopt;
        auto section = raw.find("section");
        auto enabled = raw.find("isEnabled");
        if (section == raw.end() || !section->is_string()) return std::nullopt;
        if (enabled == raw.end() || !enabled->is_boolean()) return std::nullopt;
        if (auto known = fromRaw<MenuBarSection>(section->get_ref<const std::string&>())) {
            items.push_back({*known, enabled->get<bool>()});
        }
    }
    return normalized(items);
}

std::optional<std::vector<MenuBarItem>> decode(const std::vector<std::uint8_t>& bytes) {
    return decode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

std::vector<MenuBarItem> normalized(const std::vector<MenuBarItem>& items) {
    std::bitset<allSections.size()> seen;
    std::vector<MenuBarItem> result;
    result.reserve(allSections.size());
    for (const auto& item : items) {
        auto index = static_cast<std::size_t>(item.section);
        if (seen.test(index)) continue;
        seen.set(index);
        result.push_back(item);
    }
    for (auto section : allSections) {
        if (!seen.test(static_cast<std::size_t>(section))) result.push_back({section, true});
    }
    return result;
}

std::string encode(const std::vector<MenuBarItem>& items) {
    auto array = nlohmann::json::array();
    for (const auto& item : items) {
        array.push_back({{"section", std::string(rawValue(item.section))}, {"isEnabled", item.isEnabled}});
    }
    return array.dump();
}

} // namespace MenuBarLayout

} // namespace tavrick

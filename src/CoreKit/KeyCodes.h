#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

class KeyboardLayoutCache;

// macOS virtual key codes and the names shown for them.
namespace KeyCodes {

inline constexpr std::uint16_t escape = 53;
inline constexpr std::uint16_t tab = 48;
inline constexpr std::uint16_t space = 49;
// "delete" and "return" are C++ keywords, hence the suffix on these two.
inline constexpr std::uint16_t deleteKey = 51;
inline constexpr std::uint16_t forwardDelete = 117;
inline constexpr std::uint16_t returnKey = 36;
inline constexpr std::uint16_t keypadEnter = 76;
inline constexpr std::uint16_t leftArrow = 123;
inline constexpr std::uint16_t rightArrow = 124;
inline constexpr std::uint16_t downArrow = 125;
inline constexpr std::uint16_t upArrow = 126;

// Keys whose symbol never depends on the layout: return, tab, arrows, F1 to F20 and so on.
const std::map<std::uint16_t, std::string_view>& specialNames();
// What the US layout prints on the ordinary keys, for when no layout can be read.
const std::map<std::uint16_t, std::string_view>& ansiNames();

// In order: the special name, what the given layout prints, the US name, "Key " + the number.
std::string name(std::uint16_t keyCode, const KeyboardLayoutCache* layout);
// The same with the layout cache installed for the process (none until the application
// installs one, and then the US names stand in).
std::string name(std::uint16_t keyCode);

// Installs (or, with nullptr, removes) the process-wide layout cache. Any thread.
void installLayoutCache(std::shared_ptr<const KeyboardLayoutCache> cache);
std::shared_ptr<const KeyboardLayoutCache> installedLayoutCache();

} // namespace KeyCodes

} // namespace tavrick

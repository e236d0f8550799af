#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// When Escape closes one of the program's own windows: a bare Escape, in a window that is meant
// to close that way, and only when nothing else in the window wants the key.
namespace EscapeRule {

inline constexpr std::uint16_t escapeKeyCode = 53;

inline constexpr std::array<std::string_view, 4> closableWindows{
    "com_apple_SwiftUI_Settings_window",
    "tavrick-welcome",
    "tavrick-notepad",
    "tavrick-vault",
};

struct Context {
    std::uint16_t keyCode = 0;
    bool hasModifiers = false;
    std::optional<std::string> windowIdentifier;
    bool hasSheet = false;
    bool isRecordingShortcut = false;
    // An input method's composition in progress: Escape belongs to it.
    bool hasMarkedText = false;
    bool operator==(const Context&) const = default;
};

bool isClosable(std::string_view windowIdentifier);
bool shouldClose(const Context& context);

} // namespace EscapeRule

} // namespace tavrick

#pragma once

#include "CoreKit/LoginItem.h"

#include <filesystem>
#include <functional>

namespace tavrick {

// Opening at login the freedesktop way: a desktop entry in the user's autostart folder. Written
// atomically on register, removed on unregister, and the state is whatever the file says when
// asked: no file, or one the user switched off (Hidden, or the GNOME enabled key false), is not
// registered; one whose program no longer exists is not found; otherwise enabled.
namespace XdgAutostart {

inline constexpr const char* entryName = "com.orvell.tavrick.desktop";

// $XDG_CONFIG_HOME/autostart/com.orvell.tavrick.desktop, else under ~/.config.
std::filesystem::path defaultEntry();

// A `LoginItemStatus` value, or -1 for a file that is not a desktop entry.
int entryStatus(const std::filesystem::path& entry);
// Nothing on success, otherwise why not.
std::optional<std::string> registerEntry(const std::filesystem::path& entry, const std::filesystem::path& executable);
std::optional<std::string> unregisterEntry(const std::filesystem::path& entry);

// The service over `entry`, starting `executable`; `openFolder` shows the autostart folder.
LoginItemService service(std::filesystem::path entry, std::filesystem::path executable,
                         std::function<void(const std::filesystem::path&)> openFolder);

} // namespace XdgAutostart

} // namespace tavrick

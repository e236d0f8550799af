#pragma once

#include "CoreKit/Workspace.h"

namespace tavrick {

// Opens, launches and reveals through the desktop's own machinery (GIO), without its main loop.
// An application's identifier is its desktop entry id ("org.gnome.TextEditor"), found along
// $XDG_DATA_HOME and $XDG_DATA_DIRS; URLs and files go to the handler the user chose for their
// scheme or type; revealing a file opens its folder in the default file manager.
class GioLauncher final : public DesktopLauncher {
public:
    // Whether a desktop session is there to launch into: a display server is named.
    static bool hasDesktopSession();

    std::optional<std::string> applicationURL(const std::string& bundleIdentifier) const override;
    void openApplication(const std::string& applicationURL,
                         std::function<void(std::optional<std::string>)> completion) override;
    std::optional<std::string> open(const URL& url) override;
    std::optional<std::string> reveal(const std::filesystem::path& path) override;
};

} // namespace tavrick

#pragma once

#include "CoreKit/Workspace.h"

#include <functional>
#include <string>

namespace sdbus {
class IConnection;
}

namespace tavrick {

class BusLoop;

// The desktop launcher with reveal through the file manager's own interface
// (org.freedesktop.FileManager1.ShowItems), which opens the folder with the file selected. When
// no file manager answers, or it answers with an error, the folder is opened the usual way and
// the log says why. Everything else goes to the launcher underneath.
class FileManagerLauncher final : public DesktopLauncher {
public:
    using Note = std::function<void(const std::string&)>;
    static constexpr const char* service = "org.freedesktop.FileManager1";

    FileManagerLauncher(BusLoop& loop, sdbus::IConnection& session, DesktopLauncher& underneath, Note note);

    std::optional<std::string> applicationURL(const std::string& bundleIdentifier) const override;
    void openApplication(const std::string& applicationURL,
                         std::function<void(std::optional<std::string> failure)> completion) override;
    std::optional<std::string> open(const URL& url) override;
    std::optional<std::string> reveal(const std::filesystem::path& path) override;

private:
    BusLoop& loop_;
    sdbus::IConnection& session_;
    DesktopLauncher& underneath_;
    Note note_;
};

} // namespace tavrick

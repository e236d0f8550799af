#pragma once

#include "CoreKit/Models.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// A process of the user's session that the desktop counts as an application.
struct RunningApplication {
    std::int32_t processIdentifier = 0;
    // The application's identifier: a bundle identifier, or on Linux its desktop entry id
    // ("org.gnome.TextEditor"). Missing for a process the desktop cannot name.
    std::optional<std::string> bundleIdentifier;
    std::optional<std::string> localizedName;

    bool operator==(const RunningApplication&) const = default;
};

// The applications running in the user's session and the one in front. Safe from any thread.
class Workspace {
public:
    virtual ~Workspace() = default;

    // The application that receives the keyboard; nothing when none does.
    virtual std::optional<RunningApplication> frontmostApplication() const = 0;
    // Running applications with `bundleIdentifier`, oldest first.
    virtual std::vector<RunningApplication> runningApplications(const std::string& bundleIdentifier) const = 0;
    // Brings the application forward, its windows as they are. False when it is gone.
    virtual bool activate(std::int32_t processIdentifier) = 0;
    // Asks the application to quit, as its own Quit would. False when it is gone.
    virtual bool terminate(std::int32_t processIdentifier) = 0;
};

// Opening things the way the desktop opens them: URLs and files with their default handler,
// applications through their installed entry, and files shown in the file manager.
class DesktopLauncher {
public:
    virtual ~DesktopLauncher() = default;

    // Where the installed application with `bundleIdentifier` lives; nothing when none is.
    virtual std::optional<std::string> applicationURL(const std::string& bundleIdentifier) const = 0;
    // Starts the application at `applicationURL` and brings it forward. The completion gets the
    // failure's description, or nothing on success; it may run on any thread.
    virtual void openApplication(const std::string& applicationURL,
                                 std::function<void(std::optional<std::string> failure)> completion) = 0;
    // Nothing on success, otherwise why it failed.
    virtual std::optional<std::string> open(const URL& url) = 0;
    // Shows `path` in the file manager. Nothing on success, otherwise why it failed.
    virtual std::optional<std::string> reveal(const std::filesystem::path& path) = 0;
};

} // namespace tavrick

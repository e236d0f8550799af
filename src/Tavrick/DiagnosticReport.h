#pragma once

#include "CoreKit/Permissions.h"
#include "FanKit/FanHelperInstaller.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>

namespace tavrick {

// What the diagnostic report tells, read before any of it is printed.
struct DiagnoseFacts {
    // The program that started this process, when it is an application rather than a shell.
    std::optional<std::string> launchedBy;
    std::string bundlePath;
    std::string bundleIdentifier;
    std::string version;
    // A `LoginItemStatus` value, or another number the platform answered.
    int loginItemStatus = 0;
    HelperServiceStatus fanHelper = HelperServiceStatus::notRegistered;
    PermissionState accessibility = PermissionState::unknown;
    PermissionState inputMonitoring = PermissionState::unknown;
    // Hearing keys without stopping them, and the active tap that can swallow them, which the
    // hotkeys need.
    PermissionState listenOnly = PermissionState::unknown;
    PermissionState activeTap = PermissionState::unknown;
    std::string smcLayout;
};

namespace Diagnostics {

// "enabled (allowed in Login Items)", "NOT FOUND — the system will not accept this copy", ...
std::string describeLoginItem(int status);
std::string describeFanHelper(HelperServiceStatus status);
// "granted", "denied", or "unknown (never asked)".
std::string describePermission(PermissionState state);

// The report, line by line; the advice about a stale Accessibility grant closes it when the
// permission is not granted.
void writeReport(std::ostream& out, const DiagnoseFacts& facts);

// Who launched this process, from its parent's name: nothing for a shell, a session or a
// wrapper that only passes the command on, since then the user launched it.
std::optional<std::string> launchingApplication(const std::string& parentName, std::int32_t parentPid);

// The permissions as this machine holds them. An X server asks for none: it lets any client
// of the session hear keys, grab them and move windows. The simulated session holds what the
// running (or last) Tavrick wrote into its state file, `sessionState`; without one, its fresh
// state, where both are granted. An active tap needs Accessibility there.
void readPermissions(DiagnoseFacts& facts, bool x11, const std::optional<std::string>& sessionState);

// The parent's name and id as /proc tells them; an empty name when it cannot be read.
std::pair<std::string, std::int32_t> parentProcess(const std::filesystem::path& procRoot = "/proc");

} // namespace Diagnostics

} // namespace tavrick

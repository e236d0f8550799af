#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "CoreKit/Permissions.h"

#include <functional>
#include <string>

namespace tavrick {

// Where the two permissions are read and asked for. `listenAccess` answers as the platform does:
// 0 granted, 1 denied, anything else not yet decided. `promptForAccessibility` shows the
// system's request (it answers nothing: the user decides later, in the settings);
// `requestListenAccess` asks for Input Monitoring and gives the platform's answer;
// `openURL` opens a settings pane by its address.
struct PermissionSource {
    std::function<bool()> isAccessibilityTrusted;
    std::function<int()> listenAccess;
    std::function<void()> promptForAccessibility = nullptr;
    std::function<bool()> requestListenAccess = nullptr;
    std::function<void(const std::string&)> openURL = nullptr;
};

// Watches the two privacy permissions the input engines need. The platform sends no notice when
// the user changes one, so the monitor polls while someone waits for a grant. Main thread only.
class PermissionsMonitor {
public:
    static constexpr double defaultPollingInterval = 1.0;

    PermissionsMonitor(PermissionSource source, Scheduler& scheduler);
    ~PermissionsMonitor();
    PermissionsMonitor(const PermissionsMonitor&) = delete;
    PermissionsMonitor& operator=(const PermissionsMonitor&) = delete;

    const Observable<PermissionState>& accessibility() const { return accessibility_; }
    const Observable<PermissionState>& inputMonitoring() const { return inputMonitoring_; }
    PermissionState state(Permission permission) const;

    // Reads both; a change is logged and told to `onStateChange`.
    void refresh();
    // Does nothing while a timer exists.
    void beginPolling(double interval = defaultPollingInterval);
    void endPolling();
    bool isPolling() const { return static_cast<bool>(timer_); }

    // Shows the system's request for Accessibility, then polls for the answer.
    void promptForAccessibility();
    // Asks for Input Monitoring, reads both states, polls, and gives the platform's answer.
    bool requestInputMonitoring();
    // Opens the privacy pane of the permission.
    void openSettings(Permission permission);
    // "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility" ...
    static std::string settingsURL(Permission permission);

    std::function<void()> onStateChange;

    static PermissionState listenState(int answer);

private:
    PermissionSource source_;
    Scheduler& scheduler_;
    Observable<PermissionState> accessibility_{PermissionState::unknown};
    Observable<PermissionState> inputMonitoring_{PermissionState::unknown};
    Cancellable timer_;
};

} // namespace tavrick

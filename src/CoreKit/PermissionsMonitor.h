#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "CoreKit/Permissions.h"

#include <functional>

namespace tavrick {

// Where the two permissions are read. `listenAccess` answers as the platform does: 0 granted,
// 1 denied, anything else not yet decided.
struct PermissionSource {
    std::function<bool()> isAccessibilityTrusted;
    std::function<int()> listenAccess;
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

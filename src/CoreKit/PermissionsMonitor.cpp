#include "CoreKit/PermissionsMonitor.h"

#include "CoreKit/Log.h"

#include <string>

namespace tavrick {

namespace {
const char* spelled(PermissionState state) {
    switch (state) {
    case PermissionState::granted: return "granted";
    case PermissionState::denied: return "denied";
    case PermissionState::unknown: return "unknown";
    }
    return "unknown";
}
} // namespace

PermissionsMonitor::PermissionsMonitor(PermissionSource source, Scheduler& scheduler)
    : source_(std::move(source)), scheduler_(scheduler) {}

PermissionsMonitor::~PermissionsMonitor() {
    endPolling();
}

PermissionState PermissionsMonitor::listenState(int answer) {
    switch (answer) {
    case 0: return PermissionState::granted;
    case 1: return PermissionState::denied;
    default: return PermissionState::unknown;
    }
}

PermissionState PermissionsMonitor::state(Permission permission) const {
    return permission == Permission::accessibility ? accessibility_.get() : inputMonitoring_.get();
}

void PermissionsMonitor::refresh() {
    const bool trusted = source_.isAccessibilityTrusted && source_.isAccessibilityTrusted();
    const int listen = source_.listenAccess ? source_.listenAccess() : -1;
    const bool changedAccessibility = accessibility_.set(trusted ? PermissionState::granted : PermissionState::denied);
    const bool changedInput = inputMonitoring_.set(listenState(listen));
    if (!changedAccessibility && !changedInput) return;
    Log::permissions.notice("Permissions changed — accessibility: %s, input monitoring: %s",
                            spelled(accessibility_.get()), spelled(inputMonitoring_.get()));
    if (onStateChange) onStateChange();
}

void PermissionsMonitor::beginPolling(double interval) {
    if (timer_) return;
    timer_ = scheduler_.every(interval, [this] { refresh(); });
}

void PermissionsMonitor::promptForAccessibility() {
    if (source_.promptForAccessibility) source_.promptForAccessibility();
    beginPolling();
}

bool PermissionsMonitor::requestInputMonitoring() {
    const bool answer = source_.requestListenAccess && source_.requestListenAccess();
    refresh();
    beginPolling(1.0);
    return answer;
}

std::string PermissionsMonitor::settingsURL(Permission permission) {
    return std::string("x-apple.systempreferences:com.apple.preference.security?") +
           (permission == Permission::accessibility ? "Privacy_Accessibility" : "Privacy_ListenEvent");
}

void PermissionsMonitor::openSettings(Permission permission) {
    if (source_.openURL) source_.openURL(settingsURL(permission));
}

void PermissionsMonitor::endPolling() {
    timer_.cancel();
    timer_ = Cancellable();
}

} // namespace tavrick

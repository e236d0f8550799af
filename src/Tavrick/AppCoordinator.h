#pragma once

#include "ActionKit/ActionRunner.h"
#include "CoreKit/AppSettings.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/KeyboardLayout.h"
#include "CoreKit/MappingStore.h"
#include "CoreKit/Observable.h"
#include "CoreKit/PermissionsMonitor.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/UserNotifications.h"
#include "CoreKit/WorkspaceNotifications.h"
#include "GestureEngine/GestureEngine.h"
#include "HotkeyEngine/HotkeyEngine.h"
#include "MonitorKit/LocalServerMonitor.h"
#include "MonitorKit/SystemMonitor.h"
#include "MouseGestureKit/MouseGestureEngine.h"
#include "NetKit/FilterController.h"
#include "NetKit/FlowMonitor.h"
#include "NetKit/NetworkPorts.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// What the coordinator is made over: the runtime, the host's services and where files live.
struct AppEnvironment {
    Scheduler& scheduler;
    DiagnosticLog& log;
    EventSystem& events;
    PreferenceStore& defaults;
    WorkspaceNotifications& workspace;
    UserNotificationCenter& notifications;
    // The layout behind key names; may be null.
    std::shared_ptr<KeyboardLayoutCache> keyboardLayout;
    std::filesystem::path mappingsFile;
    PermissionSource permissionSource;
    // The process's memory footprint in bytes, when it can be read.
    std::function<std::optional<std::uint64_t>()> footprint;
    std::string version;
    std::string build;
    std::string operatingSystemVersion;
    // Where touch frames come from; null means the trackpad service's own source.
    std::shared_ptr<TouchSource> touchSource = nullptr;
    // The application in front at start, before the first activation is announced.
    std::optional<std::string> frontmostBundleID = std::nullopt;
    NetworkPorts network{};
    // Memory, power and disk readings, and the process access of the local servers list.
    SystemReadings systemReadings{};
    ProcessControl processControl{};
    std::int32_t selfPID = 0;
};

// Owns every engine and service for the life of the process, starts them in a fixed order,
// routes every fired mapping to the action runner, and stops them on request. Main thread only;
// closures arriving from other threads come through a block on the main queue first.
class AppCoordinator : public std::enable_shared_from_this<AppCoordinator> {
public:
    static std::shared_ptr<AppCoordinator> make(AppEnvironment environment);
    ~AppCoordinator();
    AppCoordinator(const AppCoordinator&) = delete;
    AppCoordinator& operator=(const AppCoordinator&) = delete;

    // The deferred start-up; runs once.
    void start();
    bool hasStarted() const { return started_; }

    // The master switch of the input engines.
    const Observable<bool>& isEnabled() const { return isEnabled_; }
    void setEnabled(bool enabled);
    // A full stop and start of the input engines.
    void retryEngines();

    // The last failure to start the hotkey engine.
    const Observable<std::optional<std::string>>& engineError() const { return engineError_; }
    // The last failure to start the gesture engine.
    const Observable<std::optional<std::string>>& gestureError() const { return gestureError_; }
    // The last gesture the trackpad recognised, for the bindings pane.
    const Observable<std::optional<GestureSpec>>& lastGesture() const { return lastGesture_; }
    void clearLastGesture() { lastGesture_.set(std::nullopt); }
    // Which permission keeps the engines from starting, while one does.
    std::optional<Permission> blockingPermission() const;

    MappingStore& store() { return *store_; }
    PermissionsMonitor& permissions() { return *permissions_; }
    AppSettings& settings() { return *settings_; }
    HotkeyEngine& hotkeys() { return *hotkeys_; }
    GestureEngine& gestures() { return *gestures_; }
    MouseGestureEngine& mouseGestures() { return *mouseGestures_; }
    ActionRunner& actions() { return *actions_; }
    FilterController& filter() { return *filter_; }
    FlowMonitor& flows() { return *flows_; }
    LocalServerMonitor& servers() { return *servers_; }
    SystemMonitor& monitor() { return *monitor_; }

    // Applies the network settings to the watcher.
    void syncFlowSettings();
    // Turns the network watcher on or off and stores the choice.
    void setNetworkMonitor(bool enabled);

    // Posts a notification when the user allows them; a later one with the same `replacing`
    // identifier takes the earlier one's place.
    void notify(const std::string& title, const std::string& body, const std::optional<std::string>& replacing = std::nullopt);

private:
    explicit AppCoordinator(AppEnvironment environment);
    void installClosures();
    void startEngines();
    void stopEngines();
    void announceLaunch();
    void runOnMain(const Mapping& mapping);
    void permissionsDidChange();
    void startMouseGestures();
    void gesturesDidWake();
    void networkMonitorChanged(bool enabled);

    AppEnvironment env_;
    // Construction order is the start-up order of the services.
    std::unique_ptr<MappingStore> store_;
    std::unique_ptr<MouseGestureEngine> mouseGestures_;
    std::shared_ptr<LocalServerMonitor> servers_;
    std::unique_ptr<PermissionsMonitor> permissions_;
    std::unique_ptr<AppSettings> settings_;
    std::unique_ptr<SystemMonitor> monitor_;
    std::unique_ptr<HotkeyEngine> hotkeys_;
    std::unique_ptr<GestureEngine> gestures_;
    std::unique_ptr<ActionRunner> actions_;
    std::unique_ptr<FilterController> filter_;
    std::shared_ptr<FlowMonitor> flows_;

    Observable<bool> isEnabled_{true};
    Observable<std::optional<std::string>> engineError_;
    Observable<std::optional<std::string>> gestureError_;
    Observable<std::optional<GestureSpec>> lastGesture_;
    Observation didWake_;
    Observation didActivate_;
    bool isRestartingEngines_ = false;
    bool started_ = false;
    bool holdsFlowWatcher_ = false;
    std::vector<Observation> networkObservations_;
    Cancellable launchAnnouncement_;
};

} // namespace tavrick

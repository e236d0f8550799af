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
#include "FanKit/FanController.h"
#include "FanKit/FanMonitor.h"
#include "HotkeyEngine/HotkeyEngine.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// What fan control stands on: the helper's installer and client, this copy's bundle, the
// controller the helper writes (for the controller's own reads) and what the monitor reads.
struct FanEnvironment {
    FanHelperInstaller* installer = nullptr;
    std::optional<FanHelperBundle> bundle;
    std::function<std::shared_ptr<FanHelperService>()> makeClient;
    SMCReader* controllerReader = nullptr;
    SMCReader* monitorReader = nullptr;
    ThermalSensors* monitorSensors = nullptr;
};

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
    // Fan control; without it the fan actions say so in the log.
    std::shared_ptr<FanEnvironment> fans;
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
    // Which permission keeps the engines from starting, while one does.
    std::optional<Permission> blockingPermission() const;

    MappingStore& store() { return *store_; }
    PermissionsMonitor& permissions() { return *permissions_; }
    AppSettings& settings() { return *settings_; }
    HotkeyEngine& hotkeys() { return *hotkeys_; }
    ActionRunner& actions() { return *actions_; }
    FanMonitor* fans() { return fans_.get(); }
    FanController* fanControl() { return fanControl_.get(); }

    // The user's fan choice, with a toast that says what happens.
    void runFanPreset(FanPreset choice);

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

    AppEnvironment env_;
    // Construction order is the start-up order of the services.
    std::unique_ptr<MappingStore> store_;
    std::unique_ptr<PermissionsMonitor> permissions_;
    std::unique_ptr<AppSettings> settings_;
    std::unique_ptr<HotkeyEngine> hotkeys_;
    std::unique_ptr<ActionRunner> actions_;
    std::unique_ptr<FanMonitor> fans_;
    std::unique_ptr<FanController> fanControl_;
    Observation fanStateNote_;

    Observable<bool> isEnabled_{true};
    Observable<std::optional<std::string>> engineError_;
    bool isRestartingEngines_ = false;
    bool started_ = false;
    Cancellable launchAnnouncement_;
};

} // namespace tavrick

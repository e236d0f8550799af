#pragma once

#include "ActionKit/ActionRunner.h"
#include "ActionKit/SnapPreview.h"
#include "ActionKit/WindowAccessibility.h"
#include "ActionKit/WindowManager.h"
#include "ActionKit/WindowSnapper.h"
#include "AwakeKit/AwakeController.h"
#include "AwakeKit/LidWatcher.h"
#include "ClipboardKit/ClipboardMonitor.h"
#include "CoreKit/AppSettings.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/EventSystem.h"
#include "CoreKit/Keychain.h"
#include "CoreKit/KeyboardLayout.h"
#include "CoreKit/LoginItem.h"
#include "CoreKit/MappingStore.h"
#include "CoreKit/Observable.h"
#include "CoreKit/PermissionsMonitor.h"
#include "CoreKit/PreferenceStore.h"
#include "CoreKit/UserNotifications.h"
#include "CoreKit/WindowServer.h"
#include "CoreKit/Workspace.h"
#include "CoreKit/WorkspaceNotifications.h"
#include "GestureEngine/GestureEngine.h"
#include "GestureEngine/SystemGestureConflicts.h"
#include "FanKit/FanController.h"
#include "FanKit/FanMonitor.h"
#include "HotkeyEngine/HotkeyEngine.h"
#include "MonitorKit/LocalServerMonitor.h"
#include "MonitorKit/SystemMonitor.h"
#include "MouseGestureKit/MouseGestureEngine.h"
#include "NetKit/FilterController.h"
#include "NetKit/FlowMonitor.h"
#include "NetKit/NetworkPorts.h"
#include "NotepadKit/Notepad.h"
#include "PomodoroKit/PomodoroController.h"
#include "DevToolsKit/DiskReclaimProcess.h"
#include "DevToolsKit/NetworkTools.h"
#include "TweakKit/TweakController.h"
#include "WebServerKit/StaticFileServer.h"
#include "VaultKit/Vault.h"
#include "VaultKit/VaultPanel.h"
#include "Tavrick/BackupSection.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AIKit/HTTPTransport.h"
#include "SelectionKit/SelectionAccessibility.h"
#include "SelectionKit/SelectionController.h"

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
    // What actions act on: the session's applications, the desktop's opener, displays, the
    // window list and windows, the file manager's preferences, the user's home and this process.
    Workspace& applications;
    DesktopLauncher& launcher;
    const ScreenSource& screens;
    const WindowList& windowList;
    WindowAccessibility& windowAccessibility;
    const PreferenceStore& finderDefaults;
    std::filesystem::path home;
    std::int32_t processIdentifier = 0;
    LoginItemService loginItems;
    // The user's secret store, under the keychain and (later) the vault.
    SecretStore& secrets;
    // Where touch frames come from; null means the trackpad service's own source.
    std::shared_ptr<TouchSource> touchSource = nullptr;
    // The application in front at start, before the first activation is announced.
    std::optional<std::string> frontmostBundleID = std::nullopt;
    NetworkPorts network{};
    // Where the clipboard history and the note live; empty means the mappings file's folder.
    std::filesystem::path supportDirectory = {};
    // The everyday services' platform; each one left empty gets the stand-in (a simulated
    // pasteboard, assertions held in memory, processes from /proc, no lid).
    std::shared_ptr<Pasteboard> pasteboard = nullptr;
    std::shared_ptr<PowerAssertions> powerAssertions = nullptr;
    std::shared_ptr<ProcessWatcher> processes = nullptr;
    LidSensors lidSensors = {};
    // Who is in front, for the clipboard's exclusions; unset means nobody known.
    std::function<std::optional<ClipboardSourceApp>()> frontmostApplication = {};
    // Fan control; without it the fan actions say so in the log.
    std::shared_ptr<FanEnvironment> fans = nullptr;
    // Memory, power and disk readings, and the process access of the local servers list.
    SystemReadings systemReadings{};
    ProcessControl processControl{};
    std::int32_t selfPID = 0;
    // What can stand in front of the vault's stored passphrase; unset means this machine's.
    std::shared_ptr<Authenticator> authenticator = nullptr;
    // What the snap preview is drawn on; unset means a drag snaps with no preview showing.
    SnapPreviewWindow::SurfaceFactory snapPreviewSurface = {};
    // Every application running in the session, for the menu's app-bound keep-awake; unset
    // means none known.
    std::function<std::vector<RunningApplication>()> listApplications = {};
    // The focused element's selection, the mouse, and the HTTPS client of the model answers;
    // unset means the simulated element, the origin and libcurl.
    std::shared_ptr<SelectionAccessibility> selectionAccessibility = nullptr;
    std::function<Point()> mouseLocation = {};
    std::shared_ptr<HTTPTransport> http = nullptr;
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

    // Window snapping by drag: the stored choice (for the menu's switch), and setting it starts or
    // stops the snapper at once when the engines are on.
    const Observable<bool>& isWindowSnappingEnabled() const { return settings_->isWindowSnappingEnabled.observable(); }
    void setWindowSnappingEnabled(bool enabled);
    // The last failure to start window snapping.
    const Observable<std::optional<std::string>>& snapError() const { return snapError_; }
    WindowSnapper& snapper() { return *snapper_; }
    SnapPreviewWindow& snapPreview() { return *snapPreview_; }

    // The last failure to start the hotkey engine.
    const Observable<std::optional<std::string>>& engineError() const { return engineError_; }
    // The last failure to start the gesture engine.
    const Observable<std::optional<std::string>>& gestureError() const { return gestureError_; }
    // The last gesture the trackpad recognised, for the bindings pane.
    const Observable<std::optional<GestureSpec>>& lastGesture() const { return lastGesture_; }
    void clearLastGesture() { lastGesture_.set(std::nullopt); }
    // The enabled gesture bindings the system acts on too, as its trackpad and Dock preferences
    // say now, in file order; `SystemGestureConflicts::advice` gives what to show for each.
    std::vector<SystemGestureConflicts::MappingConflict> gestureConflicts() const;
    // Which permission keeps the engines from starting, while one does.
    std::optional<Permission> blockingPermission() const;
    // Asks for the permission and shows its settings pane; Input Monitoring's pane only when the
    // user had already said no, since otherwise the system's own request is showing.
    void requestPermission(Permission permission);
    void openPermissionSettings(Permission permission);

    MappingStore& store() { return *store_; }
    PermissionsMonitor& permissions() { return *permissions_; }
    AppSettings& settings() { return *settings_; }
    HotkeyEngine& hotkeys() { return *hotkeys_; }
    GestureEngine& gestures() { return *gestures_; }
    MouseGestureEngine& mouseGestures() { return *mouseGestures_; }
    ActionRunner& actions() { return *actions_; }
    LoginItemController& loginItem() { return *loginItem_; }
    Keychain& keychain() { return keychain_; }
    WindowManager& windows() { return *windows_; }
    FilterController& filter() { return *filter_; }
    FlowMonitor& flows() { return *flows_; }
    LocalServerMonitor& servers() { return *servers_; }
    SystemMonitor& monitor() { return *monitor_; }
    StaticFileServer& fileServer() { return *fileServer_; }
    TweakController& tweaks() { return *tweaks_; }
    // How reclaim and the developer tools find a program.
    const ProgramLookup& programs() const { return programs_; }
    ToolRun& networkTools() { return *networkTools_; }

    // Serves the folder of the settings, or stops serving when none is set.
    void syncFileServer();

    // Applies the network settings to the watcher.
    void syncFlowSettings();
    // Turns the network watcher on or off and stores the choice.
    void setNetworkMonitor(bool enabled);
    Notepad& notepad() { return *notepad_; }
    // The backup's view of the stores, and its two sheets without a window.
    BackupTarget& backupTarget() { return *backup_; }
    std::unique_ptr<BackupExportModel> makeBackupExport() { return std::make_unique<BackupExportModel>(*backup_); }
    std::unique_ptr<BackupImportModel> makeBackupImport() { return std::make_unique<BackupImportModel>(*backup_); }
    Vault& vault() { return *vault_; }
    // What the vault's window would show, for the menu to draw; its timers read the settings.
    VaultPanel& vaultPanel() { return *vaultPanel_; }
    AwakeController& awake() { return *awake_; }
    LidWatcher& lid() { return *lid_; }
    PomodoroController& pomodoro() { return *pomodoro_; }
    ClipboardMonitor& clipboard() { return *clipboard_; }
    SelectionController& selection() { return *selection_; }
    // The keep-awake session running now was started for a Pomodoro focus phase.
    bool pomodoroHoldsAwake() const { return pomodoroHoldsAwake_; }

    Scheduler& scheduler() { return env_.scheduler; }
    const std::filesystem::path& home() const { return env_.home; }
    DiagnosticLog& log() { return env_.log; }
    // The session's applications, oldest first.
    std::vector<RunningApplication> runningApplications() const {
        return env_.listApplications ? env_.listApplications() : std::vector<RunningApplication>{};
    }

    // Shows the welcome at start while the settings say it was never completed; installed by the
    // host before the deferred start.
    std::function<void()> showWelcome;

    // Opens the settings window; installed by the menu bar once it is up.
    std::function<void()> presentSettings;
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
    void noteGestureConflicts();
    void stopEngines();
    void startSnapping();
    void announceLaunch();
    void runOnMain(const Mapping& mapping);
    void permissionsDidChange();
    void startMouseGestures();
    void gesturesDidWake();
    void networkMonitorChanged(bool enabled);
    void installEverydayClosures();
    void startLid();
    void observeSleepAndQuit();
    void pomodoroPhaseEnded(PomodoroPhase finished, PomodoroPhase next);
    void pomodoroRunStateChanged(PomodoroPhase phase, bool isRunning);
    void showNotepad();
    void installSelectionClosures();

    AppEnvironment env_;
    // Construction order is the start-up order of the services.
    std::unique_ptr<MappingStore> store_;
    std::unique_ptr<Notepad> notepad_;
    std::unique_ptr<Vault> vault_;
    std::unique_ptr<AwakeController> awake_;
    std::unique_ptr<LidJournal> lidJournal_;
    std::unique_ptr<LidWatcher> lid_;
    std::unique_ptr<MouseGestureEngine> mouseGestures_;
    std::shared_ptr<LocalServerMonitor> servers_;
    std::unique_ptr<StaticFileServer> fileServer_;
    std::unique_ptr<PermissionsMonitor> permissions_;
    std::unique_ptr<AppSettings> settings_;
    std::unique_ptr<SystemMonitor> monitor_;
    std::unique_ptr<FanMonitor> fans_;
    std::unique_ptr<FilterController> filter_;
    std::unique_ptr<PomodoroController> pomodoro_;
    std::unique_ptr<LoginItemController> loginItem_;
    std::unique_ptr<WindowManager> windows_;
    std::unique_ptr<WindowSnapper> snapper_;
    std::unique_ptr<SnapPreviewWindow> snapPreview_;
    std::unique_ptr<HotkeyEngine> hotkeys_;
    std::unique_ptr<GestureEngine> gestures_;
    std::unique_ptr<ActionRunner> actions_;
    Keychain keychain_{env_.secrets};
    std::unique_ptr<SelectionController> selection_;
    Observation vaultSuspendsSelection_;
    std::unique_ptr<FanController> fanControl_;
    std::unique_ptr<ClipboardMonitor> clipboard_;
    std::shared_ptr<FlowMonitor> flows_;
    std::shared_ptr<TweakController> tweaks_;
    ProgramLookup programs_;
    std::unique_ptr<ToolRun> networkTools_;
    std::unique_ptr<BackupTarget> backup_;
    bool pomodoroHoldsAwake_ = false;
    // Set while the clipboard and its settings are being brought in line with each other.
    bool mirroringClipboard_ = false;
    std::vector<Observation> everydayObservations_;
    Observation fanStateNote_;

    Observable<bool> isEnabled_{true};
    Observable<std::optional<std::string>> engineError_;
    Observable<std::optional<std::string>> gestureError_;
    Observable<std::optional<std::string>> snapError_;
    Observation snappingSetting_;
    Observable<std::optional<GestureSpec>> lastGesture_;
    Observation didWake_;
    Observation didActivate_;
    bool isRestartingEngines_ = false;
    bool started_ = false;
    bool holdsFlowWatcher_ = false;
    std::vector<Observation> networkObservations_;
    Cancellable launchAnnouncement_;
    // Made once the settings exist: the auto-lock and the pasteboard clearing read them.
    std::unique_ptr<VaultSession> vaultSession_;
    std::unique_ptr<VaultPanel> vaultPanel_;
};

} // namespace tavrick

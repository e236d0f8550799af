#include "Tavrick/AppCoordinator.h"

#include "AIKit/AIClient.h"
#include "CoreKit/UnicodeText.h"
#include "Platform/Linux/CurlHTTPTransport.h"
#include "Platform/Simulated/SimulatedSelection.h"

#include "CoreKit/AppInfo.h"
#include "CoreKit/Log.h"
#include "CoreKit/Toast.h"
#include "DevToolsKit/DiskReclaim.h"
#include "MonitorKit/ByteFormat.h"
#include "Platform/Linux/LinuxAuthenticator.h"
#include "Platform/Linux/LinuxProcessWatcher.h"
#include "Platform/Simulated/InMemoryPowerAssertions.h"
#include "Platform/Simulated/SimulatedPasteboard.h"
#include "Platform/Linux/JSONPreferenceStore.h"

#include <algorithm>
#include <cassert>
#include <unistd.h>

namespace tavrick {

namespace {
const char* spelled(PermissionState state) {
    return state == PermissionState::granted ? "granted" : "denied";
}

// "Tavrick 1.2 (45) macOS <system>, accessibility=granted, inputMonitoring=denied, mappings=10"
std::string launchLine(const std::string& version, const std::string& build, const std::string& osVersion,
                       PermissionState accessibility, PermissionState inputMonitoring, std::size_t mappings) {
    return "Tavrick " + version + " (" + build + ") macOS " + osVersion + ", accessibility=" + spelled(accessibility) +
           ", inputMonitoring=" + spelled(inputMonitoring) + ", mappings=" + std::to_string(mappings);
}

// Fills in the stand-ins for what the host did not give.
AppEnvironment withStandIns(AppEnvironment environment) {
    if (environment.supportDirectory.empty()) environment.supportDirectory = environment.mappingsFile.parent_path();
    if (!environment.pasteboard) environment.pasteboard = std::make_shared<SimulatedPasteboard>();
    if (!environment.authenticator) environment.authenticator = std::make_shared<LinuxAuthenticator>();
    if (!environment.powerAssertions) environment.powerAssertions = std::make_shared<InMemoryPowerAssertions>();
    if (!environment.processes) environment.processes = std::make_shared<LinuxProcessWatcher>();
    if (!environment.selectionAccessibility) environment.selectionAccessibility = std::make_shared<SimulatedSelection>();
    if (!environment.http) environment.http = std::make_shared<CurlHTTPTransport>();
    return environment;
}

// The notepad shows as a window or a panel in the desktop build; the headless shell has neither.
constexpr double notepadDebounce = 0.5;

ClipboardPolicy clipboardPolicy(const AppSettings& settings) {
    ClipboardPolicy policy;
    policy.maximumTextLength = 128000;
    policy.maximumItems = settings.clipboardMaximumItems.get();
    policy.clearOnQuit = settings.clipboardClearOnQuit.get();
    return policy;
}

// The fan monitor and controller, when the host has fan control.
std::unique_ptr<FanMonitor> makeFanMonitor(AppEnvironment& env) {
    if (!env.fans) return nullptr;
    return std::make_unique<FanMonitor>(env.scheduler, env.log, *env.fans->monitorReader, *env.fans->monitorSensors);
}

std::unique_ptr<FanController> makeFanController(AppEnvironment& env) {
    auto f = env.fans;
    if (!f) return nullptr;
    SMCReader* reader = f->controllerReader;
    auto readLayout = [reader]() -> std::optional<std::vector<FanReading>> {
        try {
            reader->open();
            return FanKeys::readFans(*reader, FanKeys::discover(*reader));
        } catch (const SMCError&) {
            return std::nullopt;
        }
    };
    return std::make_unique<FanController>(FanController::Environment{
        env.scheduler, env.log, *f->installer, f->bundle, f->makeClient,
        [readLayout]() -> std::optional<bool> {
            auto fans = readLayout();
            return fans ? std::optional<bool>(!fans->empty()) : std::nullopt;
        },
        [readLayout]() -> std::optional<bool> {
            auto fans = readLayout();
            if (!fans) return std::nullopt;
            return std::any_of(fans->begin(), fans->end(), [](const FanReading& r) { return r.mode == 1; });
        }});
}

} // namespace

std::shared_ptr<AppCoordinator> AppCoordinator::make(AppEnvironment environment) {
    std::shared_ptr<AppCoordinator> coordinator(new AppCoordinator(std::move(environment)));
    coordinator->installClosures();
    return coordinator;
}

AppCoordinator::AppCoordinator(AppEnvironment environment)
    : env_(withStandIns(std::move(environment))),
      store_(std::make_unique<MappingStore>(env_.mappingsFile, env_.log, env_.scheduler.clock())),
      notepad_(std::make_unique<Notepad>(env_.supportDirectory / Notepad::fileName, notepadDebounce, env_.scheduler,
                                         env_.log)),
      vault_(std::make_unique<Vault>(VaultKeychain(env_.secrets, VaultKeychain::defaultService), *env_.authenticator,
                                     env_.scheduler)),
      awake_(std::make_unique<AwakeController>(*env_.powerAssertions, *env_.processes, env_.scheduler,
                                               AppInfo::displayName())),
      lidJournal_(std::make_unique<LidJournal>(env_.defaults)),
      lid_(std::make_unique<LidWatcher>(*lidJournal_, env_.lidSensors, env_.scheduler, env_.workspace)),
      mouseGestures_(std::make_unique<MouseGestureEngine>(env_.events, env_.scheduler)),
      servers_(LocalServerMonitor::make(env_.processControl, env_.selfPID, &env_.log)),
      fileServer_(std::make_unique<StaticFileServer>(env_.scheduler, env_.log)),
      permissions_(std::make_unique<PermissionsMonitor>(env_.permissionSource, env_.scheduler)),
      settings_(std::make_unique<AppSettings>(env_.defaults, env_.log)),
      monitor_(std::make_unique<SystemMonitor>(env_.scheduler, env_.systemReadings)),
      fans_(makeFanMonitor(env_)),
      filter_(std::make_unique<FilterController>(env_.network.filterSystem, &env_.log)),
      pomodoro_(std::make_unique<PomodoroController>(PomodoroConfig{}, env_.scheduler)),
      loginItem_(std::make_unique<LoginItemController>(env_.loginItems, env_.scheduler)),
      windows_(std::make_unique<WindowManager>(env_.windowAccessibility, env_.scheduler)),
      snapper_(std::make_unique<WindowSnapper>(SnapperEnvironment{env_.events, env_.scheduler, env_.applications,
                                                                  env_.windowAccessibility, env_.screens,
                                                                  env_.processIdentifier},
                                               *windows_)),
      snapPreview_(std::make_unique<SnapPreviewWindow>(env_.snapPreviewSurface)),
      hotkeys_(std::make_unique<HotkeyEngine>(env_.events, env_.scheduler, env_.log)),
      gestures_(std::make_unique<GestureEngine>(env_.touchSource, env_.log, env_.events, env_.scheduler)),
      actions_(std::make_unique<ActionRunner>(
          ActionEnvironment{
              .log = env_.log,
              .workspace = env_.applications,
              .launcher = env_.launcher,
              .events = env_.events,
              .screens = env_.screens,
              .windowList = env_.windowList,
              .finderDefaults = env_.finderDefaults,
              .home = env_.home,
              .ownProcessIdentifier = env_.processIdentifier,
              .isAccessibilityTrusted = env_.permissionSource.isAccessibilityTrusted,
          },
          *windows_)),
      selection_(std::make_unique<SelectionController>(
          *settings_, env_.log, env_.scheduler,
          SelectionController::Ports{*env_.selectionAccessibility, env_.events, *env_.pasteboard, env_.launcher,
                                     env_.home.string(), env_.mouseLocation, nullptr, nullptr})),
      fanControl_(makeFanController(env_)),
      clipboard_(std::make_unique<ClipboardMonitor>(clipboardPolicy(*settings_), settings_->isClipboardEnabled.get(),
                                                    env_.supportDirectory, *env_.pasteboard, env_.scheduler, env_.log)),
      flows_(FlowMonitor::make(
          FlowMonitor::Services{env_.scheduler, &env_.log, env_.network.lookup, env_.network.makeExtensionSource},
          env_.network.supportDirectory.empty() ? env_.supportDirectory : env_.network.supportDirectory,
          {settings_->networkMutedApps.get().begin(), settings_->networkMutedApps.get().end()},
          alertsOnNewApps(settings_->networkAlertMode), alertsOnNewHosts(settings_->networkAlertMode),
          static_cast<int>(settings_->networkSampleSeconds.get()), settings_->networkLearningStartedAt,
          env_.network.makeSource)),
      tweaks_(TweakController::make(
          [](const std::string& id) -> std::shared_ptr<PreferenceStore> {
              // Every application's domain is the global one.
              return std::make_shared<JSONPreferenceStore>(
                  JSONPreferenceStore::fileForDomain(id == Tweaks::anyApplication ? "NSGlobalDomain" : id));
          },
          TweakApplications{
              [this](const std::string& id) {
                  std::vector<std::int32_t> pids;
                  for (const auto& app : env_.applications.runningApplications(id)) pids.push_back(app.processIdentifier);
                  return pids;
              },
              [this](std::int32_t pid) { return env_.applications.terminate(pid); },
              // The session's applications have one way to end: the quit they honour.
              [this](std::int32_t pid) { return env_.applications.terminate(pid); },
              [this](const std::string& url, std::function<void(std::optional<std::string>)> done) {
                  env_.launcher.openApplication(url, std::move(done));
              }},
          env_.scheduler, env_.log)),
      // The fixed paths the tools are asked for, else the usual folders; the path doctor's
      // search path takes this place when it is there.
      programs_(lookupByPathOrName(ToolRunner::fallbackPath(env_.home))),
      networkTools_(std::make_unique<ToolRun>(programs_)) {
    clipboard_->frontmostApplication = env_.frontmostApplication;
    backup_ = std::make_unique<BackupTarget>(BackupTarget{
        env_.defaults, *settings_, *store_, *notepad_, *vault_, keychain_, env_.log, env_.scheduler,
        env_.version + " (" + env_.build + ")",
        [] {
            char name[256] = {};
            return ::gethostname(name, sizeof name - 1) == 0 ? std::string(name) : std::string();
        },
        [this](const Tweak& tweak) { return tweaks_->isOn(tweak); },
        [this](const std::vector<Tweak>& tweaks, std::function<void(int)> done) { tweaks_->applyAll(tweaks, std::move(done)); },
        // Window snapping and the selection watcher follow the settings once this build has them;
        // the network watcher takes its settings now.
        [this] {
            if (started_) syncFlowSettings();
        }});
}

AppCoordinator::~AppCoordinator() {
    launchAnnouncement_.cancel();
    vaultSuspendsSelection_ = {};
    selection_->hide();
    selection_->watcher().stop();
    everydayObservations_.clear();
    flows_->onAlert = nullptr;
    // The helper hands the fans back by itself once this, its client, is gone.
    if (fanControl_) fanControl_->dropClient();
    hotkeys_->setOnTrigger(nullptr);
    hotkeys_->stop();
    gestures_->setOnTrigger(nullptr);
    gestures_->setOnRecognize(nullptr);
    gestures_->stop();
    mouseGestures_->setOnGesture(nullptr);
    mouseGestures_->setOnNote(nullptr);
    mouseGestures_->stop();
    snapper_->onPreview = nullptr;
    snapper_->stop();
    snapPreview_->hide();
}

void AppCoordinator::installClosures() {
    std::weak_ptr<AppCoordinator> weak = weak_from_this();

    // The vault's timers read the settings as they are when each one starts.
    vaultSession_ = std::make_unique<VaultSession>(
        env_.scheduler, *env_.pasteboard, [this] { return static_cast<int>(settings_->vaultLockSeconds.get()); },
        [this] { return static_cast<int>(settings_->vaultClipboardSeconds.get()); });
    vaultPanel_ = std::make_unique<VaultPanel>(*vault_, *vaultSession_);
    snapper_->onPreview = [weak](std::optional<Rect> frame) {
        auto self = weak.lock();
        if (!self) return;
        if (frame) {
            self->snapPreview_->show(*frame);
        } else {
            self->snapPreview_->hide();
        }
    };
    // The choice may change behind the menu's back (a restored backup, another process's edit);
    // before the deferred start the engines pick it up themselves.
    snappingSetting_ = settings_->isWindowSnappingEnabled.observe([weak](const bool& enabled) {
        auto self = weak.lock();
        if (!self || !self->started_) return;
        if (enabled) {
            self->startSnapping();
        } else {
            self->snapper_->stop();
        }
    });

    // Engines hear about every change first, in a fixed order, on the calling thread.
    store_->onChange = [weak](const std::vector<Mapping>& mappings) {
        auto self = weak.lock();
        if (!self) return;
        self->hotkeys_->update(mappings);
        self->gestures_->update(mappings);
        self->mouseGestures_->update(mappings);
    };

    actions_->onFans = [weak](FanPreset preset) {
        if (auto self = weak.lock()) self->runFanPreset(preset);
    };
    if (fanControl_) {
        fanControl_->onNotice = [](const std::string& title, const std::optional<std::string>& detail) {
            Toast::shared().show(title, Toast::Kind::warning, detail);
        };
        DiagnosticLog* log = &env_.log;
        fanStateNote_ = fanControl_->state().observe([log](const FanController::State& state) {
            log->note("fans", "fan control — " + FanController::title(state));
        });
    }

    permissions_->onStateChange = [weak] {
        if (auto self = weak.lock()) self->permissionsDidChange();
    };

    // A later alert for the same app takes the place of the earlier one.
    flows_->onAlert = [weak](const Alert& alert) {
        if (auto self = weak.lock()) self->notify(alert.title(), alert.body(), "net." + alert.app.stableIdentifier());
    };
    // The settings may change under the watcher (a restore, another process's edit).
    networkObservations_.push_back(settings_->isNetworkMonitorEnabled.observe([weak](bool enabled) {
        if (auto self = weak.lock()) self->networkMonitorChanged(enabled);
    }));
    auto sync = [weak](const auto&) {
        if (auto self = weak.lock(); self && self->holdsFlowWatcher_) self->syncFlowSettings();
    };
    networkObservations_.push_back(settings_->networkAlertMode.observe(sync));
    networkObservations_.push_back(settings_->networkSampleSeconds.observe(sync));
    networkObservations_.push_back(settings_->networkMutedApps.observe(sync));
    auto serve = [weak](const auto&) {
        if (auto self = weak.lock(); self && self->started_) self->syncFileServer();
    };
    networkObservations_.push_back(settings_->serveFolder.observe(serve));
    networkObservations_.push_back(settings_->servePort.observe(serve));
    networkObservations_.push_back(settings_->serveOnNetwork.observe(serve));
    // What was learned in the last half minute survives a Quit.
    networkObservations_.push_back(env_.workspace.observe(WorkspaceEvent::willTerminate, [weak](const auto&) {
        if (auto self = weak.lock()) self->flows_->flush();
    }));

    installEverydayClosures();

    // The engine calls this on the global queue; the action itself runs on the main thread, and
    // a mapping that fires after the coordinator is gone is dropped.
    Scheduler* scheduler = &env_.scheduler;
    hotkeys_->setOnTrigger([weak, scheduler](const Mapping& mapping) {
        scheduler->async([weak, mapping] {
            if (auto self = weak.lock()) self->runOnMain(mapping);
        });
    });
    // The gesture engine already lands on the main queue; the action still runs in a block of
    // its own, as a shortcut's does.
    gestures_->setOnTrigger([weak, scheduler](const Mapping& mapping) {
        scheduler->async([weak, mapping] {
            if (auto self = weak.lock()) self->runOnMain(mapping);
        });
    });
    gestures_->setOnRecognize([weak, scheduler](const GestureSpec& spec) {
        scheduler->async([weak, spec] {
            if (auto self = weak.lock()) self->lastGesture_.set(spec);
        });
    });
    didWake_ = env_.workspace.observe(WorkspaceEvent::didWake, [weak](const WorkspaceNotification&) {
        if (auto self = weak.lock()) self->gesturesDidWake();
    });
}

void AppCoordinator::runOnMain(const Mapping& mapping) {
    actions_->run(mapping.action);
}

void AppCoordinator::start() {
    assert(env_.scheduler.isMainThread());
    if (started_) return;
    started_ = true;

    // 1. Key names follow the user's layout from here on.
    if (env_.keyboardLayout) env_.keyboardLayout->startObserving();

    // 2. Toasts ask the settings whether to show; with the coordinator gone they show.
    std::weak_ptr<AppCoordinator> weak = weak_from_this();
    Toast::shared().setIsEnabled([weak] {
        auto self = weak.lock();
        return !self || self->settings_->showConfirmations.get();
    });

    // 3.
    permissions_->refresh();

    // 4. The clean-shutdown marker of the previous run.
    if (!env_.log.beginSession()) {
        env_.log.note("launch", "the previous run ended without a clean shutdown — a crash or a kill, not a Quit");
    }

    // 5. Who is running, with what.
    const auto accessibility = permissions_->state(Permission::accessibility);
    const auto inputMonitoring = permissions_->state(Permission::inputMonitoring);
    env_.log.note("launch", launchLine(env_.version, env_.build, env_.operatingSystemVersion, accessibility,
                                       inputMonitoring, store_->mappings().get().size()));
    env_.log.note("launch", "selection bar=" + std::string(rawValue(settings_->selectionMode.get())) +
                                ", copy-on-select=" + (settings_->copyOnSelect.get() ? "on" : "off"));
    env_.log.note("launch", "menu layout — " + AppSettings::describe(settings_->menuBarItems.get()));

    // 6. The welcome, until the user has been through it once.
    if (!settings_->hasCompletedWelcome.get() && showWelcome) showWelcome();

    // 7. The launch announcement, two seconds on.
    announceLaunch();

    // 8. What could unlock the vault besides its passphrase.
    env_.log.note("vault", Biometrics(*env_.authenticator).note());

    // 10. The engines get the mappings before they start.
    hotkeys_->update(store_->mappings().get());
    gestures_->update(store_->mappings().get());

    // 11.
    startMouseGestures();

    // 12.
    startEngines();

    // 13. The selection bar follows its mode from here on: watching in automatic mode only.
    selection_->observeSettings();

    // 14. The lid watcher.
    startLid();

    // 15.
    if (settings_->isNetworkMonitorEnabled.get()) networkMonitorChanged(true);

    // 16. The note is flushed on sleep, power-off and quit; the clipboard forgotten at quit.
    observeSleepAndQuit();

    // The folder the user chose to serve comes back with the program.
    syncFileServer();
}

void AppCoordinator::syncFileServer() {
    const auto& folder = settings_->serveFolder.get();
    if (folder.empty()) {
        if (fileServer_->state().get().kind != StaticFileServer::State::Kind::stopped) fileServer_->stop();
        return;
    }
    fileServer_->start(folder, settings_->servePort.get(), settings_->serveOnNetwork.get());
    if (auto failure = fileServer_->state().get(); failure.kind == StaticFileServer::State::Kind::failed) {
        Log::core.error("File server did not start: %s", failure.message.c_str());
    }
}

void AppCoordinator::syncFlowSettings() {
    const auto& muted = settings_->networkMutedApps.get();
    const auto mode = settings_->networkAlertMode.get();
    flows_->apply({muted.begin(), muted.end()}, alertsOnNewApps(mode), alertsOnNewHosts(mode),
                  static_cast<int>(settings_->networkSampleSeconds.get()));
}

void AppCoordinator::setNetworkMonitor(bool enabled) {
    if (settings_->isNetworkMonitorEnabled.get() == enabled) return;
    // The setting's observer does the rest.
    settings_->isNetworkMonitorEnabled.set(enabled);
}

void AppCoordinator::networkMonitorChanged(bool enabled) {
    if (!started_) return;
    if (enabled && !holdsFlowWatcher_) {
        syncFlowSettings();
        if (settings_->networkLearningStartedAt.get() == 0) {
            settings_->networkLearningStartedAt.set(flows_->beginLearning());
        }
        holdsFlowWatcher_ = true;
        filter_->refresh();
        flows_->useExtension(filter_->state().get().kind == FilterController::State::Kind::ready);
        flows_->addWatcher();
    } else if (!enabled && holdsFlowWatcher_) {
        holdsFlowWatcher_ = false;
        flows_->removeWatcher();
    }
}

void AppCoordinator::startMouseGestures() {
    mouseGestures_->setFrontmostApp(env_.frontmostBundleID);
    MouseGestureEngine* engine = mouseGestures_.get();
    didActivate_ = env_.workspace.observe(WorkspaceEvent::didActivateApplication,
                                          [engine](const WorkspaceNotification& notification) {
                                              engine->setFrontmostApp(notification.bundleID);
                                          });
    DiagnosticLog* log = &env_.log;
    mouseGestures_->setOnNote([log](const std::string& text) { log->note("mouse", text); });
    std::weak_ptr<AppCoordinator> weak = weak_from_this();
    mouseGestures_->setOnGesture([weak](const Mapping& mapping) {
        if (auto self = weak.lock()) self->runOnMain(mapping);
    });
    mouseGestures_->update(store_->mappings().get());
}

void AppCoordinator::gesturesDidWake() {
    // The trackpad stream does not survive sleep; the taps do.
    if (!gestures_->isRunning()) return;
    try {
        gestures_->restart();
        env_.log.note("gesture", "woke from sleep — trackpad stream reopened");
    } catch (const std::exception& error) {
        Log::gesture.error("Reopening after wake failed: %s", error.what());
        env_.log.note("gesture", std::string("woke from sleep — could not reopen the trackpad stream: ") + error.what());
    }
}

void AppCoordinator::installEverydayClosures() {
    std::weak_ptr<AppCoordinator> weak = weak_from_this();

    actions_->onToggleAwake = [weak] {
        if (auto self = weak.lock()) self->awake_->toggle();
    };
    actions_->onPomodoro = [weak](PomodoroAction action) {
        auto self = weak.lock();
        if (!self) return;
        switch (action) {
        case PomodoroAction::startOrPause: self->pomodoro_->toggle(); break;
        case PomodoroAction::skipPhase: self->pomodoro_->skip(); break;
        case PomodoroAction::reset: self->pomodoro_->reset(); break;
        }
    };
    pomodoro_->onPhaseEnded = [weak](PomodoroPhase finished, PomodoroPhase next) {
        if (auto self = weak.lock()) self->pomodoroPhaseEnded(finished, next);
    };
    pomodoro_->onRunStateChanged = [weak](PomodoroPhase phase, bool isRunning) {
        if (auto self = weak.lock()) self->pomodoroRunStateChanged(phase, isRunning);
    };
    actions_->onShowClipboard = [weak] {
        auto self = weak.lock();
        if (!self) return;
        if (self->presentSettings) {
            self->presentSettings();
        } else {
            self->env_.log.note("window", "asked to open Settings before the menu bar was ready");
        }
    };
    installSelectionClosures();
    actions_->onShowNotepad = [weak] {
        if (auto self = weak.lock()) self->showNotepad();
    };
    notepad_->onSaveFailure = [](const std::string& path) {
        Toast::shared().show("The note could not be saved", Toast::Kind::warning, "Tried to write to " + path);
    };

    // The clipboard's own switches are the settings' source of truth once changed in the pane.
    auto mirror = [weak](const auto&) {
        auto self = weak.lock();
        if (!self || self->mirroringClipboard_) return;
        self->mirroringClipboard_ = true;
        const auto policy = self->clipboard_->policy().get();
        self->settings_->isClipboardEnabled.set(self->clipboard_->isEnabled().get());
        self->settings_->clipboardMaximumItems.set(policy.maximumItems);
        self->settings_->clipboardClearOnQuit.set(policy.clearOnQuit);
        self->mirroringClipboard_ = false;
    };
    everydayObservations_.push_back(clipboard_->isEnabled().observe(mirror));
    everydayObservations_.push_back(clipboard_->policy().observe(mirror));
    // And the other way, for settings taken on from elsewhere (a restored backup). While one side
    // writes the other, the echo is not sent back half-done.
    auto follow = [weak](const auto&) {
        auto self = weak.lock();
        if (!self || self->mirroringClipboard_) return;
        self->mirroringClipboard_ = true;
        auto policy = self->clipboard_->policy().get();
        policy.maximumItems = self->settings_->clipboardMaximumItems.get();
        policy.clearOnQuit = self->settings_->clipboardClearOnQuit.get();
        self->clipboard_->setPolicy(policy);
        self->clipboard_->setEnabled(self->settings_->isClipboardEnabled.get());
        self->mirroringClipboard_ = false;
    };
    everydayObservations_.push_back(settings_->isClipboardEnabled.observe(follow));
    everydayObservations_.push_back(settings_->clipboardMaximumItems.observe(follow));
    everydayObservations_.push_back(settings_->clipboardClearOnQuit.observe(follow));
    clipboard_->onChange = [weak] {
        if (auto self = weak.lock()) {
            self->env_.log.note("clipboard", "recorded a copy; " +
                                                 std::to_string(self->clipboard_->history().get().items().size()) +
                                                 " in the history");
        }
    };

    // The user's log says when keep-awake begins and ends, whoever asked.
    everydayObservations_.push_back(awake_->isActive().observe([weak](bool active) {
        auto self = weak.lock();
        if (!self) return;
        if (active) {
            const auto& session = self->awake_->session().get();
            self->env_.log.note("awake", "keep-awake on — " + (session ? session->description() : std::string()) + ", " +
                                             std::string(displayName(self->awake_->mode().get())));
        } else {
            // A session that ended by any road is no longer the timer's to stop.
            self->pomodoroHoldsAwake_ = false;
            self->env_.log.note("awake", "keep-awake off");
        }
    }));
}

void AppCoordinator::startLid() {
    env_.log.note("launch", "keep-awake holds " + env_.powerAssertions->describe());
    // What closing the lid now would do, as the menu would say it.
    const auto conditions = LidConditions::read(env_.lidSensors);
    const auto source = powerSource(conditions.isOnPowerAdapter);
    const LidVerdict verdict(source, lidJournal_->observation(source), conditions, env_.scheduler.clock().now());
    env_.log.note("lid", std::string(displayName(source)) + ": " + verdict.summary + " — " + verdict.detail);
    lid_->start();
}

void AppCoordinator::observeSleepAndQuit() {
    std::weak_ptr<AppCoordinator> weak = weak_from_this();
    auto flushNote = [weak](const WorkspaceNotification&) {
        if (auto self = weak.lock()) self->notepad_->flush();
    };
    everydayObservations_.push_back(env_.workspace.observe(WorkspaceEvent::willSleep, flushNote));
    everydayObservations_.push_back(env_.workspace.observe(WorkspaceEvent::willPowerOff, flushNote));
    everydayObservations_.push_back(env_.workspace.observe(WorkspaceEvent::willTerminate, [weak](const auto&) {
        auto self = weak.lock();
        if (!self) return;
        self->notepad_->flush();
        self->clipboard_->forgetOnQuit();
    }));
}

void AppCoordinator::pomodoroPhaseEnded(PomodoroPhase finished, PomodoroPhase next) {
    const std::string finishedName(displayName(finished));
    Log::pomodoro.notice("Pomodoro: %s ended → %s", finishedName.c_str(), std::string(displayName(next)).c_str());
    env_.log.note("pomodoro", finishedName + " ended → " + std::string(displayName(next)));
    notify(next == PomodoroPhase::focus ? "Back to work" : "Time for a break", finishedName + " finished.");
}

void AppCoordinator::pomodoroRunStateChanged(PomodoroPhase phase, bool isRunning) {
    if (!pomodoro_->config().get().keepAwakeDuringFocus) return;
    if (isRunning && phase == PomodoroPhase::focus) {
        if (awake_->isActive().get()) return;
        awake_->start(awake_->mode().get(), AwakeSession::indefinite());
        // Only a session that really began is the timer's; a refused one leaves nothing to stop.
        pomodoroHoldsAwake_ = awake_->isActive().get();
    } else if (pomodoroHoldsAwake_) {
        pomodoroHoldsAwake_ = false;
        awake_->stop();
    }
}

void AppCoordinator::installSelectionClosures() {
    std::weak_ptr<AppCoordinator> weak = weak_from_this();
    actions_->onShowSelectionBar = [weak] {
        auto self = weak.lock();
        if (self && self->settings_->selectionMode.get() != SelectionMode::off) self->selection_->present("asked for");
    };
    selection_->onSendToNotepad = [weak](const std::string& text) {
        auto self = weak.lock();
        if (!self) return;
        self->notepad_->append(text);
        Toast::shared().show("Added to the note", Toast::Kind::done,
                             std::to_string(UnicodeText::words(text).size()) + " words");
    };
    // Runs off the main thread with what the controller read from the settings; the key is read
    // from the keychain there and goes nowhere but the request's header.
    // Both outlive a question still in flight when the coordinator goes.
    std::shared_ptr<HTTPTransport> http = env_.http;
    Keychain keychain = keychain_;
    selection_->onAskModel = [http, keychain](const ModelQuestion& question,
                                              const std::shared_ptr<std::atomic<bool>>& cancelled) {
        auto provider = AIProvider::fromRaw(question.provider).value_or(AIProvider::Case::anthropic);
        AIClient client(provider, question.model, question.baseURL, question.maxTokens, *http, keychain);
        auto result = client.ask(question.instruction, question.text, cancelled);
        if (auto* answer = std::get_if<std::string>(&result)) return ModelReply{true, *answer};
        return ModelReply{false, std::get<AIError>(result).description()};
    };
    // Secrets shown by an open vault must not be read, copied or sent.
    vaultSuspendsSelection_ = vault_->isUnlocked.observe([weak](bool unlocked) {
        if (auto self = weak.lock()) self->selection_->setSuspended(unlocked);
    });
}

void AppCoordinator::showNotepad() {
    // No window in the headless shell: the toast says where the note is, to open in any editor.
    const auto words = notepad_->wordCount();
    Toast::shared().show("Notepad", Toast::Kind::done,
                         (notepad_->isEmpty() ? std::string("Saved as you type")
                                              : std::to_string(words) + " words · saved as you type") +
                             " — " + notepad_->fileURL().string());
}

void AppCoordinator::announceLaunch() {
    std::weak_ptr<AppCoordinator> weak = weak_from_this();
    launchAnnouncement_ = env_.scheduler.after(2.0, [weak] {
        auto self = weak.lock();
        if (!self) return;
        auto footprint = self->env_.footprint ? self->env_.footprint() : std::nullopt;
        if (footprint) {
            const std::string size = ByteFormat::compact(*footprint);
            self->env_.log.note("launch", "footprint " + size);
            Toast::shared().show("Tavrick is running", Toast::Kind::done, "Using " + size + " of memory");
        } else {
            Toast::shared().show("Tavrick is running");
        }
    });
}

void AppCoordinator::notify(const std::string& title, const std::string& body,
                            const std::optional<std::string>& replacing) {
    auto* center = &env_.notifications;
    const std::string identifier = replacing.value_or(UUID::random().uuidString());
    center->requestAuthorization(UserNotificationCenter::alertAndSound,
                                 [center, identifier, title, body](bool granted, const std::optional<std::string>& error) {
                                     if (granted) {
                                         center->add(identifier, title, body);
                                     } else if (error) {
                                         Log::core.error("Notifications unavailable: %s", error->c_str());
                                     }
                                 });
}

void AppCoordinator::startEngines() {
    isRestartingEngines_ = true;
    permissions_->refresh();
    mouseGestures_->setMasterEnabled(true);
    try {
        hotkeys_->start();
        engineError_.set(std::nullopt);
        permissions_->endPolling();
    } catch (const std::exception& error) {
        Log::core.error("Hotkey engine did not start: %s", error.what());
        env_.log.note("launch", std::string("hotkey engine did not start: ") + error.what());
        engineError_.set(std::string(error.what()));
        // Nothing else asks for a grant in this build, so the failure itself starts the polling
        // that brings the engines up once the user grants the permission.
        permissions_->beginPolling();
    }
    startSnapping();
    try {
        gestures_->start();
        gestureError_.set(std::nullopt);
        noteGestureConflicts();
    } catch (const std::exception& error) {
        Log::gesture.error("Gesture engine did not start: %s", error.what());
        gestureError_.set(std::string(error.what()));
    }
    isRestartingEngines_ = false;
}

std::vector<SystemGestureConflicts::MappingConflict> AppCoordinator::gestureConflicts() const {
    auto settings = SystemGestureSettings::current([](const std::string& domain) -> std::shared_ptr<const PreferenceStore> {
        return std::make_shared<JSONPreferenceStore>(JSONPreferenceStore::fileForDomain(domain));
    });
    return SystemGestureConflicts::scan(store_->mappings().get(), settings);
}

// Once the trackpad is read, the log says which bindings the system will answer as well.
void AppCoordinator::noteGestureConflicts() {
    for (const auto& found : gestureConflicts()) {
        const auto* gesture = found.mapping.trigger.asGesture();
        env_.log.note("gesture", "'" + found.mapping.effectiveName() + "' (" + gesture->displayString() +
                                     ") — macOS uses this for " + found.conflict.systemFeature);
    }
}

void AppCoordinator::startSnapping() {
    if (!settings_->isWindowSnappingEnabled.get() || !isEnabled_.get()) return;
    try {
        snapper_->start();
        snapError_.set(std::nullopt);
    } catch (const std::exception& error) {
        Log::windows.error("Window snapping did not start: %s", error.what());
        snapError_.set(std::string(error.what()));
    }
}

void AppCoordinator::setWindowSnappingEnabled(bool enabled) {
    // A change reaches the snapper through the setting's observer; the same value still settles
    // the snapper, the way the switch restarts one that failed.
    if (!settings_->isWindowSnappingEnabled.set(enabled) && started_) {
        if (enabled) {
            startSnapping();
        } else {
            snapper_->stop();
        }
    }
}

void AppCoordinator::stopEngines() {
    hotkeys_->stop();
    gestures_->stop();
    mouseGestures_->setMasterEnabled(false);
    snapper_->stop();
    engineError_.set(std::nullopt);
    gestureError_.set(std::nullopt);
}

void AppCoordinator::setEnabled(bool enabled) {
    // Switching on when already on is how a user restarts an engine that stopped, so both
    // directions act whether or not the value changed.
    isEnabled_.set(enabled);
    if (enabled) {
        startEngines();
    } else {
        stopEngines();
    }
}

void AppCoordinator::retryEngines() {
    stopEngines();
    if (isEnabled_.get()) startEngines();
}

void AppCoordinator::runFanPreset(FanPreset choice) {
    if (!fanControl_) {
        env_.log.note("fans", "fan control is not available in this build");
        return;
    }
    auto& control = *fanControl_;
    const FanPreset wanted = resolved(choice, control.preset().get(), control.lastBoost());
    control.select(choice);
    if (control.preset().get() != wanted) return;
    using Kind = FanController::State::Kind;
    const auto state = control.state().get();
    if (wanted == FanPreset::automatic) {
        if (state.kind == Kind::anotherAppControls || state.kind == Kind::safeHold) {
            Toast::shared().show("Tavrick's boost is off", Toast::Kind::done, FanController::title(state));
        } else if (state.kind == Kind::tavrickHoldsFans) {
            Toast::shared().show("Handing the fans back", Toast::Kind::done, "They were left in manual mode by Tavrick's helper");
        } else {
            Toast::shared().show("Fans back to automatic", Toast::Kind::done, "macOS decides how fast they turn");
        }
        return;
    }
    const bool hasFans = fans_ && !fans_->isFanless();
    if (!control.canBoost() || !hasFans ||
        (state.kind != Kind::ready && state.kind != Kind::starting && state.kind != Kind::boosting)) {
        return;
    }
    std::string detail;
    if (wanted == FanPreset::max) {
        detail = "Max runs every fan at its maximum";
    } else {
        const std::string share = wanted == FanPreset::boost25 ? "a quarter of the way" : "half way";
        auto floors = FanFormat::floors(fans_->fans().get(), wanted);
        detail = std::string(title(wanted)) + " holds each fan at least " + share + (floors ? " (" + *floors + ")" : "") +
                 ", and faster when the chip is hot.";
    }
    Toast::shared().show("Asking for " + std::string(title(wanted)), Toast::Kind::done, detail);
}

std::optional<Permission> AppCoordinator::blockingPermission() const {
    if (!engineError_.get()) return std::nullopt;
    if (permissions_->state(Permission::accessibility) != PermissionState::granted) return Permission::accessibility;
    if (permissions_->state(Permission::inputMonitoring) != PermissionState::granted) return Permission::inputMonitoring;
    return std::nullopt;
}

void AppCoordinator::requestPermission(Permission permission) {
    if (permission == Permission::accessibility) {
        permissions_->promptForAccessibility();
        openPermissionSettings(permission);
        return;
    }
    const bool wasDenied = permissions_->state(Permission::inputMonitoring) == PermissionState::denied;
    permissions_->requestInputMonitoring();
    if (wasDenied) openPermissionSettings(permission);
}

void AppCoordinator::openPermissionSettings(Permission permission) {
    permissions_->openSettings(permission);
}

void AppCoordinator::permissionsDidChange() {
    if (isRestartingEngines_ || !isEnabled_.get()) return;
    if (!engineError_.get()) {
        permissions_->endPolling();
        return;
    }
    if (permissions_->state(Permission::accessibility) == PermissionState::granted) {
        Log::core.notice("Permission granted — restarting engines");
        retryEngines();
    }
}

} // namespace tavrick

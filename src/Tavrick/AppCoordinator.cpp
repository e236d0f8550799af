#include "Tavrick/AppCoordinator.h"

#include "CoreKit/Log.h"
#include "CoreKit/Toast.h"
#include "MonitorKit/ByteFormat.h"

#include <algorithm>
#include <cassert>

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

} // namespace

std::shared_ptr<AppCoordinator> AppCoordinator::make(AppEnvironment environment) {
    std::shared_ptr<AppCoordinator> coordinator(new AppCoordinator(std::move(environment)));
    coordinator->installClosures();
    return coordinator;
}

AppCoordinator::AppCoordinator(AppEnvironment environment)
    : env_(std::move(environment)),
      store_(std::make_unique<MappingStore>(env_.mappingsFile, env_.log, env_.scheduler.clock())),
      permissions_(std::make_unique<PermissionsMonitor>(env_.permissionSource, env_.scheduler)),
      settings_(std::make_unique<AppSettings>(env_.defaults, env_.log)),
      hotkeys_(std::make_unique<HotkeyEngine>(env_.events, env_.scheduler, env_.log)),
      actions_(std::make_unique<ActionRunner>(env_.log)) {
    if (auto f = env_.fans) {
        fans_ = std::make_unique<FanMonitor>(env_.scheduler, env_.log, *f->monitorReader, *f->monitorSensors);
        SMCReader* reader = f->controllerReader;
        auto readLayout = [reader]() -> std::optional<std::vector<FanReading>> {
            try {
                reader->open();
                return FanKeys::readFans(*reader, FanKeys::discover(*reader));
            } catch (const SMCError&) {
                return std::nullopt;
            }
        };
        fanControl_ = std::make_unique<FanController>(FanController::Environment{
            env_.scheduler, env_.log, *f->installer, f->bundle, f->makeClient,
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
}

AppCoordinator::~AppCoordinator() {
    launchAnnouncement_.cancel();
    // The helper hands the fans back by itself once this, its client, is gone.
    if (fanControl_) fanControl_->dropClient();
    hotkeys_->setOnTrigger(nullptr);
    hotkeys_->stop();
}

void AppCoordinator::installClosures() {
    std::weak_ptr<AppCoordinator> weak = weak_from_this();

    // Engines hear about every change first, in a fixed order, on the calling thread.
    store_->onChange = [weak](const std::vector<Mapping>& mappings) {
        if (auto self = weak.lock()) self->hotkeys_->update(mappings);
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

    // The engine calls this on the global queue; the action itself runs on the main thread, and
    // a mapping that fires after the coordinator is gone is dropped.
    Scheduler* scheduler = &env_.scheduler;
    hotkeys_->setOnTrigger([weak, scheduler](const Mapping& mapping) {
        scheduler->async([weak, mapping] {
            if (auto self = weak.lock()) self->runOnMain(mapping);
        });
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

    // 7. The launch announcement, two seconds on.
    announceLaunch();

    // 10. The engines get the mappings before they start.
    hotkeys_->update(store_->mappings().get());

    // 12.
    startEngines();
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
    isRestartingEngines_ = false;
}

void AppCoordinator::stopEngines() {
    hotkeys_->stop();
    engineError_.set(std::nullopt);
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

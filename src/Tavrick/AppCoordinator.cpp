#include "Tavrick/AppCoordinator.h"

#include "CoreKit/Log.h"
#include "CoreKit/Toast.h"
#include "MonitorKit/ByteFormat.h"

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
      loginItem_(std::make_unique<LoginItemController>(env_.loginItems, env_.scheduler)),
      windows_(std::make_unique<WindowManager>(env_.windowAccessibility, env_.scheduler)),
      hotkeys_(std::make_unique<HotkeyEngine>(env_.events, env_.scheduler, env_.log)),
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
          *windows_)) {}

AppCoordinator::~AppCoordinator() {
    launchAnnouncement_.cancel();
    hotkeys_->setOnTrigger(nullptr);
    hotkeys_->stop();
}

void AppCoordinator::installClosures() {
    std::weak_ptr<AppCoordinator> weak = weak_from_this();

    // Engines hear about every change first, in a fixed order, on the calling thread.
    store_->onChange = [weak](const std::vector<Mapping>& mappings) {
        if (auto self = weak.lock()) self->hotkeys_->update(mappings);
    };

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
    if (!isEnabled_.set(enabled)) return;
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

#include "Platform/Simulated/SimulatedDesktop.h"

#include "ActionKit/FileURL.h"
#include "Platform/Simulated/SimulatedDesktopCore.h"

namespace tavrick {

std::string_view rawValue(SimulatedPermission state) {
    switch (state) {
    case SimulatedPermission::granted: return "granted";
    case SimulatedPermission::denied: return "denied";
    case SimulatedPermission::notDetermined: return "notDetermined";
    }
    return "notDetermined";
}

template <>
std::optional<SimulatedPermission> fromRaw<SimulatedPermission>(std::string_view raw) {
    for (auto state : {SimulatedPermission::granted, SimulatedPermission::denied, SimulatedPermission::notDetermined}) {
        if (rawValue(state) == raw) return state;
    }
    return std::nullopt;
}


SimulatedDesktop::SimulatedDesktop() : core_(std::make_shared<Core>()) {}

SimulatedDesktop::~SimulatedDesktop() {
    flushState();
}

void SimulatedDesktop::seedDefault(SimulatedDesktop& desktop, std::int32_t ownPid) {
    // A laptop display with a larger one to its right; each loses 25 points to the menu bar and
    // the laptop a further 70 to the dock.
    desktop.setScreens({
        ScreenInfo{Rect{{0, 0}, {1440, 900}}, Rect{{0, 70}, {1440, 805}}},
        ScreenInfo{Rect{{1440, 0}, {2560, 1440}}, Rect{{1440, 0}, {2560, 1415}}},
    });
    struct Seed {
        const char* bundleID;
        const char* name;
        const char* title;
        Rect frame;  // accessibility coordinates
    };
    const Seed seeds[] = {
        {"com.apple.finder", "Finder", "Home", Rect{{60, 80}, {900, 560}}},
        {"org.gnome.Terminal", "Terminal", "ann@laptop: ~", Rect{{1600, 200}, {960, 600}}},
        {"org.gnome.TextEditor", "Text Editor", "Untitled Document 1", Rect{{200, 120}, {800, 600}}},
    };
    std::int32_t last = 0;
    for (const auto& seed : seeds) {
        Application app;
        app.bundleID = seed.bundleID;
        app.name = seed.name;
        {
            std::lock_guard lock(desktop.core_->mutex);
            app.pid = desktop.core_->takePid(ownPid);
        }
        last = desktop.addApplication(app);
        desktop.addWindow(last, seed.title, seed.frame);
    }
    Application self;
    self.pid = ownPid;
    self.bundleID = "com.orvell.tavrick";
    self.name = "Tavrick";
    desktop.addApplication(self);
    desktop.install(Installed{"org.gnome.Calculator", "Calculator", "/usr/share/applications/org.gnome.Calculator.desktop",
                              Rect{{500, 300}, {360, 520}}});
    desktop.activate(last);
    desktop.clearRecords();
}

// ---- Workspace ----

std::optional<RunningApplication> SimulatedDesktop::frontmostApplication() const {
    std::lock_guard lock(core_->mutex);
    if (!core_->frontmost) return std::nullopt;
    auto* a = core_->app(*core_->frontmost);
    if (!a) return std::nullopt;
    return Core::running(*a);
}

std::vector<RunningApplication> SimulatedDesktop::allApplications() const {
    std::lock_guard lock(core_->mutex);
    std::vector<RunningApplication> result;
    for (const auto& a : core_->applications) result.push_back(Core::running(a));
    return result;
}

std::vector<RunningApplication> SimulatedDesktop::runningApplications(const std::string& bundleIdentifier) const {
    std::lock_guard lock(core_->mutex);
    std::vector<RunningApplication> result;
    for (const auto& a : core_->applications) {
        if (a.bundleID == bundleIdentifier) result.push_back(Core::running(a));
    }
    return result;
}

bool SimulatedDesktop::activate(std::int32_t pid) {
    decltype(core_->activationLocked()) told;
    {
        std::lock_guard lock(core_->mutex);
        auto* a = core_->app(pid);
        if (!a) return false;
        core_->frontmost = pid;
        core_->activated.push_back(a->bundleID);
        core_->changedLocked();
        told = core_->activationLocked();
    }
    if (told.first && told.second) told.second(*told.first);
    return true;
}

bool SimulatedDesktop::terminate(std::int32_t pid) {
    decltype(core_->activationLocked()) told;
    {
        std::lock_guard lock(core_->mutex);
        auto& apps = core_->applications;
        auto it = std::find_if(apps.begin(), apps.end(), [&](auto& a) { return a.pid == pid; });
        if (it == apps.end()) return false;
        core_->terminated.push_back(it->bundleID);
        apps.erase(it);
        // The most recently started application that is left comes forward.
        if (core_->frontmost == pid) {
            core_->frontmost = apps.empty() ? std::nullopt : std::optional<std::int32_t>(apps.back().pid);
            told = core_->activationLocked();
        }
        core_->changedLocked();
    }
    if (told.first && told.second) told.second(*told.first);
    return true;
}

// ---- DesktopLauncher ----

std::optional<std::string> SimulatedDesktop::applicationURL(const std::string& bundleIdentifier) const {
    std::lock_guard lock(core_->mutex);
    for (const auto& entry : core_->installed) {
        if (entry.bundleID == bundleIdentifier) return entry.applicationURL;
    }
    return std::nullopt;
}

void SimulatedDesktop::openApplication(const std::string& applicationURL,
                                       std::function<void(std::optional<std::string>)> completion) {
    std::optional<std::string> failure;
    decltype(core_->activationLocked()) told;
    {
        std::lock_guard lock(core_->mutex);
        auto it = std::find_if(core_->installed.begin(), core_->installed.end(),
                               [&](auto& entry) { return entry.applicationURL == applicationURL; });
        if (it == core_->installed.end()) {
            failure = "there is no application at " + applicationURL;
        } else {
            core_->launch(*it);
            core_->changedLocked();
            told = core_->activationLocked();
        }
    }
    if (told.first && told.second) told.second(*told.first);
    if (completion) completion(failure);
}

std::optional<std::string> SimulatedDesktop::open(const URL& url) {
    std::lock_guard lock(core_->mutex);
    for (const auto& [failing, reason] : core_->failingOpens) {
        if (failing == url.absoluteString) return reason;
    }
    if (auto path = FileURL::toPath(url.absoluteString)) {
        std::error_code error;
        if (!std::filesystem::exists(*path, error)) return std::string("The file does not exist.");
    }
    core_->opened.push_back(url.absoluteString);
    core_->changedLocked();
    return std::nullopt;
}

std::optional<std::string> SimulatedDesktop::reveal(const std::filesystem::path& path) {
    std::lock_guard lock(core_->mutex);
    core_->revealed.push_back(path.string());
    core_->changedLocked();
    return std::nullopt;
}

// ---- Screens and the window list ----

std::vector<ScreenInfo> SimulatedDesktop::screens() const {
    std::lock_guard lock(core_->mutex);
    return core_->screens;
}

std::vector<WindowListEntry> SimulatedDesktop::onScreenWindows() const {
    std::lock_guard lock(core_->mutex);
    std::vector<WindowListEntry> list;
    auto addWindows = [&](const Application& a) {
        for (const auto& w : a.windows) list.push_back(WindowListEntry{a.name, 0, w.frame});
    };
    // The frontmost application's windows are in front, then the others, newest first.
    if (core_->frontmost) {
        if (auto* a = core_->app(*core_->frontmost)) addWindows(*a);
    }
    for (auto it = core_->applications.rbegin(); it != core_->applications.rend(); ++it) {
        if (it->pid != core_->frontmost) addWindows(*it);
    }
    list.insert(list.end(), core_->extraWindows.begin(), core_->extraWindows.end());
    return list;
}

// ---- Scripting ----

void SimulatedDesktop::setScreens(std::vector<ScreenInfo> screens) {
    std::lock_guard lock(core_->mutex);
    core_->screens = std::move(screens);
    core_->changedLocked();
}

std::int32_t SimulatedDesktop::addApplication(Application application) {
    std::lock_guard lock(core_->mutex);
    if (application.pid == 0) application.pid = core_->takePid();
    for (auto& w : application.windows) {
        if (w.id == 0) w.id = core_->nextWindowID++;
    }
    const auto pid = application.pid;
    core_->applications.push_back(std::move(application));
    core_->changedLocked();
    return pid;
}

void SimulatedDesktop::install(Installed installed) {
    std::lock_guard lock(core_->mutex);
    core_->installed.push_back(std::move(installed));
}

std::uint64_t SimulatedDesktop::addWindow(std::int32_t pid, std::string title, Rect frame, WindowBehaviour behaviour) {
    std::lock_guard lock(core_->mutex);
    auto* a = core_->app(pid);
    if (!a) return 0;
    const auto id = core_->nextWindowID++;
    a->windows.push_back(Window{id, std::move(title), frame, behaviour});
    if (!a->focusedWindow) a->focusedWindow = a->windows.size() - 1;
    core_->changedLocked();
    return id;
}

void SimulatedDesktop::setWindowBehaviour(std::uint64_t windowID, WindowBehaviour behaviour) {
    std::lock_guard lock(core_->mutex);
    if (auto* w = core_->window(windowID)) w->behaviour = behaviour;
}

void SimulatedDesktop::setFocusedWindow(std::int32_t pid, std::optional<std::size_t> index, bool focusIsNotWindow) {
    std::lock_guard lock(core_->mutex);
    if (auto* a = core_->app(pid)) {
        a->focusedWindow = index;
        a->focusIsNotWindow = focusIsNotWindow;
        core_->changedLocked();
    }
}

void SimulatedDesktop::setEnhancedUserInterface(std::int32_t pid, std::optional<bool> value) {
    std::lock_guard lock(core_->mutex);
    if (auto* a = core_->app(pid)) a->enhancedUserInterface = value;
}

void SimulatedDesktop::setHang(std::int32_t pid, double seconds) {
    std::lock_guard lock(core_->mutex);
    if (auto* a = core_->app(pid)) a->hangSeconds = seconds;
}

void SimulatedDesktop::addWindowListEntry(WindowListEntry entry) {
    std::lock_guard lock(core_->mutex);
    core_->extraWindows.push_back(std::move(entry));
}

void SimulatedDesktop::failOpening(const std::string& url, std::string reason) {
    std::lock_guard lock(core_->mutex);
    core_->failingOpens.emplace_back(url, std::move(reason));
}

void SimulatedDesktop::setWaiter(std::function<void(double)> waiter) {
    std::lock_guard lock(core_->mutex);
    core_->waiter = std::move(waiter);
}

std::optional<SimulatedDesktop::Application> SimulatedDesktop::applicationInfo(std::int32_t pid) const {
    std::lock_guard lock(core_->mutex);
    auto* a = core_->app(pid);
    if (!a) return std::nullopt;
    return *a;
}

std::optional<Rect> SimulatedDesktop::windowFrame(std::uint64_t windowID) const {
    std::lock_guard lock(core_->mutex);
    auto* w = core_->window(windowID);
    if (!w) return std::nullopt;
    return w->frame;
}

std::optional<Rect> SimulatedDesktop::frontmostWindowFrame() const {
    std::lock_guard lock(core_->mutex);
    if (!core_->frontmost) return std::nullopt;
    auto* a = core_->app(*core_->frontmost);
    if (!a || !a->focusedWindow || *a->focusedWindow >= a->windows.size()) return std::nullopt;
    return a->windows[*a->focusedWindow].frame;
}

bool SimulatedDesktop::moveFrontmostWindow(double dx, double dy) {
    std::lock_guard lock(core_->mutex);
    if (!core_->frontmost) return false;
    auto* a = core_->app(*core_->frontmost);
    if (!a || !a->focusedWindow || *a->focusedWindow >= a->windows.size()) return false;
    auto& frame = a->windows[*a->focusedWindow].frame;
    frame.origin = {frame.origin.x + dx, frame.origin.y + dy};
    core_->changedLocked();
    return true;
}

std::vector<std::string> SimulatedDesktop::accessibilityWrites() const {
    std::lock_guard lock(core_->mutex);
    return core_->writes;
}

std::size_t SimulatedDesktop::accessibilityWriteCount() const {
    std::lock_guard lock(core_->mutex);
    return core_->writeCount;
}

void SimulatedDesktop::setRecordsWrites(bool records) {
    std::lock_guard lock(core_->mutex);
    core_->recordsWrites = records;
}

double SimulatedDesktop::waitedSeconds() const {
    std::lock_guard lock(core_->mutex);
    return core_->waited;
}

std::vector<double> SimulatedDesktop::messagingTimeouts() const {
    std::lock_guard lock(core_->mutex);
    return core_->timeouts;
}

std::vector<std::string> SimulatedDesktop::openedURLs() const {
    std::lock_guard lock(core_->mutex);
    return core_->opened;
}

std::vector<std::string> SimulatedDesktop::revealedPaths() const {
    std::lock_guard lock(core_->mutex);
    return core_->revealed;
}

std::vector<std::string> SimulatedDesktop::launchedBundleIDs() const {
    std::lock_guard lock(core_->mutex);
    return core_->launched;
}

std::vector<std::string> SimulatedDesktop::activatedBundleIDs() const {
    std::lock_guard lock(core_->mutex);
    return core_->activated;
}

std::vector<std::string> SimulatedDesktop::terminatedBundleIDs() const {
    std::lock_guard lock(core_->mutex);
    return core_->terminated;
}

void SimulatedDesktop::clearRecords() {
    std::lock_guard lock(core_->mutex);
    core_->writes.clear();
    core_->timeouts.clear();
    core_->waited = 0;
    core_->opened.clear();
    core_->revealed.clear();
    core_->launched.clear();
    core_->activated.clear();
    core_->terminated.clear();
}

// ---- Permissions ----

SimulatedPermission SimulatedDesktop::accessibilityPermission() const {
    std::lock_guard lock(core_->mutex);
    return core_->accessibility;
}

SimulatedPermission SimulatedDesktop::inputMonitoringPermission() const {
    std::lock_guard lock(core_->mutex);
    return core_->inputMonitoring;
}

void SimulatedDesktop::setAccessibilityPermission(SimulatedPermission state) {
    std::function<void()> onChange;
    {
        std::lock_guard lock(core_->mutex);
        if (core_->accessibility == state) return;
        core_->accessibility = state;
        core_->changedLocked();
        onChange = core_->onPermissionsChange;
    }
    if (onChange) onChange();
}

void SimulatedDesktop::setInputMonitoringPermission(SimulatedPermission state) {
    std::function<void()> onChange;
    {
        std::lock_guard lock(core_->mutex);
        if (core_->inputMonitoring == state) return;
        core_->inputMonitoring = state;
        core_->changedLocked();
        onChange = core_->onPermissionsChange;
    }
    if (onChange) onChange();
}

bool SimulatedDesktop::isAccessibilityTrusted() const {
    return accessibilityPermission() == SimulatedPermission::granted;
}

int SimulatedDesktop::listenAccess() const {
    switch (inputMonitoringPermission()) {
    case SimulatedPermission::granted: return 0;
    case SimulatedPermission::denied: return 1;
    case SimulatedPermission::notDetermined: return 2;
    }
    return 2;
}

void SimulatedDesktop::promptForAccessibility() {
    std::lock_guard lock(core_->mutex);
    ++core_->prompts;
}

bool SimulatedDesktop::requestListenAccess() {
    std::lock_guard lock(core_->mutex);
    ++core_->requests;
    return core_->inputMonitoring == SimulatedPermission::granted;
}

std::size_t SimulatedDesktop::accessibilityPrompts() const {
    std::lock_guard lock(core_->mutex);
    return core_->prompts;
}

std::size_t SimulatedDesktop::listenAccessRequests() const {
    std::lock_guard lock(core_->mutex);
    return core_->requests;
}

void SimulatedDesktop::setOnPermissionsChange(std::function<void()> onChange) {
    std::lock_guard lock(core_->mutex);
    core_->onPermissionsChange = std::move(onChange);
}

void SimulatedDesktop::setOnActivate(std::function<void(const RunningApplication&)> onActivate) {
    std::lock_guard lock(core_->mutex);
    core_->onActivate = std::move(onActivate);
}

} // namespace tavrick

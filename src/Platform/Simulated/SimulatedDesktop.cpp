#include "Platform/Simulated/SimulatedDesktop.h"

#include "ActionKit/FileURL.h"
#include "ActionKit/WindowLayout.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

namespace tavrick {

using nlohmann::json;

std::string_view rawValue(SimulatedPermission state) {
    switch (state) {
    case SimulatedPermission::granted: return "granted";
    case SimulatedPermission::denied: return "denied";
    case SimulatedPermission::notDetermined: return "notDetermined";
    }
    return "notDetermined";
}

std::optional<SimulatedPermission> simulatedPermissionFromRaw(std::string_view raw) {
    for (auto state : {SimulatedPermission::granted, SimulatedPermission::denied, SimulatedPermission::notDetermined}) {
        if (rawValue(state) == raw) return state;
    }
    return std::nullopt;
}

struct SimulatedDesktop::Core : std::enable_shared_from_this<SimulatedDesktop::Core> {
    mutable std::mutex mutex;
    std::vector<ScreenInfo> screens;
    std::vector<Application> applications;  // oldest first
    std::optional<std::int32_t> frontmost;
    std::vector<Installed> installed;
    std::vector<WindowListEntry> extraWindows;
    std::vector<std::pair<std::string, std::string>> failingOpens;
    std::int32_t nextPid = 9001;
    std::uint64_t nextWindowID = 1;

    std::function<void(double)> waiter = [](double seconds) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    };
    double waited = 0;
    std::vector<double> timeouts;
    std::vector<std::string> writes;
    std::size_t writeCount = 0;
    bool recordsWrites = true;
    // The value is spelled only when it is kept.
    template <class Spell>
    void recordWrite(std::int32_t pid, const char* attribute, Spell spell) {
        ++writeCount;
        if (recordsWrites) writes.push_back(std::to_string(pid) + " " + attribute + " " + spell());
    }
    std::vector<std::string> opened, revealed, launched, activated, terminated;

    SimulatedPermission accessibility = SimulatedPermission::granted;
    SimulatedPermission inputMonitoring = SimulatedPermission::granted;
    std::size_t prompts = 0;
    std::size_t requests = 0;
    std::function<void()> onPermissionsChange;
    std::function<void(const RunningApplication&)> onActivate;

    // The frontmost application and whom to tell, read under the lock and told outside it.
    std::pair<std::optional<RunningApplication>, std::function<void(const RunningApplication&)>> activationLocked() {
        Application* a = frontmost ? app(*frontmost) : nullptr;
        if (!a) return {std::nullopt, nullptr};
        return {running(*a), onActivate};
    }

    std::filesystem::path stateFile;
    std::shared_ptr<SerialQueue> stateQueue;
    std::atomic<bool> writePending{false};

    Application* app(std::int32_t pid) {
        for (auto& a : applications) {
            if (a.pid == pid) return &a;
        }
        return nullptr;
    }
    Window* window(std::uint64_t id, Application** owner = nullptr) {
        for (auto& a : applications) {
            for (auto& w : a.windows) {
                if (w.id == id) {
                    if (owner) *owner = &a;
                    return &w;
                }
            }
        }
        return nullptr;
    }
    double primaryHeight() const { return screens.empty() ? 0 : screens.front().frame.size.height; }
    std::int32_t takePid(std::int32_t ownPid = 0) {
        while (app(nextPid) || nextPid == ownPid) ++nextPid;
        return nextPid++;
    }
    static RunningApplication running(const Application& a) {
        return RunningApplication{a.pid, a.bundleID.empty() ? std::nullopt : std::optional<std::string>(a.bundleID),
                                  a.name.empty() ? std::nullopt : std::optional<std::string>(a.name)};
    }
    Application& launch(const Installed& entry) {
        Application a;
        a.pid = takePid();
        a.bundleID = entry.bundleID;
        a.name = entry.name;
        if (entry.firstWindow) {
            a.windows.push_back(Window{nextWindowID++, entry.name, *entry.firstWindow, {}});
            a.focusedWindow = 0;
        }
        applications.push_back(std::move(a));
        frontmost = applications.back().pid;
        launched.push_back(entry.bundleID);
        return applications.back();
    }
    // Moves a window inside the visible frame of the screen it mostly covers.
    void clamp(Window& w) {
        if (screens.empty()) return;
        std::vector<Rect> visible;
        for (auto& s : screens) visible.push_back(s.visibleFrame);
        const double height = primaryHeight();
        Rect cocoa = WindowLayout::cocoaFrame(w.frame, height);
        const Rect& v = visible[WindowLayout::screen(cocoa, visible).value_or(0)];
        cocoa.size.width = std::min(cocoa.size.width, v.size.width);
        cocoa.size.height = std::min(cocoa.size.height, v.size.height);
        cocoa.origin.x = std::clamp(cocoa.origin.x, v.minX(), v.maxX() - cocoa.size.width);
        cocoa.origin.y = std::clamp(cocoa.origin.y, v.minY(), v.maxY() - cocoa.size.height);
        w.frame = WindowLayout::accessibilityFrame(cocoa, height);
    }

    json stateLocked() const;
    void changedLocked();
};

namespace {

using Core = SimulatedDesktop::Core;

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

// Integral values are written without a fraction.
json jsonNumber(double value) {
    if (std::isfinite(value) && value == std::floor(value) && std::fabs(value) < 9e15) {
        return static_cast<std::int64_t>(value);
    }
    return value;
}

json jsonRect(const Rect& r) {
    return {{"x", jsonNumber(r.minX())},
            {"y", jsonNumber(r.minY())},
            {"width", jsonNumber(r.size.width)},
            {"height", jsonNumber(r.size.height)}};
}

void writeState(const std::shared_ptr<Core>& core) {
    std::string text;
    std::filesystem::path path;
    {
        std::lock_guard lock(core->mutex);
        core->writePending = false;
        text = core->stateLocked().dump(2) + "\n";
        path = core->stateFile;
    }
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    if (auto failure = FileIO::writeAtomically(path, text)) {
        Log::core.error("Could not %s %s: %s", failure->step.c_str(), path.c_str(), std::strerror(failure->error));
    }
}

// Answers for one accessibility call: waits as long as the application takes, up to the time-out,
// and tells whether the call got through.
bool passTime(const std::shared_ptr<Core>& core, std::int32_t pid, double timeout) {
    double hang = 0;
    std::function<void(double)> waiter;
    {
        std::lock_guard lock(core->mutex);
        auto* a = core->app(pid);
        if (!a) return false;
        hang = a->hangSeconds;
        waiter = core->waiter;
    }
    if (hang <= 0) return true;
    const double waited = std::min(hang, timeout);
    if (waiter) waiter(waited);
    std::lock_guard lock(core->mutex);
    core->waited += waited;
    return hang <= timeout && core->app(pid) != nullptr;
}

class SimWindowElement final : public AccessibilityWindow {
public:
    SimWindowElement(std::shared_ptr<Core> core, std::int32_t pid, std::uint64_t id, std::shared_ptr<double> timeout)
        : core_(std::move(core)), pid_(pid), id_(id), timeout_(std::move(timeout)) {}

    std::optional<Point> position() override {
        if (!passTime(core_, pid_, *timeout_)) return std::nullopt;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w || w->behaviour.readFails) return std::nullopt;
        return w->frame.origin;
    }
    std::optional<Size> size() override {
        if (!passTime(core_, pid_, *timeout_)) return std::nullopt;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w || w->behaviour.readFails) return std::nullopt;
        return w->frame.size;
    }
    bool setPosition(Point position) override {
        if (!passTime(core_, pid_, *timeout_)) return false;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w) return false;
        core_->recordWrite(pid_, "position", [&] { return number(position.x) + " " + number(position.y); });
        if (w->behaviour.refusesPosition) return false;
        w->frame.origin = position;
        if (w->behaviour.clampsToScreen) core_->clamp(*w);
        core_->changedLocked();
        return true;
    }
    bool setSize(Size size) override {
        if (!passTime(core_, pid_, *timeout_)) return false;
        std::lock_guard lock(core_->mutex);
        auto* w = core_->window(id_);
        if (!w) return false;
        core_->recordWrite(pid_, "size", [&] { return number(size.width) + " " + number(size.height); });
        if (w->behaviour.refusesSize) return false;
        w->frame.size = size;
        if (w->behaviour.clampsToScreen) core_->clamp(*w);
        core_->changedLocked();
        return true;
    }

private:
    std::shared_ptr<Core> core_;
    std::int32_t pid_;
    std::uint64_t id_;
    std::shared_ptr<double> timeout_;
};

class SimApplicationElement final : public AccessibilityApplication {
public:
    SimApplicationElement(std::shared_ptr<Core> core, std::int32_t pid) : core_(std::move(core)), pid_(pid) {}

    void setMessagingTimeout(double seconds) override {
        *timeout_ = seconds;
        std::lock_guard lock(core_->mutex);
        core_->timeouts.push_back(seconds);
    }
    std::unique_ptr<AccessibilityWindow> focusedWindow() override {
        if (!passTime(core_, pid_, *timeout_)) return nullptr;
        std::lock_guard lock(core_->mutex);
        auto* a = core_->app(pid_);
        if (!a || a->focusIsNotWindow || !a->focusedWindow || *a->focusedWindow >= a->windows.size()) return nullptr;
        return std::make_unique<SimWindowElement>(core_, pid_, a->windows[*a->focusedWindow].id, timeout_);
    }
    std::optional<bool> enhancedUserInterface() override {
        if (!passTime(core_, pid_, *timeout_)) return std::nullopt;
        std::lock_guard lock(core_->mutex);
        auto* a = core_->app(pid_);
        return a ? a->enhancedUserInterface : std::nullopt;
    }
    bool setEnhancedUserInterface(bool on) override {
        if (!passTime(core_, pid_, *timeout_)) return false;
        std::lock_guard lock(core_->mutex);
        auto* a = core_->app(pid_);
        if (!a) return false;
        core_->recordWrite(pid_, "enhancedUserInterface", [&] { return std::string(on ? "true" : "false"); });
        a->enhancedUserInterface = on;
        return true;
    }

private:
    std::shared_ptr<Core> core_;
    std::int32_t pid_;
    std::shared_ptr<double> timeout_ = std::make_shared<double>(SimulatedDesktop::defaultMessagingTimeout);
};

} // namespace

json Core::stateLocked() const {
    json apps = json::array();
    const double height = primaryHeight();
    for (const auto& a : applications) {
        json windows = json::array();
        for (std::size_t i = 0; i < a.windows.size(); ++i) {
            const auto& w = a.windows[i];
            windows.push_back({{"title", w.title},
                               {"frame", jsonRect(WindowLayout::cocoaFrame(w.frame, height))},
                               {"focused", a.focusedWindow == i}});
        }
        apps.push_back({{"bundleIdentifier", a.bundleID},
                        {"name", a.name},
                        {"pid", a.pid},
                        {"frontmost", frontmost == a.pid},
                        {"windows", windows}});
    }
    json screenList = json::array();
    for (const auto& s : screens) {
        screenList.push_back({{"frame", jsonRect(s.frame)}, {"visibleFrame", jsonRect(s.visibleFrame)}});
    }
    json front = nullptr;
    for (const auto& a : applications) {
        if (frontmost == a.pid) front = a.bundleID;
    }
    return {{"coordinates", "origin at the bottom-left of the first screen, y upward"},
            {"screens", screenList},
            {"applications", apps},
            {"frontmost", front},
            {"permissions", {{"accessibility", rawValue(accessibility)}, {"inputMonitoring", rawValue(inputMonitoring)}}},
            {"workspace",
             {{"opened", opened}, {"revealed", revealed}, {"launched", launched}, {"activated", activated},
              {"terminated", terminated}}}};
}

void Core::changedLocked() {
    if (!stateQueue || writePending.exchange(true)) return;
    // The queue holds the core weakly: a desktop going away drops a write it no longer needs.
    stateQueue->async([weak = weak_from_this()] {
        if (auto core = weak.lock()) writeState(core);
    });
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

std::unique_ptr<AccessibilityApplication> SimulatedDesktop::application(std::int32_t pid) {
    return std::make_unique<SimApplicationElement>(core_, pid);
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

// ---- The state file ----

void SimulatedDesktop::writeStateTo(std::filesystem::path path, Scheduler& scheduler) {
    auto queue = scheduler.makeSerialQueue("com.orvell.tavrick.session-state", QoS::utility);
    std::lock_guard lock(core_->mutex);
    core_->stateFile = std::move(path);
    core_->stateQueue = std::move(queue);
    core_->writePending = false;
    core_->changedLocked();
}

std::string SimulatedDesktop::stateJSON() const {
    std::lock_guard lock(core_->mutex);
    return core_->stateLocked().dump(2) + "\n";
}

void SimulatedDesktop::flushState() {
    std::shared_ptr<SerialQueue> queue;
    {
        std::lock_guard lock(core_->mutex);
        queue = core_->stateQueue;
    }
    if (queue && !queue->isCurrent()) queue->sync([] {});
}

} // namespace tavrick

#pragma once

// The simulated desktop's shared state, for the files that implement it; not for other code.

#include "ActionKit/WindowLayout.h"
#include "Platform/Simulated/SimulatedDesktop.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace tavrick {

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
    std::vector<std::pair<std::string, std::function<nlohmann::json()>>> stateSections;

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

    nlohmann::json stateLocked() const;
    void changedLocked();
};

} // namespace tavrick

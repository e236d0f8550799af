#include "Tavrick/AppDelegate.h"

#include <algorithm>

namespace tavrick {

const std::set<std::string>& AppDelegate::dockWorthyIdentifiers() {
    static const std::set<std::string> identifiers{WindowIdentifier::settings, WindowIdentifier::welcome,
                                                   WindowIdentifier::notepad, WindowIdentifier::vault};
    return identifiers;
}

std::function<void()>& AppDelegate::reopenAction() {
    static std::function<void()> action;
    return action;
}

AppDelegate::~AppDelegate() { *alive_ = false; }

void AppDelegate::applicationDidFinishLaunching(Scheduler& scheduler, ActivationPolicyPort& policy,
                                                std::function<std::vector<AppWindow>()> visibleWindows) {
    scheduler_ = &scheduler;
    policy_ = &policy;
    visibleWindows_ = std::move(visibleWindows);
}

void AppDelegate::windowDidBecomeKey() { scheduleUpdate(); }
void AppDelegate::windowWillClose() { scheduleUpdate(); }

void AppDelegate::scheduleUpdate() {
    if (!scheduler_) return;
    std::weak_ptr<bool> alive = alive_;
    scheduler_->async([this, alive] {
        if (alive.lock()) updateActivationPolicy();
    });
}

void AppDelegate::updateActivationPolicy() {
    if (!policy_) return;
    const auto windows = visibleWindows_ ? visibleWindows_() : std::vector<AppWindow>{};
    const auto& worthy = dockWorthyIdentifiers();
    const bool anyWorthy = std::any_of(windows.begin(), windows.end(),
                                       [&worthy](const AppWindow& w) { return worthy.count(w.identifier) > 0; });
    if (anyWorthy) {
        if (policy_->activationPolicy() != ActivationPolicy::regular) {
            policy_->setActivationPolicy(ActivationPolicy::regular);
            policy_->activate();
            log_.note("window", "a window is open — showing in the Dock");
        }
        return;
    }
    if (policy_->activationPolicy() != ActivationPolicy::regular) return;
    if (!windows.empty()) {
        std::string names;
        for (const auto& w : windows) names += (names.empty() ? "" : ", ") + (w.identifier.empty() ? w.title : w.identifier);
        log_.note("window", "no dock-worthy window among: " + names);
    }
    policy_->setActivationPolicy(ActivationPolicy::accessory);
    log_.note("window", "no windows left — back to the menu bar only");
}

void TerminalActivationPolicy::setActivationPolicy(ActivationPolicy policy) {
    if (policy == policy_) return;
    policy_ = policy;
    log_.note("window", policy == ActivationPolicy::regular
                            ? "activation policy regular — there is no Dock here, so this is only noted"
                            : "activation policy accessory — the menu alone");
}

std::vector<AppWindow> terminalWindows(const std::vector<std::string>& path, const std::string& cursor) {
    std::vector<AppWindow> out;
    if (!path.empty() && path.front() == "settings") out.push_back({WindowIdentifier::settings, "Settings"});
    const bool inVault = (!path.empty() && path.front().rfind("vault.", 0) == 0) ||
                         (path.empty() && cursor.rfind("vault.", 0) == 0);
    if (inVault) out.push_back({WindowIdentifier::vault, "Vault"});
    return out;
}

bool AppDelegate::applicationShouldHandleReopen(bool hasVisibleWindows) {
    if (!hasVisibleWindows && reopenAction()) reopenAction()();
    return true;
}

bool AppDelegate::applicationShouldTerminateAfterLastWindowClosed() {
    if (!hasLoggedTerminationPolicy_) {
        hasLoggedTerminationPolicy_ = true;
        log_.note("shutdown", "asked whether to terminate after the last window closed — refusing (logged once)");
    }
    return false;
}

AppDelegate::TerminateReply AppDelegate::applicationShouldTerminate() {
    log_.note("shutdown", "termination requested");
    log_.flush();
    return TerminateReply::now;
}

void AppDelegate::applicationWillTerminate() {
    log_.note("shutdown", "terminating cleanly");
    log_.endSession();
}

void AppWindows::show(const std::string& identifier, const std::string& title) {
    auto at = std::find_if(windows_.begin(), windows_.end(), [&](const AppWindow& w) { return w.identifier == identifier; });
    if (at == windows_.end()) windows_.push_back({identifier, title});
    delegate_.windowDidBecomeKey();
}

void AppWindows::close(const std::string& identifier) {
    auto at = std::find_if(windows_.begin(), windows_.end(), [&](const AppWindow& w) { return w.identifier == identifier; });
    if (at == windows_.end()) return;
    // Told before the window goes, as the desktop would; the look it schedules comes after.
    delegate_.windowWillClose();
    windows_.erase(at);
    if (windows_.empty()) delegate_.applicationShouldTerminateAfterLastWindowClosed();
}

void AppWindows::sync(const std::vector<AppWindow>& wanted) {
    std::vector<std::string> gone;
    for (const auto& w : windows_) {
        const bool kept = std::any_of(wanted.begin(), wanted.end(), [&](const AppWindow& x) { return x.identifier == w.identifier; });
        if (!kept) gone.push_back(w.identifier);
    }
    for (const auto& identifier : gone) close(identifier);
    for (const auto& w : wanted) {
        if (!isOpen(w.identifier)) show(w.identifier, w.title);
    }
}

bool AppWindows::isOpen(const std::string& identifier) const {
    return std::any_of(windows_.begin(), windows_.end(), [&](const AppWindow& w) { return w.identifier == identifier; });
}

} // namespace tavrick

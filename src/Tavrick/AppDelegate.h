#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace tavrick {

// Whether the program shows as an application of its own (with a launcher icon) or lives in the
// menu bar only. A desktop without such a distinction keeps the choice and says it in the log.
enum class ActivationPolicy { regular, accessory };

class ActivationPolicyPort {
public:
    virtual ~ActivationPolicyPort() = default;
    virtual ActivationPolicy activationPolicy() const = 0;
    virtual void setActivationPolicy(ActivationPolicy policy) = 0;
    // Brings the program to the front.
    virtual void activate() = 0;
};

// The terminal's stand-in: there is no launcher icon to show or hide, so the choice is kept and
// noted in the diagnostic log, and coming to the front is the terminal's own business.
class TerminalActivationPolicy final : public ActivationPolicyPort {
public:
    explicit TerminalActivationPolicy(DiagnosticLog& log) : log_(log) {}
    ActivationPolicy activationPolicy() const override { return policy_; }
    void setActivationPolicy(ActivationPolicy policy) override;
    void activate() override {}

private:
    DiagnosticLog& log_;
    ActivationPolicy policy_ = ActivationPolicy::accessory;
};

// A window the program shows: its identifier when it has one, and its title.
struct AppWindow {
    std::string identifier;
    std::string title;
    friend bool operator==(const AppWindow&, const AppWindow&) = default;
};

// The application's side of the platform's lifecycle: what happens when the system asks the
// program to terminate, and when it is about to, and whether a window makes it a full
// application for a while.
class AppDelegate {
public:
    enum class TerminateReply { now, cancel, later };

    // The windows that bring the program out of the menu bar while one of them is visible.
    static const std::set<std::string>& dockWorthyIdentifiers();
    // What reopening the program does when it has no window (set by whoever can show one).
    static std::function<void()>& reopenAction();

    explicit AppDelegate(DiagnosticLog& log) : log_(log) {}
    ~AppDelegate();
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    // From here on, each window that becomes key or is about to close has the policy looked at
    // again, later on the main queue, once the window list has settled.
    void applicationDidFinishLaunching(Scheduler& scheduler, ActivationPolicyPort& policy,
                                       std::function<std::vector<AppWindow>()> visibleWindows);
    void windowDidBecomeKey();
    void windowWillClose();
    // Regular while a dock-worthy window is visible; back to the menu bar only otherwise.
    void updateActivationPolicy();

    // Reopening with no window visible runs the reopen action. Always handled.
    bool applicationShouldHandleReopen(bool hasVisibleWindows);
    // The program outlives its windows; the question is noted once per run.
    bool applicationShouldTerminateAfterLastWindowClosed();

    // The termination request is logged and on disk before anything else happens.
    TerminateReply applicationShouldTerminate();
    // The last word of a clean run: the running marker goes, so the next launch knows.
    void applicationWillTerminate();

private:
    void scheduleUpdate();

    DiagnosticLog& log_;
    bool hasLoggedTerminationPolicy_ = false;
    Scheduler* scheduler_ = nullptr;
    ActivationPolicyPort* policy_ = nullptr;
    std::function<std::vector<AppWindow>()> visibleWindows_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// The windows a face has open, in the order they appeared. Showing or closing one tells the
// delegate first; a closed window is gone before the delegate's deferred look. Main queue.
class AppWindows {
public:
    explicit AppWindows(AppDelegate& delegate) : delegate_(delegate) {}

    // Shows the window (again) and makes it key.
    void show(const std::string& identifier, const std::string& title);
    // Nothing happens for a window that is not open.
    void close(const std::string& identifier);
    bool isOpen(const std::string& identifier) const;
    const std::vector<AppWindow>& visible() const { return windows_; }
    // Makes `wanted` the open windows: those gone are closed first, then new ones are shown.
    void sync(const std::vector<AppWindow>& wanted);

private:
    AppDelegate& delegate_;
    std::vector<AppWindow> windows_;
};

// The program's own windows by identifier.
namespace WindowIdentifier {
inline constexpr const char* settings = "com_apple_SwiftUI_Settings_window";
inline constexpr const char* welcome = "tavrick-welcome";
inline constexpr const char* notepad = "tavrick-notepad";
inline constexpr const char* vault = "tavrick-vault";
} // namespace WindowIdentifier

// The windows the terminal menu stands for, from where the user is in it: the Settings submenu is
// the settings window, the vault's lines are the vault window.
std::vector<AppWindow> terminalWindows(const std::vector<std::string>& path, const std::string& cursor);

} // namespace tavrick

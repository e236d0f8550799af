#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "TweakKit/Tweaks.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The applications a tweak restarts: which processes carry an identifier, asking one to quit,
// making it quit, and opening an application again.
struct TweakApplications {
    std::function<std::vector<std::int32_t>(const std::string& bundleIdentifier)> running;
    std::function<bool(std::int32_t processIdentifier)> terminate;
    std::function<bool(std::int32_t processIdentifier)> forceTerminate;
    // The completion gets the failure's description, or nothing; it may run on any thread.
    std::function<void(const std::string& applicationURL, std::function<void(std::optional<std::string>)> completion)>
        open;
};

// Turns tweaks on and off and restarts what must re-read them. Never stores a tweak's state:
// every answer is read from the preference itself. Main queue; the waits are timers, so nothing
// blocks it.
class TweakController : public std::enable_shared_from_this<TweakController> {
public:
    // Half-second steps: after the polite quit, before the forced one's end is given up on, and
    // while waiting for a target to come back.
    static constexpr double step = 0.5;
    static constexpr int quitSteps = 4;
    static constexpr int launchSteps = 10;

    static std::shared_ptr<TweakController> make(PreferenceDomains domains, TweakApplications applications,
                                                 Scheduler& scheduler, DiagnosticLog& log);

    bool isOn(const Tweak& tweak) const { return Tweaks::isOn(tweak, domains_); }
    // Writes the on values, or removes the keys so the system's own defaults return; restarts the
    // tweak's target; gives whether the preference now reads as asked.
    void set(const Tweak& tweak, bool on, std::function<void(bool)> completion);
    void toggle(const Tweak& tweak, std::function<void(bool)> completion);
    // Sets each tweak on and restarts each target once; gives how many took effect.
    void applyAll(const std::vector<Tweak>& tweaks, std::function<void(int)> completion);
    // Quit, then launch; gives whether the target runs afterwards.
    void restart(RestartTarget target, std::function<void(bool)> completion);
    bool isRunning(RestartTarget target) const;

private:
    TweakController(PreferenceDomains domains, TweakApplications applications, Scheduler& scheduler, DiagnosticLog& log);
    bool write(const Tweak& tweak, bool on);
    void quit(RestartTarget target, std::function<void()> then);
    void launch(RestartTarget target, std::function<void(bool)> completion);
    void waitUntil(std::function<bool()> condition, int steps, std::function<void(bool)> then);
    void restartEach(std::vector<RestartTarget> targets, std::function<void()> then);

    PreferenceDomains domains_;
    TweakApplications applications_;
    Scheduler& scheduler_;
    DiagnosticLog& log_;
};

} // namespace tavrick

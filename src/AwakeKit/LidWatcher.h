#pragma once

#include "AwakeKit/LidConditions.h"
#include "AwakeKit/LidJournal.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "CoreKit/WorkspaceNotifications.h"

#include <functional>
#include <optional>

namespace tavrick {

// Watches the lid and the machine's sleep, and writes down what happened after the lid closed:
// asleep within `settle` seconds, or still running after them. Main queue only.
//
// A sleep is heard as the workspace's will-sleep where the host announces one, and otherwise
// found afterwards: the monotonic clock stops while the machine sleeps and the wall clock does
// not, so a poll that sees them drift apart knows the machine slept since the poll before.
class LidWatcher {
public:
    static constexpr double pollInterval = 5.0;
    static constexpr double pollTolerance = 2.0;
    static constexpr double defaultSettle = 20.0;
    // A drift shorter than this between the clocks is scheduling noise, not a sleep.
    static constexpr double minimumSleepSeconds = 2.0;

    LidWatcher(LidJournal& journal, LidSensors sensors, Scheduler& scheduler, WorkspaceNotifications& workspace);
    ~LidWatcher();
    LidWatcher(const LidWatcher&) = delete;
    LidWatcher& operator=(const LidWatcher&) = delete;

    void start();
    void stop();
    bool isRunning() const { return static_cast<bool>(timer_); }

    // One look at the lid, as the timer takes it.
    void poll();
    // The machine is about to sleep.
    void systemIsGoingToSleep();

    double settle = defaultSettle;
    // After each new observation.
    std::function<void()> onChange;

private:
    struct Pending {
        PowerSource source;
        double closedAt;
    };
    void sleptAt(double when);

    LidJournal& journal_;
    LidSensors sensors_;
    Scheduler& scheduler_;
    WorkspaceNotifications& workspace_;
    Cancellable timer_;
    bool wasClosed_ = false;
    std::optional<Pending> pending_;
    Observation sleepObserver_;
    Observation wakeObserver_;
    // The clocks at the last poll, to find a sleep between two polls.
    std::optional<std::pair<double, double>> lastPoll_;
};

} // namespace tavrick

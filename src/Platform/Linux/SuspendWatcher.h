#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/WorkspaceNotifications.h"

#include <functional>

namespace tavrick {

// Tells when the machine woke from sleep. Linux's monotonic clock stops while the machine is
// suspended and its boot-time clock does not, so a jump in the gap between them is a suspend
// that has just ended. Checked every few seconds on the main queue; costs two clock reads.
class SuspendWatcher {
public:
    struct Clocks {
        std::function<double()> monotonic;
        std::function<double()> boottime;
    };
    static Clocks systemClocks();

    // A jump of at least this much counts as a sleep; shorter gaps are scheduling noise.
    static constexpr double minimumSleepSeconds = 2.0;
    static constexpr double checkInterval = 5.0;

    SuspendWatcher(WorkspaceNotifications& notifications, Scheduler& scheduler, Clocks clocks = systemClocks());
    ~SuspendWatcher();
    SuspendWatcher(const SuspendWatcher&) = delete;
    SuspendWatcher& operator=(const SuspendWatcher&) = delete;

    // Compares the clocks now; posts didWake when the machine slept since the last check.
    void check();

private:
    WorkspaceNotifications& notifications_;
    Clocks clocks_;
    double lastGap_;
    Cancellable timer_;
};

} // namespace tavrick

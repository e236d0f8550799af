#include "Platform/Linux/SuspendWatcher.h"

#include "CoreKit/Log.h"

#include <ctime>

namespace tavrick {

namespace {
double read(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
} // namespace

SuspendWatcher::Clocks SuspendWatcher::systemClocks() {
    return Clocks{[] { return read(CLOCK_MONOTONIC); }, [] { return read(CLOCK_BOOTTIME); }};
}

SuspendWatcher::SuspendWatcher(WorkspaceNotifications& notifications, Scheduler& scheduler, Clocks clocks)
    : notifications_(notifications), clocks_(std::move(clocks)), lastGap_(clocks_.boottime() - clocks_.monotonic()) {
    timer_ = scheduler.every(checkInterval, [this] { check(); });
}

SuspendWatcher::~SuspendWatcher() {
    timer_.cancel();
}

void SuspendWatcher::check() {
    const double gap = clocks_.boottime() - clocks_.monotonic();
    const double slept = gap - lastGap_;
    lastGap_ = gap;
    if (slept < minimumSleepSeconds) return;
    Log::core.notice("Woke after %.0f seconds asleep", slept);
    notifications_.post({WorkspaceEvent::didWake, std::nullopt});
}

} // namespace tavrick

#include "AwakeKit/LidWatcher.h"

#include "CoreKit/Log.h"

namespace tavrick {

LidWatcher::LidWatcher(LidJournal& journal, LidSensors sensors, Scheduler& scheduler, WorkspaceNotifications& workspace)
    : journal_(journal), sensors_(std::move(sensors)), scheduler_(scheduler), workspace_(workspace) {}

LidWatcher::~LidWatcher() {
    stop();
}

void LidWatcher::start() {
    if (timer_) return;
    // The timer's tolerance is the host's to use; the poll does not depend on exact spacing.
    timer_ = scheduler_.every(pollInterval, [this] { poll(); });
    sleepObserver_ = workspace_.observe(WorkspaceEvent::willSleep, [this](const auto&) { systemIsGoingToSleep(); });
    // Waking is the first moment a sleep that was not announced can be seen.
    wakeObserver_ = workspace_.observe(WorkspaceEvent::didWake, [this](const auto&) { poll(); });
}

void LidWatcher::stop() {
    timer_.cancel();
    timer_ = Cancellable();
    sleepObserver_.cancel();
    wakeObserver_.cancel();
    lastPoll_.reset();
}

void LidWatcher::poll() {
    const double now = scheduler_.clock().now();
    const double monotonic = scheduler_.clock().monotonic();
    if (lastPoll_) {
        const double drift = (now - lastPoll_->first) - (monotonic - lastPoll_->second);
        // The machine went to sleep after the last poll, with the lid as that poll saw it.
        if (drift >= minimumSleepSeconds && wasClosed_) sleptAt(lastPoll_->first);
    }
    lastPoll_ = {now, monotonic};

    const auto conditions = LidConditions::read(sensors_);
    if (conditions.isLidClosed && !wasClosed_) {
        pending_ = Pending{powerSource(conditions.isOnPowerAdapter), now};
    }
    if (pending_ && !conditions.isLidClosed) {
        // Opened again before the machine was seen either to sleep or to run on.
        pending_.reset();
    }
    if (pending_ && conditions.isLidClosed && now - pending_->closedAt >= settle) {
        const auto source = pending_->source;
        pending_.reset();
        journal_.record(LidOutcome::keptRunning, source, now);
        Log::lid.notice("Lid closed %s: kept running", std::string(rawValue(source)).c_str());
        if (onChange) onChange();
    }
    wasClosed_ = conditions.isLidClosed;
}

void LidWatcher::systemIsGoingToSleep() {
    if (!pending_) return;
    if (!LidConditions::read(sensors_).isLidClosed) return;
    sleptAt(scheduler_.clock().now());
}

void LidWatcher::sleptAt(double when) {
    // A sleep long after the closing is of no account: by then the machine had run on.
    if (!pending_ || when - pending_->closedAt > settle) return;
    const auto source = pending_->source;
    pending_.reset();
    journal_.record(LidOutcome::slept, source, scheduler_.clock().now());
    Log::lid.notice("Lid closed %s: slept", std::string(rawValue(source)).c_str());
    if (onChange) onChange();
}

} // namespace tavrick

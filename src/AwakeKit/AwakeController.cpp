#include "AwakeKit/AwakeController.h"

#include "CoreKit/Log.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tavrick {

AwakeController::AwakeController(PowerAssertions& assertions, ProcessWatcher& processes, Scheduler& scheduler,
                                 std::string displayName, LocalCalendar calendar)
    : assertions_(assertions),
      processes_(processes),
      scheduler_(scheduler),
      displayName_(std::move(displayName)),
      calendar_(std::move(calendar)) {}

AwakeController::~AwakeController() {
    stop();
}

void AwakeController::start(AwakeMode mode, AwakeSession session) {
    stop();
    std::optional<ProcessWatcher::Instance> instance;
    if (auto* app = std::get_if<AwakeSession::WhileAppRunning>(&session.value)) {
        instance = processes_.find(app->bundleID);
        if (!instance) {
            Log::awake.notice("Not activating: %s is not running", app->name.c_str());
            return;
        }
    }
    const std::string name = displayName_ + ": " + session.description(calendar_);
    int error = 0;
    auto id = assertions_.create(std::string(assertionType(mode)), name, error);
    if (!id) {
        Log::awake.error("IOPMAssertionCreateWithName failed: %d", error);
        return;
    }
    assertionID_ = *id;
    mode_.set(mode);
    session_.set(session);
    isActive_.set(true);
    Log::awake.notice("Awake assertion %u held: %s", assertionID_, name.c_str());

    if (auto* until = std::get_if<AwakeSession::Until>(&session.value)) {
        remaining_.set(until->date - scheduler_.clock().now());
        startTicking(until->date);
    } else if (instance) {
        observeTermination(*instance);
    }
}

void AwakeController::stop() {
    ++generation_;
    tickTimer_.cancel();
    tickTimer_ = Cancellable();
    terminationObserver_.reset();
    if (assertionID_ != 0) {
        assertions_.release(assertionID_);
        Log::awake.notice("Released awake assertion %u", assertionID_);
        assertionID_ = 0;
    }
    session_.set(std::nullopt);
    remaining_.set(std::nullopt);
    isActive_.set(false);
}

void AwakeController::toggle() {
    if (isActive_.get()) {
        stop();
    } else {
        start(mode_.get(), AwakeSession::indefinite());
    }
}

void AwakeController::startTicking(double until) {
    tickTimer_ = scheduler_.every(tickInterval, [this, until] { tick(until); });
}

void AwakeController::tick(double until) {
    // Read against the date, never counted, so a machine that slept comes out right.
    const double left = until - scheduler_.clock().now();
    if (left <= 0) {
        Log::awake.info("Timed awake session elapsed");
        stop();
    } else {
        remaining_.set(left);
    }
}

void AwakeController::observeTermination(const ProcessWatcher::Instance& instance) {
    std::weak_ptr<bool> alive = alive_;
    Scheduler* scheduler = &scheduler_;
    const auto generation = generation_;
    terminationObserver_ = processes_.watchExit(instance, [this, alive, scheduler, generation] {
        scheduler->async([this, alive, generation] {
            if (!alive.lock() || generation != generation_) return;
            Log::awake.notice("Watched app quit; ending awake session");
            stop();
        });
    });
}

std::optional<std::string> AwakeController::remainingDisplayString() const {
    if (!remaining_.get()) return std::nullopt;
    return format(*remaining_.get());
}

std::string AwakeController::format(double seconds) {
    const long long total = std::llround(std::max(0.0, seconds));
    char buffer[48];
    if (total >= 3600) {
        std::snprintf(buffer, sizeof buffer, "%lld:%02lld:%02lld", total / 3600, total / 60 % 60, total % 60);
    } else {
        std::snprintf(buffer, sizeof buffer, "%lld:%02lld", total / 60, total % 60);
    }
    return buffer;
}

} // namespace tavrick

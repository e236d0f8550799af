#include "PomodoroKit/PomodoroController.h"

#include "CoreKit/Log.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tavrick {

PomodoroController::PomodoroController(PomodoroConfig config, Scheduler& scheduler)
    : remaining_(config.duration(PomodoroPhase::focus)), config_(std::move(config)), scheduler_(scheduler) {}

PomodoroController::~PomodoroController() {
    timer_.cancel();
}

void PomodoroController::setConfig(PomodoroConfig config) {
    if (!config_.set(std::move(config))) return;
    if (!isRunning_.get() && !isIndefinite_.get()) remaining_.set(config_.get().duration(phase_.get()));
}

void PomodoroController::start() {
    if (isRunning_.get()) return;
    deadline_ = isIndefinite_.get() ? now() : now() + remaining_.get();
    isRunning_.set(true);
    timer_ = scheduler_.every(tickInterval, [this] { tick(); });
    Log::pomodoro.notice("Pomodoro started: %s", std::string(displayName(phase_.get())).c_str());
    if (onRunStateChanged) onRunStateChanged(phase_.get(), true);
}

void PomodoroController::tick() {
    if (!deadline_) return;
    if (isIndefinite_.get()) {
        elapsed_.set(std::max(0.0, now() - *deadline_));
        return;
    }
    const double left = *deadline_ - now();
    if (left > 0) {
        remaining_.set(left);
    } else {
        advance(true);
    }
}

void PomodoroController::pause() {
    if (!isRunning_.get()) return;
    if (!isIndefinite_.get()) {
        const double left = deadline_ ? *deadline_ - now() : remaining_.get();
        remaining_.set(std::max(0.0, left));
    }
    stopTimer();
    isRunning_.set(false);
    if (onRunStateChanged) onRunStateChanged(phase_.get(), false);
}

void PomodoroController::toggle() {
    if (isRunning_.get()) {
        pause();
    } else {
        start();
    }
}

void PomodoroController::skip() {
    advance(false);
}

void PomodoroController::advance(bool completed) {
    const auto finished = phase_.get();
    const auto transition = PomodoroCycle::next(finished, completedFocusSessions_.get(), config_.get());
    if (completed) completedFocusSessions_.set(transition.completedFocusSessions);
    phase_.set(transition.phase);
    remaining_.set(config_.get().duration(transition.phase));
    stopTimer();
    isRunning_.set(false);
    if (completed && onPhaseEnded) onPhaseEnded(finished, transition.phase);
    if (config_.get().autoAdvance && completed) start();
}

void PomodoroController::startFocus(int minutes) {
    stopTimer();
    isIndefinite_.set(false);
    elapsed_.set(0);
    auto config = config_.get();
    config.focusMinutes = minutes;
    config_.set(config);
    phase_.set(PomodoroPhase::focus);
    remaining_.set(config_.get().duration(PomodoroPhase::focus));
    isRunning_.set(false);
    start();
}

void PomodoroController::startIndefiniteFocus() {
    stopTimer();
    isRunning_.set(false);
    isIndefinite_.set(true);
    phase_.set(PomodoroPhase::focus);
    elapsed_.set(0);
    start();
}

void PomodoroController::stop() {
    const bool wasRunning = isRunning_.get();
    stopTimer();
    isRunning_.set(false);
    isIndefinite_.set(false);
    elapsed_.set(0);
    phase_.set(PomodoroPhase::focus);
    remaining_.set(config_.get().duration(PomodoroPhase::focus));
    if (wasRunning && onRunStateChanged) onRunStateChanged(phase_.get(), false);
}

void PomodoroController::reset() {
    stop();
    completedFocusSessions_.set(0);
}

void PomodoroController::stopTimer() {
    timer_.cancel();
    timer_ = Cancellable();
    deadline_.reset();
}

std::string PomodoroController::displayString() const {
    return format(isIndefinite_.get() ? elapsed_.get() : remaining_.get());
}

double PomodoroController::progress() const {
    const double duration = config_.get().duration(phase_.get());
    if (!(duration > 0)) return 0;
    return std::min(1.0, 1.0 - remaining_.get() / duration);
}

std::string PomodoroController::format(double seconds) {
    const long long total = std::llround(std::max(0.0, seconds));
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%lld:%02lld", total / 60, total % 60);
    return buffer;
}

} // namespace tavrick

#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "PomodoroKit/Pomodoro.h"

#include <functional>
#include <optional>
#include <string>

namespace tavrick {

// A focus and break timer on the main queue. It knows nothing of notifications or keep-awake:
// it reports through `onPhaseEnded` and `onRunStateChanged`, and the coordinator acts on them.
// Time is always read against a deadline, never counted, so a machine that slept comes back
// right: the phase ends at the first tick after waking.
class PomodoroController {
public:
    static constexpr double tickInterval = 0.5;

    PomodoroController(PomodoroConfig config, Scheduler& scheduler);
    ~PomodoroController();
    PomodoroController(const PomodoroController&) = delete;
    PomodoroController& operator=(const PomodoroController&) = delete;

    const Observable<PomodoroPhase>& phase() const { return phase_; }
    const Observable<bool>& isRunning() const { return isRunning_; }
    // Seconds left in the phase.
    const Observable<double>& remaining() const { return remaining_; }
    const Observable<int>& completedFocusSessions() const { return completedFocusSessions_; }
    const Observable<bool>& isIndefinite() const { return isIndefinite_; }
    // Seconds into an open-ended focus.
    const Observable<double>& elapsed() const { return elapsed_; }
    const Observable<PomodoroConfig>& config() const { return config_; }
    // While idle, the new lengths show at once.
    void setConfig(PomodoroConfig config);

    void start();
    void pause();
    void stop();
    void toggle();
    // Moves on without counting the phase or starting the next one.
    void skip();
    void reset();
    void startFocus(int minutes);
    void startIndefiniteFocus();

    // "12:05"
    std::string displayString() const;
    // 0 at the start of a phase, 1 at its end.
    double progress() const;
    // Minutes and seconds of rounded seconds: "%d:%02d".
    static std::string format(double seconds);

    std::function<void(PomodoroPhase finished, PomodoroPhase next)> onPhaseEnded;
    std::function<void(PomodoroPhase phase, bool isRunning)> onRunStateChanged;

private:
    void tick();
    void advance(bool completed);
    void stopTimer();
    double now() const { return scheduler_.clock().now(); }

    Observable<PomodoroPhase> phase_{PomodoroPhase::focus};
    Observable<bool> isRunning_{false};
    Observable<double> remaining_;
    Observable<int> completedFocusSessions_{0};
    Observable<bool> isIndefinite_{false};
    Observable<double> elapsed_{0};
    Observable<PomodoroConfig> config_;
    Scheduler& scheduler_;
    Cancellable timer_;
    std::optional<double> deadline_;
};

} // namespace tavrick

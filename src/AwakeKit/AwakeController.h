#pragma once

#include "AwakeKit/AwakeModels.h"
#include "AwakeKit/PowerAssertions.h"
#include "AwakeKit/ProcessWatcher.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// Keeps the machine from idling to sleep for as long as a session lasts: until a moment, while
// an application runs, or with no end. At most one session and one assertion at a time. Main
// queue only; nothing is stored, so a restart begins inactive.
class AwakeController {
public:
    static constexpr double tickInterval = 1.0;

    // `displayName` begins every assertion's name ("Tavrick: Indefinitely").
    AwakeController(PowerAssertions& assertions, ProcessWatcher& processes, Scheduler& scheduler,
                    std::string displayName, LocalCalendar calendar = LocalCalendar::current());
    ~AwakeController();
    AwakeController(const AwakeController&) = delete;
    AwakeController& operator=(const AwakeController&) = delete;

    const Observable<bool>& isActive() const { return isActive_; }
    const Observable<std::optional<AwakeSession>>& session() const { return session_; }
    // The mode last used; a toggle starts in it.
    const Observable<AwakeMode>& mode() const { return mode_; }
    // Seconds left, in a timed session only.
    const Observable<std::optional<double>>& remaining() const { return remaining_; }

    // Ends any session first, so a new one always replaces the old.
    void start(AwakeMode mode, AwakeSession session);
    void stop();
    void toggle();
    std::optional<std::string> remainingDisplayString() const;

    // "1:02:03" at an hour or more, "4:05" below.
    static std::string format(double seconds);

private:
    void startTicking(double until);
    void observeTermination(const ProcessWatcher::Instance& instance);
    void tick(double until);

    Observable<bool> isActive_{false};
    Observable<std::optional<AwakeSession>> session_;
    Observable<AwakeMode> mode_{AwakeMode::keepDisplayOn};
    Observable<std::optional<double>> remaining_;

    PowerAssertions& assertions_;
    ProcessWatcher& processes_;
    Scheduler& scheduler_;
    std::string displayName_;
    LocalCalendar calendar_;
    std::uint32_t assertionID_ = 0;
    Cancellable tickTimer_;
    std::unique_ptr<ProcessWatcher::Watch> terminationObserver_;
    // Which session an exit report belongs to; a report for an earlier one is ignored.
    std::uint64_t generation_ = 0;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavrick

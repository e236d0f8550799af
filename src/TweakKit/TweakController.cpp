#include "TweakKit/TweakController.h"

#include <algorithm>

namespace tavrick {

std::shared_ptr<TweakController> TweakController::make(PreferenceDomains domains, TweakApplications applications,
                                                       Scheduler& scheduler, DiagnosticLog& log) {
    return std::shared_ptr<TweakController>(
        new TweakController(std::move(domains), std::move(applications), scheduler, log));
}

TweakController::TweakController(PreferenceDomains domains, TweakApplications applications, Scheduler& scheduler,
                                 DiagnosticLog& log)
    : domains_(std::move(domains)), applications_(std::move(applications)), scheduler_(scheduler), log_(log) {}

bool TweakController::write(const Tweak& tweak, bool on) {
    for (const auto& setting : tweak.settings) {
        auto store = domains_ ? domains_(setting.applicationID()) : nullptr;
        if (!store) continue;
        // There is no off value on purpose: off gives the key back to the system's default.
        if (on) {
            store->set(setting.key, setting.onValue.preferenceValue());
        } else {
            store->remove(setting.key);
        }
    }
    bool readsBack = on ? Tweaks::isOn(tweak, domains_)
                        : std::none_of(tweak.settings.begin(), tweak.settings.end(),
                                       [&](const TweakSetting& s) { return Tweaks::read(s, domains_).has_value(); });
    return readsBack;
}

void TweakController::set(const Tweak& tweak, bool on, std::function<void(bool)> completion) {
    bool result = write(tweak, on);
    if (!tweak.restart) {
        if (completion) completion(result);
        return;
    }
    restart(*tweak.restart, [result, completion](bool) {
        if (completion) completion(result);
    });
}

void TweakController::toggle(const Tweak& tweak, std::function<void(bool)> completion) {
    set(tweak, !isOn(tweak), std::move(completion));
}

void TweakController::applyAll(const std::vector<Tweak>& tweaks, std::function<void(int)> completion) {
    int applied = 0;
    std::vector<RestartTarget> targets;
    for (const auto& tweak : tweaks) {
        if (write(tweak, true)) ++applied;
        if (tweak.restart && std::find(targets.begin(), targets.end(), *tweak.restart) == targets.end()) {
            targets.push_back(*tweak.restart);
        }
    }
    restartEach(std::move(targets), [applied, completion] {
        if (completion) completion(applied);
    });
}

void TweakController::restartEach(std::vector<RestartTarget> targets, std::function<void()> then) {
    if (targets.empty()) return then();
    RestartTarget first = targets.front();
    targets.erase(targets.begin());
    std::weak_ptr<TweakController> weak = weak_from_this();
    restart(first, [weak, targets = std::move(targets), then](bool) mutable {
        if (auto self = weak.lock()) self->restartEach(std::move(targets), std::move(then));
    });
}

bool TweakController::isRunning(RestartTarget target) const {
    return applications_.running && !applications_.running(bundleIdentifier(target)).empty();
}

void TweakController::restart(RestartTarget target, std::function<void(bool)> completion) {
    std::weak_ptr<TweakController> weak = weak_from_this();
    quit(target, [weak, target, completion] {
        if (auto self = weak.lock()) self->launch(target, completion);
    });
}

void TweakController::quit(RestartTarget target, std::function<void()> then) {
    auto running = applications_.running ? applications_.running(bundleIdentifier(target)) : std::vector<std::int32_t>{};
    if (running.empty()) return then();
    for (auto pid : running) {
        if (applications_.terminate) applications_.terminate(pid);
    }
    std::weak_ptr<TweakController> weak = weak_from_this();
    scheduler_.after(step, [weak, target, then] {
        auto self = weak.lock();
        if (!self) return;
        for (auto pid : self->applications_.running(bundleIdentifier(target))) {
            if (self->applications_.forceTerminate) self->applications_.forceTerminate(pid);
        }
        auto gone = [weak, target] {
            auto me = weak.lock();
            return !me || !me->isRunning(target);
        };
        self->waitUntil(gone, quitSteps, [then](bool) { then(); });
    });
}

void TweakController::waitUntil(std::function<bool()> condition, int steps, std::function<void(bool)> then) {
    if (condition()) return then(true);
    if (steps <= 0) return then(false);
    std::weak_ptr<TweakController> weak = weak_from_this();
    scheduler_.after(step, [weak, condition, steps, then] {
        if (auto self = weak.lock()) self->waitUntil(condition, steps - 1, then);
    });
}

void TweakController::launch(RestartTarget target, std::function<void(bool)> completion) {
    std::weak_ptr<TweakController> weak = weak_from_this();
    auto tell = [weak, target, completion](bool running) {
        if (auto self = weak.lock()) {
            self->log_.note("tweak", std::string(displayName(target)) + (running ? " came back" : " did not come back"));
        }
        if (completion) completion(running);
    };
    auto waitForIt = [weak, target, tell] {
        auto self = weak.lock();
        if (!self) return;
        self->waitUntil([weak, target] {
            auto me = weak.lock();
            return me && me->isRunning(target);
        }, launchSteps, tell);
    };
    // The chime has no application: quitting it is what makes it read the setting again.
    if (target == RestartTarget::powerChime) {
        if (completion) completion(true);
        return;
    }
    if (relaunchesItself(target)) return waitForIt();

    if (!applications_.open) return tell(false);
    Scheduler* scheduler = &scheduler_;
    applications_.open(*applicationURL(target), [weak, scheduler, target, completion, waitForIt](
                                                   std::optional<std::string> failure) {
        scheduler->async([weak, target, completion, waitForIt, failure] {
            auto self = weak.lock();
            if (!self) return;
            if (failure) {
                self->log_.note("tweak", std::string("could not relaunch ") + displayName(target));
                if (completion) completion(false);
                return;
            }
            waitForIt();
        });
    });
}

} // namespace tavrick

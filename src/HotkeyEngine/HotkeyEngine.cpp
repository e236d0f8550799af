#include "HotkeyEngine/HotkeyEngine.h"

#include "CoreKit/Log.h"
#include "CoreKit/SyntheticEvents.h"

#include <mutex>
#include <string>
#include <utility>

namespace tavrick {

// The engine's state, shared with the tap's handler and with blocks on the global queue, which
// hold it weakly: an engine that went away lets keys pass and fires nothing.
struct HotkeyEngine::Core : std::enable_shared_from_this<Core> {
    Core(EventSystem& events, Scheduler& scheduler, DiagnosticLog& log, double watchdogInterval)
        : events(events), scheduler(scheduler), log(log), watchdogInterval(watchdogInterval) {}

    EventSystem& events;
    Scheduler& scheduler;
    DiagnosticLog& log;
    const double watchdogInterval;

    // Held only to swap the table, read a closure, or look a key up; never across a call out.
    mutable std::mutex lock;
    HotkeyTable table;
    // Behind shared pointers so that reading one under the lock never copies, or allocates for,
    // the closure itself.
    std::shared_ptr<const OnTrigger> onTrigger;
    std::shared_ptr<const ObserveKeys> observeKeys;
    std::shared_ptr<EventTap> tap;
    std::vector<Mapping> unavailable;

    std::optional<Event> handle(EventType type, const Event& event);
    void fire(Mapping mapping);
    // Tells the session which combinations the table needs (none while stopped) and logs each
    // one another program holds.
    void claimCombinations();
};

void HotkeyEngine::Core::claimCombinations() {
    std::vector<HotkeySpec> wanted;
    std::vector<Mapping> mappings;
    {
        std::lock_guard guard(lock);
        if (tap) {
            for (const auto& [spec, mapping] : table.entries) {
                wanted.push_back(spec);
                mappings.push_back(mapping);
            }
        }
    }
    const auto refused = events.ownKeyCombinations(tapLabel, wanted);
    std::vector<Mapping> lost;
    for (const auto& spec : refused) {
        for (const auto& mapping : mappings) {
            const HotkeySpec* trigger = mapping.trigger.asHotkey();
            if (!trigger || !(*trigger == spec)) continue;
            const std::string name = mapping.effectiveName();
            Log::hotkey.notice("Shortcut %s of '%s' is held by another program and will not fire",
                               spec.displayString().c_str(), name.c_str());
            log.note("hotkey", spec.displayString() + " of '" + name + "' is held by another program");
            lost.push_back(mapping);
        }
    }
    std::lock_guard guard(lock);
    unavailable = std::move(lost);
}

std::optional<Event> HotkeyEngine::Core::handle(EventType type, const Event& event) {
    if (type != EventType::keyDown) return event;
    // The program's own keystrokes must not fire mappings.
    if (SyntheticEvents::isOurs(event)) return event;
    const auto keyCode = static_cast<std::uint16_t>(event.integerValueField(EventField::keyboardEventKeycode));

    std::shared_ptr<const ObserveKeys> observe;
    Modifiers modifiers;
    const Mapping* found = nullptr;
    std::optional<Mapping> match;
    std::size_t tableCount;
    {
        std::lock_guard guard(lock);
        observe = observeKeys;
        modifiers = Modifiers::fromCGFlags(event.flags);
        found = table.find(HotkeySpec{keyCode, modifiers});
        // Copied only on a match: the unmatched path, which is nearly every key, allocates nothing.
        if (found) match = *found;
        tableCount = table.count();
    }

    if (Log::hotkey.isEnabled(LogLevel::debug)) {
        Log::hotkey.debug("key %hu modifiers=%ld table=%ld match=%s", keyCode, static_cast<long>(modifiers.rawValue),
                          static_cast<long>(tableCount), match ? "true" : "false");
    }
    if (observe) (*observe)(keyCode, modifiers, match.has_value());
    if (!match) return event;

    fire(std::move(*match));
    return std::nullopt;
}

void HotkeyEngine::Core::fire(Mapping mapping) {
    const std::string name = mapping.effectiveName();
    Log::hotkey.info("Fired '%s'", name.c_str());
    log.note("hotkey", mapping.trigger.displayString() + " fired '" + name + "'");
    // Off the tap's thread, so that a slow action cannot trip the session's tap time-out.
    std::weak_ptr<Core> weak = weak_from_this();
    scheduler.global(QoS::userInitiated, [weak, mapping = std::move(mapping)] {
        auto self = weak.lock();
        if (!self) return;
        std::shared_ptr<const OnTrigger> onTrigger;
        {
            std::lock_guard guard(self->lock);
            onTrigger = self->onTrigger;
        }
        if (onTrigger) (*onTrigger)(mapping);
    });
}

HotkeyEngine::HotkeyEngine(EventSystem& events, Scheduler& scheduler, DiagnosticLog& log, double watchdogInterval)
    : core_(std::make_shared<Core>(events, scheduler, log, watchdogInterval)) {}

HotkeyEngine::~HotkeyEngine() {
    stop();
}

void HotkeyEngine::start() {
    {
        std::lock_guard guard(core_->lock);
        if (core_->tap) return;
    }
    std::weak_ptr<Core> weak = core_;
    auto tap = std::make_shared<EventTap>(
        core_->events, tapLabel, eventMask, TapOptions::active,
        [weak](EventType type, const Event& event) -> std::optional<Event> {
            auto core = weak.lock();
            if (!core) return event;
            return core->handle(type, event);
        },
        core_->watchdogInterval);
    // Started before it is kept, so that a refused tap is not kept and the next start() tries
    // again; the error goes to the caller.
    tap->start();
    bool raced = false;
    {
        std::lock_guard guard(core_->lock);
        if (core_->tap) {
            raced = true;
        } else {
            core_->tap = tap;
        }
    }
    if (raced) {
        tap->stop();
        return;
    }
    core_->claimCombinations();
}

void HotkeyEngine::stop() {
    std::shared_ptr<EventTap> tap;
    {
        std::lock_guard guard(core_->lock);
        tap = std::move(core_->tap);
        core_->tap = nullptr;
    }
    if (tap) {
        tap->stop();
        core_->claimCombinations();
    }
}

bool HotkeyEngine::isRunning() const {
    std::shared_ptr<EventTap> tap;
    {
        std::lock_guard guard(core_->lock);
        tap = core_->tap;
    }
    return tap && tap->isRunning();
}

void HotkeyEngine::update(const std::vector<Mapping>& mappings) {
    HotkeyTable fresh(mappings);
    const auto count = fresh.count();
    const std::vector<Mapping> shadowed = fresh.shadowed;
    {
        std::lock_guard guard(core_->lock);
        std::swap(core_->table, fresh);
    }
    // `fresh` now holds the old table, which goes away here, outside the lock.
    Log::hotkey.info("Watching %ld hotkeys", static_cast<long>(count));
    for (const auto& mapping : shadowed) {
        Log::hotkey.notice("Mapping '%s' is shadowed by an earlier one on the same trigger",
                           mapping.effectiveName().c_str());
    }
    core_->claimCombinations();
}

std::vector<Mapping> HotkeyEngine::unavailable() const {
    std::lock_guard guard(core_->lock);
    return core_->unavailable;
}

HotkeyTable HotkeyEngine::table() const {
    std::lock_guard guard(core_->lock);
    return core_->table;
}

void HotkeyEngine::setOnTrigger(OnTrigger onTrigger) {
    std::shared_ptr<const OnTrigger> shared = onTrigger ? std::make_shared<const OnTrigger>(std::move(onTrigger)) : nullptr;
    {
        std::lock_guard guard(core_->lock);
        std::swap(core_->onTrigger, shared);
    }
    // The replaced closure goes away here, outside the lock.
}

void HotkeyEngine::setObserveKeys(ObserveKeys observeKeys) {
    std::shared_ptr<const ObserveKeys> shared =
        observeKeys ? std::make_shared<const ObserveKeys>(std::move(observeKeys)) : nullptr;
    {
        std::lock_guard guard(core_->lock);
        std::swap(core_->observeKeys, shared);
    }
}

std::optional<Event> HotkeyEngine::handle(EventType type, const Event& event) {
    return core_->handle(type, event);
}

} // namespace tavrick

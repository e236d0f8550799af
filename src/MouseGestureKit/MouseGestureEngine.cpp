#include "MouseGestureKit/MouseGestureEngine.h"

#include "CoreKit/Log.h"
#include "CoreKit/SyntheticEvents.h"

#include <mutex>
#include <utility>

namespace tavrick {

struct MouseGestureEngine::Core : std::enable_shared_from_this<Core> {
    Core(EventSystem& events, Scheduler& scheduler, double watchdogInterval)
        : events(events), scheduler(scheduler), watchdogInterval(watchdogInterval) {}

    EventSystem& events;
    Scheduler& scheduler;
    const double watchdogInterval;

    mutable std::mutex lock;
    std::shared_ptr<EventTap> tap;
    StrokeRecogniser recogniser;
    std::vector<Mapping> mappings;
    std::optional<std::string> frontmostBundleID;
    std::vector<Point> path;
    bool isTracking = false;
    Point pressLocation;
    bool suspended = false;
    bool masterEnabled = false;

    mutable std::mutex callbackLock;
    std::shared_ptr<const OnGesture> onGesture;
    std::shared_ptr<const OnNote> onNote;

    void note(const std::string& text) const {
        std::shared_ptr<const OnNote> callback;
        {
            std::lock_guard guard(callbackLock);
            callback = onNote;
        }
        if (callback) (*callback)(text);
    }
    void startTap();
    void stopTap();
    std::optional<Event> handle(EventType type, const Event& event);
    bool replayClick(Point at);
};

void MouseGestureEngine::Core::startTap() {
    {
        std::lock_guard guard(lock);
        if (tap) return;
    }
    std::weak_ptr<Core> weak = weak_from_this();
    auto fresh = std::make_shared<EventTap>(
        events, tapLabel, eventMask, TapOptions::active,
        [weak](EventType type, const Event& event) -> std::optional<Event> {
            auto core = weak.lock();
            if (!core) return event;
            return core->handle(type, event);
        },
        watchdogInterval);
    try {
        fresh->start();
    } catch (const std::exception& error) {
        note(std::string("mouse gestures could not start: ") + error.what());
        return;
    }
    bool raced = false;
    {
        std::lock_guard guard(lock);
        if (tap) {
            raced = true;
        } else {
            tap = fresh;
        }
    }
    if (raced) {
        fresh->stop();
        return;
    }
    note("mouse gestures watching");
}

void MouseGestureEngine::Core::stopTap() {
    std::shared_ptr<EventTap> taken;
    {
        std::lock_guard guard(lock);
        taken = std::exchange(tap, nullptr);
        path.clear();
        isTracking = false;
    }
    if (!taken) return;
    taken->stop();
    note("mouse gestures stopped");
}

std::optional<Event> MouseGestureEngine::Core::handle(EventType type, const Event& event) {
    // The program's own clicks, the replayed ones among them, pass untouched.
    if (SyntheticEvents::isOurs(event)) return event;
    switch (type) {
    case EventType::rightMouseDown: {
        std::lock_guard guard(lock);
        if (suspended) return event;
        pressLocation = event.location;
        path.clear();
        path.push_back(event.location);
        isTracking = true;
        return std::nullopt;
    }
    case EventType::rightMouseDragged: {
        std::lock_guard guard(lock);
        if (isTracking) path.push_back(event.location);
        return event;
    }
    case EventType::rightMouseUp: {
        std::vector<Point> drawn;
        std::vector<Mapping> candidates;
        std::optional<std::string> frontmost;
        Point pressedAt;
        StrokeRecogniser recogniserCopy;
        {
            std::lock_guard guard(lock);
            const bool wasTracking = std::exchange(isTracking, false);
            drawn = std::exchange(path, {});
            // A press this engine never took (started or suspended since) is not its to finish.
            if (!wasTracking) return event;
            candidates = mappings;
            frontmost = frontmostBundleID;
            pressedAt = pressLocation;
            recogniserCopy = recogniser;
        }
        const auto strokes = recogniserCopy.strokes(drawn);
        if (!strokes.empty()) {
            if (auto mapping = MouseGestureEngine::match(strokes, candidates, frontmost)) {
                note("mouse gesture " + MouseGestureSpec{strokes}.symbols() + " -> ran '" + mapping->effectiveName() +
                     "'");
                std::weak_ptr<Core> weak = weak_from_this();
                scheduler.async([weak, mapping = std::move(*mapping)] {
                    auto self = weak.lock();
                    if (!self) return;
                    std::shared_ptr<const OnGesture> callback;
                    {
                        std::lock_guard guard(self->callbackLock);
                        callback = self->onGesture;
                    }
                    if (callback) (*callback)(mapping);
                });
                return std::nullopt;
            }
        }
        if (replayClick(pressedAt)) return std::nullopt;
        note("could not replay the right-click; passing it through");
        return event;
    }
    default: return event;
    }
}

bool MouseGestureEngine::Core::replayClick(Point at) {
    // At the press, not the release, so that the menu opens where the user clicked.
    auto down = events.makeMouseEvent(EventType::rightMouseDown, at, 1);
    auto up = events.makeMouseEvent(EventType::rightMouseUp, at, 1);
    if (!down || !up) return false;
    SyntheticEvents::mark(*down);
    SyntheticEvents::mark(*up);
    events.post(*down);
    events.post(*up);
    return true;
}

MouseGestureEngine::MouseGestureEngine(EventSystem& events, Scheduler& scheduler, double watchdogInterval)
    : core_(std::make_shared<Core>(events, scheduler, watchdogInterval)) {}

MouseGestureEngine::~MouseGestureEngine() {
    std::shared_ptr<EventTap> taken;
    {
        std::lock_guard guard(core_->lock);
        taken = std::exchange(core_->tap, nullptr);
    }
    if (taken) taken->stop();
}

void MouseGestureEngine::update(const std::vector<Mapping>& mappings) {
    std::vector<Mapping> kept;
    for (const auto& mapping : mappings) {
        if (mapping.isEnabled && mapping.trigger.asMouseGesture()) kept.push_back(mapping);
    }
    const bool any = !kept.empty();
    bool master;
    {
        std::lock_guard guard(core_->lock);
        std::swap(core_->mappings, kept);
        master = core_->masterEnabled;
    }
    if (any && master) {
        core_->startTap();
    } else {
        core_->stopTap();
    }
}

void MouseGestureEngine::setMasterEnabled(bool enabled) {
    bool any;
    {
        std::lock_guard guard(core_->lock);
        core_->masterEnabled = enabled;
        any = !core_->mappings.empty();
    }
    if (!enabled) {
        core_->stopTap();
    } else if (any) {
        core_->startTap();
    }
}

void MouseGestureEngine::setFrontmostApp(std::optional<std::string> bundleID) {
    std::lock_guard guard(core_->lock);
    core_->frontmostBundleID = std::move(bundleID);
}

void MouseGestureEngine::setSuspended(bool suspended) {
    bool changed;
    {
        std::lock_guard guard(core_->lock);
        changed = core_->suspended != suspended;
        core_->suspended = suspended;
    }
    if (changed) core_->note(suspended ? "standing down while a gesture is recorded" : "watching again");
}

bool MouseGestureEngine::isSuspended() const {
    std::lock_guard guard(core_->lock);
    return core_->suspended;
}

bool MouseGestureEngine::isHoldingPress() const {
    std::lock_guard guard(core_->lock);
    return core_->isTracking;
}

bool MouseGestureEngine::isRunning() const {
    std::lock_guard guard(core_->lock);
    return core_->tap != nullptr;
}

void MouseGestureEngine::stop() {
    core_->stopTap();
}

void MouseGestureEngine::setOnGesture(OnGesture onGesture) {
    std::shared_ptr<const OnGesture> shared = onGesture ? std::make_shared<const OnGesture>(std::move(onGesture)) : nullptr;
    std::lock_guard guard(core_->callbackLock);
    std::swap(core_->onGesture, shared);
}

void MouseGestureEngine::setOnNote(OnNote onNote) {
    std::shared_ptr<const OnNote> shared = onNote ? std::make_shared<const OnNote>(std::move(onNote)) : nullptr;
    std::lock_guard guard(core_->callbackLock);
    std::swap(core_->onNote, shared);
}

std::optional<Mapping> MouseGestureEngine::match(const std::vector<GestureDirection>& strokes,
                                                 const std::vector<Mapping>& mappings,
                                                 const std::optional<std::string>& frontmost) {
    const Mapping* firstEverywhere = nullptr;
    for (const auto& mapping : mappings) {
        if (!mapping.isEnabled) continue;
        const auto* spec = mapping.trigger.asMouseGesture();
        if (!spec || spec->strokes != strokes) continue;
        if (const auto* app = mapping.scope ? mapping.scope->asApp() : nullptr) {
            // An application's own binding wins over the same shape bound everywhere.
            if (frontmost && app->bundleID == *frontmost) return mapping;
        } else if (!firstEverywhere) {
            firstEverywhere = &mapping;
        }
    }
    if (firstEverywhere) return *firstEverywhere;
    return std::nullopt;
}

std::optional<Event> MouseGestureEngine::handle(EventType type, const Event& event) {
    return core_->handle(type, event);
}

} // namespace tavrick

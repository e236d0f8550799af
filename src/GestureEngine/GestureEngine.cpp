#include "GestureEngine/GestureEngine.h"

#include "CoreKit/Log.h"
#include "GestureEngine/MultitouchSource.h"

#include <cmath>
#include <cstdio>
#include <mutex>

namespace tavrick {

namespace {

std::string formatted(const char* format, double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

// One hand contact, from the first frame with a finger down to the first without one.
struct Session {
    struct Run {
        int count = 0;
        int frames = 0;
    };
    double start = 0;
    double last = 0;
    std::vector<Run> counts;
    int peak = 0;
    std::optional<PadPoint> origin;
    double dx = 0;
    double dy = 0;
    std::optional<GestureSpec> recognized;
    std::optional<Mapping> matched;
    bool matchedButNotRun = false;
};

bool isFinite(const Touch& touch) {
    return std::isfinite(touch.x) && std::isfinite(touch.y) && std::isfinite(touch.pressure);
}

} // namespace

struct GestureEngine::Core : std::enable_shared_from_this<Core> {
    Core(DiagnosticLog& log, EventSystem& events, Scheduler& scheduler)
        : log(log), events(events), scheduler(scheduler) {}

    DiagnosticLog& log;
    EventSystem& events;
    Scheduler& scheduler;

    // Guards everything below it except the callbacks; never held across a call out.
    mutable std::mutex lock;
    GestureRecognizer recognizer;
    GestureTable table;
    std::shared_ptr<EventTap> suppressionTap;
    bool suppressing = false;
    bool suspended = false;
    std::optional<Session> session;
    // One line per contact for frames the driver got wrong.
    bool toldNonFinite = false;

    mutable std::mutex callbackLock;
    std::shared_ptr<const OnTrigger> onTrigger;
    std::shared_ptr<const OnFrame> onFrame;
    std::shared_ptr<const OnRecognize> onRecognize;

    void handle(const TouchFrame& frame);
    std::optional<std::string> track(const TouchFrame& frame, const std::optional<GestureSpec>& recognized,
                                     const std::optional<Mapping>& match, bool held);
    std::string summary(const Session& session, int sustainedPeak) const;
    std::string missReason(const Session& session, int sustainedPeak, double distance, double velocity) const;
};

void GestureEngine::Core::handle(const TouchFrame& incoming) {
    std::shared_ptr<const OnFrame> frameCallback;
    {
        std::lock_guard guard(callbackLock);
        frameCallback = onFrame;
    }
    if (frameCallback) (*frameCallback)(incoming);

    if (!std::isfinite(incoming.timestamp)) {
        Log::gesture.error("Dropped a touch frame whose time is not a number");
        return;
    }
    // A contact whose position is not a number counts as lifted, so that it can neither move a
    // gesture nor hold the hand down for ever.
    const TouchFrame* frame = &incoming;
    TouchFrame cleaned;
    bool hadNonFinite = false;
    for (const auto& touch : incoming.touches) {
        if (touch.isTouching && !isFinite(touch)) hadNonFinite = true;
    }
    if (hadNonFinite) {
        cleaned = incoming;
        for (auto& touch : cleaned.touches) {
            if (touch.isTouching && !isFinite(touch)) touch.isTouching = false;
        }
        frame = &cleaned;
    }

    std::optional<GestureSpec> recognized;
    std::optional<Mapping> match;
    std::optional<std::string> note;
    bool held = false;
    bool tellNonFinite = false;
    bool wentBack = false;
    double previousTime = 0;
    {
        std::lock_guard guard(lock);
        if (hadNonFinite && !toldNonFinite) {
            toldNonFinite = true;
            tellNonFinite = true;
        }
        const bool lifted = frame->activeCount() == 0;
        if (lifted) suppressing = false;
        if (recognizer.lastFrameTime && frame->timestamp < *recognizer.lastFrameTime) {
            // The recogniser starts over on this frame; the session's times no longer add up.
            wentBack = true;
            previousTime = *recognizer.lastFrameTime;
            session.reset();
        }
        recognized = recognizer.process(*frame);
        if (recognized && !table.isEmpty()) {
            if (const auto* found = table.find(*recognized)) match = *found;
        }
        if (match) suppressing = true;
        held = suspended;
        note = track(*frame, recognized, match, held);
        if (lifted) toldNonFinite = false;
    }

    if (tellNonFinite) Log::gesture.error("The trackpad reported a contact with no usable position; it counts as lifted");
    if (wentBack) {
        Log::gesture.error("Touch frames went back in time (%.3f after %.3f); the contact starts over",
                           frame->timestamp, previousTime);
    }
    if (note) log.note("gesture", *note);
    if (recognized) {
        std::shared_ptr<const OnRecognize> recognize;
        {
            std::lock_guard guard(callbackLock);
            recognize = onRecognize;
        }
        if (recognize) (*recognize)(*recognized);
    }
    if (match && !held) {
        const std::string name = match->effectiveName();
        Log::gesture.notice("Gesture fired '%s'", name.c_str());
        std::weak_ptr<Core> weak = weak_from_this();
        scheduler.async([weak, mapping = std::move(*match)] {
            auto self = weak.lock();
            if (!self) return;
            std::shared_ptr<const OnTrigger> trigger;
            {
                std::lock_guard guard(self->callbackLock);
                trigger = self->onTrigger;
            }
            if (trigger) (*trigger)(mapping);
        });
    }
}

std::optional<std::string> GestureEngine::Core::track(const TouchFrame& frame, const std::optional<GestureSpec>& recognized,
                                                      const std::optional<Mapping>& match, bool held) {
    const int n = static_cast<int>(frame.activeCount());
    // Frames without a hand, with no session, cost nothing.
    if (n == 0 && !session) return std::nullopt;
    const double now = frame.timestamp;
    if (!session) {
        session.emplace();
        session->start = now;
        session->last = now;
    }
    Session& s = *session;
    if (n > 0) {
        s.last = now;
        if (n > s.peak) s.peak = n;
        if (!s.counts.empty() && s.counts.back().count == n) {
            ++s.counts.back().frames;
        } else if (s.counts.size() < maximumCountEntries) {
            s.counts.push_back({n, 1});
        }
        const auto centre = frame.centroid();
        if (!s.origin && n >= recognizer.config.minimumFingers) s.origin = centre;
        if (s.origin && centre) {
            const double x = centre->x - s.origin->x, y = centre->y - s.origin->y;
            if (std::abs(x) > std::abs(s.dx)) s.dx = x;
            if (std::abs(y) > std::abs(s.dy)) s.dy = y;
        }
    }
    if (recognized) s.recognized = recognized;
    if (match) {
        s.matched = match;
        s.matchedButNotRun = held;
    }
    if (n > 0) return std::nullopt;

    int sustainedPeak = 0;
    for (const auto& run : s.counts) {
        if (run.frames >= 2 && run.count > sustainedPeak) sustainedPeak = run.count;
    }
    std::optional<std::string> note;
    // Ordinary scrolling and single-finger contact stay out of the log.
    if (sustainedPeak >= recognizer.config.minimumFingers || s.matched) note = summary(s, sustainedPeak);
    session.reset();
    return note;
}

std::string GestureEngine::Core::summary(const Session& s, int sustainedPeak) const {
    std::string counts;
    for (const auto& run : s.counts) {
        if (!counts.empty()) counts += ",";
        counts += std::to_string(run.count) + "x" + std::to_string(run.frames);
    }
    const double distance = std::hypot(s.dx, s.dy);
    const double duration = s.last - s.start;
    const double velocity = distance / duration;

    std::string outcome;
    if (s.recognized) {
        outcome = s.recognized->displayString();
        if (s.matched) {
            const std::string action = s.matched->action.displayString();
            const std::string name = s.matched->effectiveName();
            if (s.matchedButNotRun) {
                outcome += " -> matched '" + name + "' (" + action + "), not run — the gesture editor is open";
            } else {
                outcome += " -> ran '" + name + "'";
                if (!s.matched->name.empty()) outcome += " (" + action + ")";
            }
        } else {
            outcome += " -> no mapping bound";
        }
    } else {
        outcome = "nothing recognised - " + missReason(s, sustainedPeak, distance, velocity);
    }

    char numbers[256];
    std::snprintf(numbers, sizeof numbers, " peak=%d dx=%+.3f dy=%+.3f dist=%.3f dur=%.3fs vel=%.2f -> ", s.peak, s.dx,
                  s.dy, distance, duration, velocity);
    return "session counts=" + counts + numbers + outcome;
}

std::string GestureEngine::Core::missReason(const Session& s, int sustainedPeak, double distance,
                                            double velocity) const {
    const auto& config = recognizer.config;
    if (const auto& decline = recognizer.lastDecline()) return decline->summary();
    int lastSustained = 0;
    for (auto run = s.counts.rbegin(); run != s.counts.rend(); ++run) {
        if (run->frames >= 2) {
            lastSustained = run->count;
            break;
        }
    }
    if (sustainedPeak > config.minimumFingers && lastSustained < sustainedPeak) {
        return "hand held " + std::to_string(sustainedPeak) + " fingers, then dropped to " +
               std::to_string(lastSustained) + " — fingers lifting are the end of a gesture, not the start of one";
    }
    if (s.counts.size() >= 2) {
        std::string path;
        for (const auto& run : s.counts) {
            if (!path.empty()) path += "->";
            path += std::to_string(run.count);
        }
        return "finger count changed " + path + " mid-gesture, which cancels";
    }
    if (s.peak < config.minimumFingers) {
        return "only " + std::to_string(s.peak) + " finger(s), " + std::to_string(config.minimumFingers) + " needed";
    }
    if (distance < config.minSwipeDistance) {
        return "moved " + formatted("%.3f", distance) + ", needs " + formatted("%.3f", config.minSwipeDistance);
    }
    if (velocity < config.minSwipeVelocity) {
        return "velocity " + formatted("%.2f", velocity) + ", needs " + formatted("%.2f", config.minSwipeVelocity);
    }
    return "direction off-axis (angle " + formatted("%.2f", std::abs(std::atan2(s.dy, s.dx))) + " rad, tolerance " +
           formatted("%.2f", config.directionTolerance) + ")";
}

GestureEngine::GestureEngine(std::shared_ptr<TouchSource> source, DiagnosticLog& log, EventSystem& events,
                             Scheduler& scheduler)
    : source_(source ? std::move(source) : std::make_shared<MultitouchSource>()),
      core_(std::make_shared<Core>(log, events, scheduler)) {}

GestureEngine::~GestureEngine() {
    stop();
    source_->setOnFrame(nullptr);
}

void GestureEngine::start() {
    if (source_->isRunning()) return;
    std::weak_ptr<Core> weak = core_;
    source_->setOnFrame([weak](const TouchFrame& frame) {
        if (auto core = weak.lock()) core->handle(frame);
    });
    source_->start();

    // Reading the pad is passive; the tap is the best effort at keeping the system from acting on
    // the same gesture.
    std::weak_ptr<Core> weakForTap = core_;
    auto tap = std::make_shared<EventTap>(core_->events, suppressionTapLabel, suppressionMask, TapOptions::active,
                                          [weakForTap](EventType, const Event& event) -> std::optional<Event> {
                                              auto core = weakForTap.lock();
                                              if (!core) return event;
                                              bool swallow;
                                              {
                                                  std::lock_guard guard(core->lock);
                                                  swallow = core->suppressing;
                                              }
                                              if (swallow) return std::nullopt;
                                              return event;
                                          });
    try {
        tap->start();
    } catch (const std::exception& error) {
        Log::gesture.notice("Gesture suppression unavailable (%s); system gestures may also fire", error.what());
        return;
    }
    std::shared_ptr<EventTap> replaced;
    {
        std::lock_guard guard(core_->lock);
        replaced = std::exchange(core_->suppressionTap, tap);
    }
    if (replaced) replaced->stop();
}

void GestureEngine::stop() {
    source_->stop();
    std::shared_ptr<EventTap> tap;
    {
        std::lock_guard guard(core_->lock);
        tap = std::exchange(core_->suppressionTap, nullptr);
    }
    if (tap) tap->stop();
    std::lock_guard guard(core_->lock);
    core_->recognizer.reset();
    core_->suppressing = false;
}

void GestureEngine::restart() {
    stop();
    start();
}

bool GestureEngine::isRunning() const {
    return source_->isRunning();
}

void GestureEngine::update(const std::vector<Mapping>& mappings) {
    GestureTable fresh(mappings);
    const auto count = fresh.count();
    const std::string described = fresh.describe();
    const std::vector<Mapping> shadowed = fresh.shadowed;
    {
        std::lock_guard guard(core_->lock);
        std::swap(core_->table, fresh);
    }
    Log::gesture.info("Watching %ld gestures", static_cast<long>(count));
    core_->log.note("gesture", "watching " + std::to_string(count) + ": " + described);
    for (const auto& mapping : shadowed) {
        Log::gesture.notice("Gesture mapping '%s' is shadowed by an earlier one", mapping.effectiveName().c_str());
    }
}

GestureTable GestureEngine::table() const {
    std::lock_guard guard(core_->lock);
    return core_->table;
}

void GestureEngine::setSuspended(bool suspended) {
    bool changed;
    {
        std::lock_guard guard(core_->lock);
        changed = core_->suspended != suspended;
        core_->suspended = suspended;
    }
    if (!changed) return;
    core_->log.note("gesture", suspended ? "the gesture editor is open — still watching, not running"
                                         : "running gestures again");
}

bool GestureEngine::isSuspended() const {
    std::lock_guard guard(core_->lock);
    return core_->suspended;
}

GestureConfig GestureEngine::config() const {
    std::lock_guard guard(core_->lock);
    return core_->recognizer.config;
}

void GestureEngine::setConfig(const GestureConfig& config) {
    std::lock_guard guard(core_->lock);
    core_->recognizer.config = config;
}

bool GestureEngine::isSuppressing() const {
    std::lock_guard guard(core_->lock);
    return core_->suppressing;
}

std::optional<DeclineReason> GestureEngine::lastDecline() const {
    std::lock_guard guard(core_->lock);
    return core_->recognizer.lastDecline();
}

template <class Callback>
static void swapIn(std::mutex& lock, std::shared_ptr<const Callback>& slot, Callback callback) {
    std::shared_ptr<const Callback> shared = callback ? std::make_shared<const Callback>(std::move(callback)) : nullptr;
    {
        std::lock_guard guard(lock);
        std::swap(slot, shared);
    }
}

void GestureEngine::setOnTrigger(OnTrigger onTrigger) {
    swapIn(core_->callbackLock, core_->onTrigger, std::move(onTrigger));
}

void GestureEngine::setOnFrame(OnFrame onFrame) {
    swapIn(core_->callbackLock, core_->onFrame, std::move(onFrame));
}

void GestureEngine::setOnRecognize(OnRecognize onRecognize) {
    swapIn(core_->callbackLock, core_->onRecognize, std::move(onRecognize));
}

void GestureEngine::handle(const TouchFrame& frame) {
    core_->handle(frame);
}

} // namespace tavrick

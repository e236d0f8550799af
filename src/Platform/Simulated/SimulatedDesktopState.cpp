#include "Platform/Simulated/SimulatedDesktopCore.h"

#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"

#include <cmath>
#include <cstring>

// The simulated desktop's state file: the whole state as JSON, written atomically on a queue of
// its own, one write for a burst of changes.

namespace tavrick {

using nlohmann::json;

namespace {

using Core = SimulatedDesktop::Core;

// Integral values are written without a fraction.
json jsonNumber(double value) {
    if (std::isfinite(value) && value == std::floor(value) && std::fabs(value) < 9e15) {
        return static_cast<std::int64_t>(value);
    }
    return value;
}

json jsonRect(const Rect& r) {
    return {{"x", jsonNumber(r.minX())},
            {"y", jsonNumber(r.minY())},
            {"width", jsonNumber(r.size.width)},
            {"height", jsonNumber(r.size.height)}};
}

void writeState(const std::shared_ptr<Core>& core) {
    std::string text;
    std::filesystem::path path;
    {
        std::lock_guard lock(core->mutex);
        core->writePending = false;
        text = core->stateLocked().dump(2) + "\n";
        path = core->stateFile;
    }
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    if (auto failure = FileIO::writeAtomically(path, text)) {
        Log::core.error("Could not %s %s: %s", failure->step.c_str(), path.c_str(), std::strerror(failure->error));
    }
}

} // namespace

json Core::stateLocked() const {
    json apps = json::array();
    const double height = primaryHeight();
    for (const auto& a : applications) {
        json windows = json::array();
        for (std::size_t i = 0; i < a.windows.size(); ++i) {
            const auto& w = a.windows[i];
            windows.push_back({{"title", w.title},
                               {"frame", jsonRect(WindowLayout::cocoaFrame(w.frame, height))},
                               {"focused", a.focusedWindow == i}});
        }
        apps.push_back({{"bundleIdentifier", a.bundleID},
                        {"name", a.name},
                        {"pid", a.pid},
                        {"frontmost", frontmost == a.pid},
                        {"windows", windows}});
    }
    json screenList = json::array();
    for (const auto& s : screens) {
        screenList.push_back({{"frame", jsonRect(s.frame)}, {"visibleFrame", jsonRect(s.visibleFrame)}});
    }
    json front = nullptr;
    for (const auto& a : applications) {
        if (frontmost == a.pid) front = a.bundleID;
    }
    json document = {{"coordinates", "origin at the bottom-left of the first screen, y upward"},
            {"screens", screenList},
            {"applications", apps},
            {"frontmost", front},
            {"permissions", {{"accessibility", rawValue(accessibility)}, {"inputMonitoring", rawValue(inputMonitoring)}}},
            {"workspace",
             {{"opened", opened}, {"revealed", revealed}, {"launched", launched}, {"activated", activated},
              {"terminated", terminated}}}};
    for (const auto& [key, section] : stateSections) document[key] = section ? section() : json();
    return document;
}

void Core::changedLocked() {
    if (!stateQueue || writePending.exchange(true)) return;
    // The queue holds the core weakly: a desktop going away drops a write it no longer needs.
    stateQueue->async([weak = weak_from_this()] {
        if (auto core = weak.lock()) writeState(core);
    });
}

// ---- The state file ----

void SimulatedDesktop::writeStateTo(std::filesystem::path path, Scheduler& scheduler) {
    auto queue = scheduler.makeSerialQueue("com.orvell.tavrick.session-state", QoS::utility);
    std::lock_guard lock(core_->mutex);
    core_->stateFile = std::move(path);
    core_->stateQueue = std::move(queue);
    core_->writePending = false;
    core_->changedLocked();
}

std::string SimulatedDesktop::stateJSON() const {
    std::lock_guard lock(core_->mutex);
    return core_->stateLocked().dump(2) + "\n";
}

void SimulatedDesktop::addStateSection(std::string key, std::function<json()> section) {
    std::lock_guard lock(core_->mutex);
    core_->stateSections.emplace_back(std::move(key), std::move(section));
    core_->changedLocked();
}

void SimulatedDesktop::noteStateChange() {
    std::lock_guard lock(core_->mutex);
    core_->changedLocked();
}

void SimulatedDesktop::flushState() {
    std::shared_ptr<SerialQueue> queue;
    {
        std::lock_guard lock(core_->mutex);
        queue = core_->stateQueue;
    }
    if (queue && !queue->isCurrent()) queue->sync([] {});
}

} // namespace tavrick

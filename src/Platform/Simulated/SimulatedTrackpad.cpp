#include "Platform/Simulated/SimulatedTrackpad.h"

#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"
#include "Platform/Linux/EvdevTouchAssembler.h"

#include <cstring>

#include <stdexcept>
#include <utility>

namespace tavrick {

void SimulatedTrackpad::start() {
    std::lock_guard guard(lock_);
    if (running_) return;
    if (!connected_) throw std::runtime_error(notConnected);
    running_ = true;
    ++starts_;
    Log::gesture.info("Simulated trackpad started");
}

void SimulatedTrackpad::stop() {
    std::lock_guard guard(lock_);
    running_ = false;
}

bool SimulatedTrackpad::isRunning() const {
    std::lock_guard guard(lock_);
    return running_;
}

void SimulatedTrackpad::setOnFrame(OnFrame onFrame) {
    OnFrame replaced;
    std::lock_guard guard(lock_);
    replaced = std::exchange(onFrame_, std::move(onFrame));
}

TouchSource::OnFrame SimulatedTrackpad::onFrame() const {
    std::lock_guard guard(lock_);
    return onFrame_;
}

void SimulatedTrackpad::setConnected(bool connected) {
    std::lock_guard guard(lock_);
    connected_ = connected;
}

std::size_t SimulatedTrackpad::play(const std::vector<TouchFrame>& frames) {
    std::size_t delivered = 0;
    for (const auto& frame : frames) {
        OnFrame callback;
        {
            std::lock_guard guard(lock_);
            if (!running_) break;
            callback = onFrame_;
        }
        if (callback) callback(frame);
        ++delivered;
    }
    return delivered;
}

std::string SimulatedTrackpad::playRecording(const std::filesystem::path& recording) {
    int error = 0;
    auto text = FileIO::readAll(recording, error);
    if (!text) return "error cannot read " + recording.string() + ": " + std::strerror(error) + "\n";
    std::vector<TouchFrame> frames;
    try {
        frames = TouchpadRecording::parse(*text).frames();
    } catch (const std::exception& failure) {
        return std::string("error ") + failure.what() + "\n";
    }
    if (frames.empty()) return "error " + recording.string() + " holds no frames\n";
    if (!isRunning()) return "error the trackpad is not running (gestures are off or failed to start)\n";
    double shift;
    {
        std::lock_guard guard(lock_);
        shift = nextTime_ - frames.front().timestamp;
        nextTime_ = frames.back().timestamp + shift + 1.0;
    }
    for (auto& frame : frames) frame.timestamp += shift;
    return "ok " + std::to_string(play(frames)) + "\n";
}

int SimulatedTrackpad::startCount() const {
    std::lock_guard guard(lock_);
    return starts_;
}

} // namespace tavrick

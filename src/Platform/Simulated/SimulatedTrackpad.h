#pragma once

#include "GestureEngine/TouchSource.h"

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

namespace tavrick {

// A trackpad that plays recorded frames, standing in where the machine has none. It can be
// unplugged, so that a start fails the way it does without a pad.
class SimulatedTrackpad final : public TouchSource {
public:
    static constexpr const char* notConnected = "No trackpad was found.";

    void start() override;
    void stop() override;
    bool isRunning() const override;
    void setOnFrame(OnFrame onFrame) override;
    OnFrame onFrame() const override;

    // Any thread.
    void setConnected(bool connected);
    // Delivers the frames in order on the calling thread, as the pad's own thread would; nothing
    // is delivered while stopped. Returns how many were delivered.
    std::size_t play(const std::vector<TouchFrame>& frames);
    // Plays a touchpad recording file, its times moved on to follow whatever was played before,
    // so that the recogniser never sees time run backwards. Answers the bridge's way: "ok <frames>"
    // or "error <reason>", each with a newline.
    std::string playRecording(const std::filesystem::path& recording);
    // How many times the source was started, for tests that count registrations.
    int startCount() const;

private:
    mutable std::mutex lock_;
    OnFrame onFrame_;
    bool running_ = false;
    bool connected_ = true;
    int starts_ = 0;
    double nextTime_ = 0;
};

} // namespace tavrick

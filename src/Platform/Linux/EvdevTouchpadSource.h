#pragma once

#include "GestureEngine/TouchSource.h"
#include "Platform/Linux/EvdevTouchAssembler.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

namespace tavrick {

class TouchpadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A real touchpad, read through libevdev from /dev/input: the kernel's multitouch events become
// the same frames the trackpad service gives. Reading needs the device to be readable by this
// user, which on Debian means membership of the "input" group.
class EvdevTouchpadSource final : public TouchSource {
public:
    struct Found {
        std::filesystem::path path;
        std::string name;
    };

    explicit EvdevTouchpadSource(std::filesystem::path device);
    ~EvdevTouchpadSource() override;

    // The first device under `directory` that reports multitouch positions and is a pointer (a
    // touchpad, not a touch screen). Nothing, with `why` set, when none can be opened.
    static std::optional<Found> find(std::string& why, const std::filesystem::path& directory = "/dev/input");

    // Throws `TouchpadError` when the device cannot be opened or is no touchpad.
    void start() override;
    void stop() override;
    bool isRunning() const override;
    void setOnFrame(OnFrame onFrame) override;
    OnFrame onFrame() const override;

    const std::filesystem::path& device() const { return device_; }

private:
    void run(int fd, void* device, TouchpadGeometry geometry, int wake);
    void deliver(const TouchFrame& frame);

    const std::filesystem::path device_;
    mutable std::mutex lock_;
    OnFrame onFrame_;
    bool running_ = false;
    std::thread reader_;
    int wakeRead_ = -1;
    int wakeWrite_ = -1;
};

} // namespace tavrick

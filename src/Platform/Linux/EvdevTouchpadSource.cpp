#include "Platform/Linux/EvdevTouchpadSource.h"

#include "CoreKit/Log.h"

#include <libevdev/libevdev.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tavrick {

namespace {

bool isTouchpad(libevdev* device) {
    return libevdev_has_event_code(device, EV_ABS, ABS_MT_SLOT) &&
           libevdev_has_event_code(device, EV_ABS, ABS_MT_POSITION_X) &&
           libevdev_has_event_code(device, EV_ABS, ABS_MT_POSITION_Y) &&
           libevdev_has_event_code(device, EV_ABS, ABS_MT_TRACKING_ID) &&
           !libevdev_has_property(device, INPUT_PROP_DIRECT);
}

AxisRange rangeOf(libevdev* device, unsigned int code) {
    const auto* info = libevdev_get_abs_info(device, code);
    if (!info) return {};
    return {info->minimum, info->maximum};
}

} // namespace

EvdevTouchpadSource::EvdevTouchpadSource(std::filesystem::path device) : device_(std::move(device)) {}

EvdevTouchpadSource::~EvdevTouchpadSource() {
    stop();
}

std::optional<EvdevTouchpadSource::Found> EvdevTouchpadSource::find(std::string& why,
                                                                    const std::filesystem::path& directory) {
    std::error_code error;
    std::vector<std::filesystem::path> candidates;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        if (entry.path().filename().string().starts_with("event")) candidates.push_back(entry.path());
    }
    if (error) {
        why = "cannot list " + directory.string() + ": " + error.message();
        return std::nullopt;
    }
    std::sort(candidates.begin(), candidates.end());
    std::size_t refused = 0;
    for (const auto& path : candidates) {
        int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            if (errno == EACCES || errno == EPERM) ++refused;
            continue;
        }
        libevdev* device = nullptr;
        std::optional<Found> found;
        if (libevdev_new_from_fd(fd, &device) == 0) {
            if (isTouchpad(device)) {
                const char* name = libevdev_get_name(device);
                found = Found{path, name ? name : "touchpad"};
            }
            libevdev_free(device);
        }
        ::close(fd);
        if (found) return found;
    }
    if (candidates.empty()) {
        why = "no input devices under " + directory.string();
    } else if (refused > 0) {
        why = std::to_string(refused) + " input device(s) could not be opened; reading a touchpad needs membership of "
              "the “input” group";
    } else {
        why = "no touchpad among " + std::to_string(candidates.size()) + " input device(s)";
    }
    return std::nullopt;
}

void EvdevTouchpadSource::start() {
    if (isRunning()) return;
    // A reader that ended on its own (the device went away) is collected first.
    stop();
    std::lock_guard guard(lock_);
    int fd = ::open(device_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) throw TouchpadError("The touchpad " + device_.string() + " could not be opened: " + std::strerror(errno));
    libevdev* device = nullptr;
    if (int rc = libevdev_new_from_fd(fd, &device); rc < 0) {
        ::close(fd);
        throw TouchpadError("The touchpad " + device_.string() + " could not be read: " + std::strerror(-rc));
    }
    if (!isTouchpad(device)) {
        libevdev_free(device);
        ::close(fd);
        throw TouchpadError(device_.string() + " is not a multitouch touchpad.");
    }
    TouchpadGeometry geometry;
    geometry.x = rangeOf(device, ABS_MT_POSITION_X);
    geometry.y = rangeOf(device, ABS_MT_POSITION_Y);
    if (libevdev_has_event_code(device, EV_ABS, ABS_MT_PRESSURE)) geometry.pressure = rangeOf(device, ABS_MT_PRESSURE);
    geometry.slots = libevdev_get_num_slots(device) > 0 ? libevdev_get_num_slots(device) : 10;

    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        libevdev_free(device);
        ::close(fd);
        throw TouchpadError(std::string("The touchpad reader could not be made: ") + std::strerror(errno));
    }
    wakeRead_ = pipeFds[0];
    wakeWrite_ = pipeFds[1];
    running_ = true;
    reader_ = std::thread([this, fd, device, geometry, wake = pipeFds[0]] { run(fd, device, geometry, wake); });
    Log::gesture.info("Touchpad source started on %s", device_.c_str());
}

void EvdevTouchpadSource::run(int fd, void* opaque, TouchpadGeometry geometry, int wake) {
    auto* device = static_cast<libevdev*>(opaque);
    EvdevTouchAssembler assembler(geometry);
    bool vanished = false;
    double lastTime = 0;
    while (true) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {wake, POLLIN, 0}};
        int ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0 || (fds[1].revents & POLLIN)) break;
        if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            vanished = true;
            break;
        }
        input_event raw;
        unsigned int flags = LIBEVDEV_READ_FLAG_NORMAL;
        while (true) {
            int rc = libevdev_next_event(device, flags, &raw);
            if (rc == -EAGAIN) {
                if (flags == LIBEVDEV_READ_FLAG_SYNC) {
                    flags = LIBEVDEV_READ_FLAG_NORMAL;
                    continue;
                }
                break;
            }
            if (rc == LIBEVDEV_READ_STATUS_SYNC) {
                // The kernel dropped events; libevdev replays the device's state in sync mode.
                flags = LIBEVDEV_READ_FLAG_SYNC;
            } else if (rc < 0) {
                vanished = rc == -ENODEV;
                if (!vanished) Log::gesture.error("Reading the touchpad failed: %s", std::strerror(-rc));
                goto done;
            }
            InputEvent event{static_cast<double>(raw.input_event_sec) + static_cast<double>(raw.input_event_usec) / 1e6,
                             raw.type, raw.code, raw.value};
            lastTime = event.time;
            if (auto frame = assembler.feed(event)) deliver(*frame);
        }
    }
done:
    if (vanished) {
        Log::gesture.error("The touchpad %s went away; gestures are off until the engines are switched on again", device_.c_str());
        // Whatever was down is up now, so nothing stays held or suppressed.
        deliver(assembler.liftAll(lastTime));
    }
    libevdev_free(device);
    ::close(fd);
    // The wake pipe stays open until stop() collects this thread, so that its write never
    // meets a closed pipe.
    std::lock_guard guard(lock_);
    running_ = false;
}

void EvdevTouchpadSource::deliver(const TouchFrame& frame) {
    OnFrame callback;
    {
        std::lock_guard guard(lock_);
        callback = onFrame_;
    }
    if (callback) callback(frame);
}

void EvdevTouchpadSource::stop() {
    std::thread reader;
    int wakeRead, wakeWrite;
    {
        std::lock_guard guard(lock_);
        reader = std::move(reader_);
        wakeRead = std::exchange(wakeRead_, -1);
        wakeWrite = std::exchange(wakeWrite_, -1);
    }
    if (wakeWrite >= 0) {
        const char byte = 1;
        [[maybe_unused]] auto written = ::write(wakeWrite, &byte, 1);
    }
    if (reader.joinable()) reader.join();
    if (wakeWrite >= 0) ::close(wakeWrite);
    if (wakeRead >= 0) ::close(wakeRead);
    std::lock_guard guard(lock_);
    running_ = false;
}

bool EvdevTouchpadSource::isRunning() const {
    std::lock_guard guard(lock_);
    return running_;
}

void EvdevTouchpadSource::setOnFrame(OnFrame onFrame) {
    OnFrame replaced;
    std::lock_guard guard(lock_);
    replaced = std::exchange(onFrame_, std::move(onFrame));
}

TouchSource::OnFrame EvdevTouchpadSource::onFrame() const {
    std::lock_guard guard(lock_);
    return onFrame_;
}

} // namespace tavrick

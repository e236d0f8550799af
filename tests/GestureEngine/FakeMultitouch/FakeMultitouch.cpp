// A stand-in for the trackpad service's library, built by the tests and opened by path like the
// real one. It exports the five functions the source looks for (all but MTDeviceStop when built
// with FAKE_MT_WITHOUT_STOP) and plays recorded contact records to the registered callback on a
// thread of its own. The fakeMT* functions let a test script it.
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using Callback = int (*)(void*, const void*, std::int32_t, double, std::int32_t);

struct Frame {
    std::vector<unsigned char> records;
    std::int32_t count = 0;
    double timestamp = 0;
    // Deliver a null record pointer with the count, as a broken driver might.
    bool nullRecords = false;
};

struct Device {
    Callback callback = nullptr;
    std::thread player;
    // A test that never waited leaves its player behind at exit rather than aborting.
    ~Device() {
        if (player.joinable()) player.detach();
    }
};

constexpr int maximumDevices = 4;

std::mutex mutex;
std::condition_variable changed;
std::vector<Device> devices(maximumDevices);
std::vector<void*> list;
std::vector<Frame> recording;
int deviceCount = 1;
int registrations = 0;
int playing = 0;

void play(Device* device) {
    std::vector<Frame> frames;
    Callback callback;
    {
        std::lock_guard lock(mutex);
        frames = recording;
    }
    std::int32_t number = 0;
    for (const auto& frame : frames) {
        {
            std::lock_guard lock(mutex);
            callback = device->callback;
        }
        if (!callback) break;
        callback(device, frame.nullRecords ? nullptr : frame.records.data(), frame.count, frame.timestamp, number++);
    }
    std::lock_guard lock(mutex);
    --playing;
    changed.notify_all();
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) void** MTDeviceCreateList() {
    std::lock_guard lock(mutex);
    if (deviceCount < 0) return nullptr;
    list.clear();
    for (int i = 0; i < deviceCount && i < static_cast<int>(devices.size()); ++i) list.push_back(&devices[i]);
    list.push_back(nullptr);
    return list.data();
}

__attribute__((visibility("default"))) void MTRegisterContactFrameCallback(void* device, Callback callback) {
    std::lock_guard lock(mutex);
    static_cast<Device*>(device)->callback = callback;
    ++registrations;
}

__attribute__((visibility("default"))) void MTUnregisterContactFrameCallback(void* device, Callback) {
    std::lock_guard lock(mutex);
    static_cast<Device*>(device)->callback = nullptr;
}

__attribute__((visibility("default"))) int MTDeviceStart(void* opaque, int) {
    auto* device = static_cast<Device*>(opaque);
    std::thread old;
    {
        std::lock_guard lock(mutex);
        old = std::move(device->player);
    }
    if (old.joinable()) old.join();
    std::lock_guard lock(mutex);
    ++playing;
    device->player = std::thread(play, device);
    return 0;
}

#ifndef FAKE_MT_WITHOUT_STOP
__attribute__((visibility("default"))) int MTDeviceStop(void* opaque) {
    auto* device = static_cast<Device*>(opaque);
    std::lock_guard lock(mutex);
    // The player ends at its next frame; it is joined by the next start or by fakeMTWait.
    device->callback = nullptr;
    return 0;
}
#endif

// -1 makes MTDeviceCreateList answer null; 0 an empty list.
__attribute__((visibility("default"))) void fakeMTSetDeviceCount(int count) {
    std::lock_guard lock(mutex);
    deviceCount = count < maximumDevices ? count : maximumDevices;
}

__attribute__((visibility("default"))) void fakeMTSetRecording(const unsigned char* records, const std::int32_t* counts,
                                                               const double* timestamps, std::int32_t frames) {
    std::lock_guard lock(mutex);
    recording.clear();
    std::size_t offset = 0;
    for (std::int32_t i = 0; i < frames; ++i) {
        Frame frame;
        frame.count = counts[i];
        frame.timestamp = timestamps[i];
        const std::size_t bytes = counts[i] > 0 ? static_cast<std::size_t>(counts[i]) * 96 : 0;
        frame.records.assign(records + offset, records + offset + bytes);
        offset += bytes;
        recording.push_back(std::move(frame));
    }
}

// Adds a frame that claims `count` contacts but carries no records.
__attribute__((visibility("default"))) void fakeMTAppendNullFrame(std::int32_t count, double timestamp) {
    std::lock_guard lock(mutex);
    Frame frame;
    frame.count = count;
    frame.timestamp = timestamp;
    frame.nullRecords = true;
    recording.push_back(frame);
}

// Waits until every player has finished its recording.
__attribute__((visibility("default"))) void fakeMTWait() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [] { return playing == 0; });
    for (auto& device : devices) {
        if (device.player.joinable()) {
            std::thread player = std::move(device.player);
            lock.unlock();
            player.join();
            lock.lock();
        }
    }
}

__attribute__((visibility("default"))) int fakeMTRegistrations() {
    std::lock_guard lock(mutex);
    return registrations;
}

} // extern "C"

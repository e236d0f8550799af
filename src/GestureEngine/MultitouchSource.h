#pragma once

#include "GestureEngine/TouchSource.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavrick {

class MultitouchError : public std::runtime_error {
public:
    enum class Code { frameworkUnavailable, noDevices, layoutChanged };

    explicit MultitouchError(Code code);
    Code code() const { return code_; }
    static const char* description(Code code);

private:
    Code code_;
};

// The trackpad service's own stream: a private library opened by path at run time, so that the
// program starts even where the library has changed or is gone, and no permission is needed.
//
// The library exports five C functions. `MTDeviceCreateList` answers a null-terminated array of
// opaque device handles that the library owns (this build has no reference counting to apply to
// it); `MTRegisterContactFrameCallback(device, callback)` and `MTUnregisterContactFrameCallback`
// attach and detach the frame callback; `MTDeviceStart(device, 0)` and `MTDeviceStop(device)`
// start and stop delivery, which happens on the library's own thread.
//
// Make it with std::make_shared: the frame callback carries no context and finds the running
// source through a process-wide weak reference.
class MultitouchSource final : public TouchSource, public std::enable_shared_from_this<MultitouchSource> {
public:
    static constexpr const char* frameworkPath =
        "/System/Library/PrivateFrameworks/MultitouchSupport.framework/MultitouchSupport";
    // One contact record, at a fixed stride.
    static constexpr std::size_t recordSize = 96;
    // More contacts than any pad reports: a larger count is a broken frame, not a hand.
    static constexpr std::int32_t maximumContacts = 64;

    // The frame callback's shape: device, records, count, timestamp in seconds, frame number.
    using ContactFrameCallback = int (*)(void* device, const void* records, std::int32_t count, double timestamp,
                                         std::int32_t frameNumber);

    explicit MultitouchSource(std::string libraryPath = frameworkPath);
    ~MultitouchSource() override;

    // Throws `MultitouchError`: `frameworkUnavailable` without the library or one of its
    // symbols, `noDevices` without a trackpad.
    void start() override;
    void stop() override;
    bool isRunning() const override;
    void setOnFrame(OnFrame onFrame) override;
    OnFrame onFrame() const override;

    const std::string& libraryPath() const { return libraryPath_; }

    // Whether a contact state means a finger on the pad: 1, 3 and 4.
    static bool isTouchingState(std::int32_t state);
    // One record at its offsets.
    static Touch touch(const std::byte* record);
    // `count` records from `bytes`. A count the bytes cannot hold reads the whole records that are
    // there and sets `truncated`; a negative count reads none.
    static std::vector<Touch> touches(std::span<const std::byte> bytes, std::int32_t count, bool* truncated = nullptr);

    // The C callback handed to the library.
    static int contactFrame(void* device, const void* records, std::int32_t count, double timestamp,
                            std::int32_t frameNumber);

private:
    void deliver(const TouchFrame& frame);

    const std::string libraryPath_;
    std::mutex control_;
    mutable std::mutex lock_;
    OnFrame onFrame_;
    std::vector<void*> devices_;
    bool running_ = false;
    std::atomic<bool> toldOversized_{false};
};

} // namespace tavrick

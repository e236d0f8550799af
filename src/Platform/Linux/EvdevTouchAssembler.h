#pragma once

#include "GestureEngine/TouchFrame.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// One kernel input event, as a touchpad device delivers it.
struct InputEvent {
    double time = 0;
    std::uint16_t type = 0;
    std::uint16_t code = 0;
    std::int32_t value = 0;
    friend bool operator==(const InputEvent&, const InputEvent&) = default;
};

// The span of one absolute axis, as the device reports it.
struct AxisRange {
    std::int32_t minimum = 0;
    std::int32_t maximum = 0;
    friend bool operator==(const AxisRange&, const AxisRange&) = default;
};

struct TouchpadGeometry {
    AxisRange x;
    AxisRange y;
    // Absent on pads that report no pressure.
    std::optional<AxisRange> pressure;
    int slots = 10;
    friend bool operator==(const TouchpadGeometry&, const TouchpadGeometry&) = default;
};

// Turns the kernel's multitouch protocol B (slots, tracking ids, positions, one report a frame)
// into the same frames the trackpad service gives: pad units from 0 to 1, y growing upwards.
class EvdevTouchAssembler {
public:
    explicit EvdevTouchAssembler(TouchpadGeometry geometry);

    // A frame at each report; nothing in between. After the kernel says it dropped events,
    // everything up to the next report is ignored, since it no longer adds up.
    std::optional<TouchFrame> feed(const InputEvent& event);
    // The frame that says every finger has gone, for a device that vanished mid-contact.
    TouchFrame liftAll(double time);
    // Events that named a slot the device does not have.
    std::size_t ignoredSlotEvents() const { return ignoredSlotEvents_; }

private:
    struct Slot {
        std::int32_t trackingID = -1;
        std::int32_t x = 0;
        std::int32_t y = 0;
        std::int32_t pressure = 0;
    };
    double normalised(std::int32_t value, const AxisRange& range) const;

    TouchpadGeometry geometry_;
    std::vector<Slot> slots_;
    int current_ = 0;
    bool dropping_ = false;
    std::size_t ignoredSlotEvents_ = 0;
};

// A recorded touchpad stream in the text form the tests and the simulated trackpad read:
//   # geometry x 0 1216 y 0 800 pressure 0 255 slots 5
//   E: 0.012000 0003 0039 17
// One "E:" line an event: seconds, type and code in hexadecimal, value in decimal.
struct TouchpadRecording {
    TouchpadGeometry geometry;
    std::vector<InputEvent> events;

    // Throws std::runtime_error naming the line that could not be read.
    static TouchpadRecording parse(const std::string& text);
    // The frames the recording makes, through the assembler.
    std::vector<TouchFrame> frames() const;
};

} // namespace tavrick

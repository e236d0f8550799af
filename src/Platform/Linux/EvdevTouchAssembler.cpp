#include "Platform/Linux/EvdevTouchAssembler.h"

#include <linux/input-event-codes.h>

#include <sstream>
#include <stdexcept>

namespace tavrick {

EvdevTouchAssembler::EvdevTouchAssembler(TouchpadGeometry geometry)
    : geometry_(geometry), slots_(static_cast<std::size_t>(geometry.slots > 0 ? geometry.slots : 1)) {}

double EvdevTouchAssembler::normalised(std::int32_t value, const AxisRange& range) const {
    const double span = static_cast<double>(range.maximum) - static_cast<double>(range.minimum);
    if (span <= 0) return 0;
    return (static_cast<double>(value) - static_cast<double>(range.minimum)) / span;
}

std::optional<TouchFrame> EvdevTouchAssembler::feed(const InputEvent& event) {
    if (event.type == EV_SYN) {
        if (event.code == SYN_DROPPED) {
            dropping_ = true;
            return std::nullopt;
        }
        if (event.code != SYN_REPORT) return std::nullopt;
        if (dropping_) {
            dropping_ = false;
            return std::nullopt;
        }
        TouchFrame frame;
        frame.timestamp = event.time;
        for (const auto& slot : slots_) {
            if (slot.trackingID < 0) continue;
            Touch touch;
            touch.id = slot.trackingID;
            touch.x = normalised(slot.x, geometry_.x);
            // The device counts downwards; the pad's units grow upwards.
            touch.y = 1.0 - normalised(slot.y, geometry_.y);
            touch.pressure = geometry_.pressure ? normalised(slot.pressure, *geometry_.pressure) : 1.0;
            touch.isTouching = true;
            frame.touches.push_back(touch);
        }
        return frame;
    }
    if (dropping_ || event.type != EV_ABS) return std::nullopt;
    if (event.code == ABS_MT_SLOT) {
        current_ = event.value;
        return std::nullopt;
    }
    if (current_ < 0 || static_cast<std::size_t>(current_) >= slots_.size()) {
        switch (event.code) {
        case ABS_MT_TRACKING_ID:
        case ABS_MT_POSITION_X:
        case ABS_MT_POSITION_Y:
        case ABS_MT_PRESSURE: ++ignoredSlotEvents_; break;
        default: break;
        }
        return std::nullopt;
    }
    Slot& slot = slots_[static_cast<std::size_t>(current_)];
    switch (event.code) {
    case ABS_MT_TRACKING_ID: slot.trackingID = event.value; break;
    case ABS_MT_POSITION_X: slot.x = event.value; break;
    case ABS_MT_POSITION_Y: slot.y = event.value; break;
    case ABS_MT_PRESSURE: slot.pressure = event.value; break;
    default: break;
    }
    return std::nullopt;
}

TouchFrame EvdevTouchAssembler::liftAll(double time) {
    for (auto& slot : slots_) slot.trackingID = -1;
    dropping_ = false;
    TouchFrame frame;
    frame.timestamp = time;
    return frame;
}

TouchpadRecording TouchpadRecording::parse(const std::string& text) {
    TouchpadRecording recording;
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    auto fail = [&number](const std::string& why) {
        throw std::runtime_error("line " + std::to_string(number) + " of the touchpad recording: " + why);
    };
    while (std::getline(lines, line)) {
        ++number;
        if (line.empty()) continue;
        std::istringstream words(line);
        std::string head;
        words >> head;
        if (head == "#") {
            std::string word;
            words >> word;
            if (word != "geometry") continue;
            std::string key;
            while (words >> key) {
                if (key == "slots") {
                    if (!(words >> recording.geometry.slots) || recording.geometry.slots < 1) fail("slots must be a count");
                    continue;
                }
                AxisRange range;
                if (!(words >> range.minimum >> range.maximum)) fail("the " + key + " axis needs a minimum and a maximum");
                if (key == "x") {
                    recording.geometry.x = range;
                } else if (key == "y") {
                    recording.geometry.y = range;
                } else if (key == "pressure") {
                    recording.geometry.pressure = range;
                } else {
                    fail("unknown axis “" + key + "”");
                }
            }
            continue;
        }
        if (head != "E:") fail("expected “E:” or “#”");
        InputEvent event;
        std::string type, code;
        if (!(words >> event.time >> type >> code >> event.value)) fail("expected time, type, code and value");
        try {
            std::size_t used = 0;
            event.type = static_cast<std::uint16_t>(std::stoul(type, &used, 16));
            if (used != type.size()) fail("the type is not hexadecimal");
            event.code = static_cast<std::uint16_t>(std::stoul(code, &used, 16));
            if (used != code.size()) fail("the code is not hexadecimal");
        } catch (const std::logic_error&) {
            fail("type and code must be hexadecimal");
        }
        recording.events.push_back(event);
    }
    return recording;
}

std::vector<TouchFrame> TouchpadRecording::frames() const {
    EvdevTouchAssembler assembler(geometry);
    std::vector<TouchFrame> result;
    for (const auto& event : events) {
        if (auto frame = assembler.feed(event)) result.push_back(std::move(*frame));
    }
    return result;
}

} // namespace tavrick

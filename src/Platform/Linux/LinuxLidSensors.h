#pragma once

#include "AwakeKit/LidConditions.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The lid conditions from the kernel, under `root` ("/" on a real machine, a fixture tree in
// tests):
// - the adapter from sys/class/power_supply/*/{type,online}: online when any supply of type
//   "Mains" or "USB" says 1; nothing known when there is no such supply;
// - external displays from sys/class/drm/card*-*/status: "connected" connectors other than the
//   built-in panel kinds (eDP, LVDS, DSI);
// - external keyboards and mice from proc/bus/input/devices: devices with a mouse handler, or a
//   keyboard handler and key repeat, that sit on neither the built-in keyboard controller
//   (i8042), the host bus, I2C, SPI nor a virtual bus;
// - the lid from proc/acpi/button/lid/*/state, closed when one says "closed".
// A file that is missing or cannot be read means what a failed read means for the logic.
namespace LinuxLidSensors {

LidSensors make(std::filesystem::path root = "/");
LidReadings read(const std::filesystem::path& root);

struct InputDevice {
    std::optional<std::string> name;
    unsigned bus = 0;
    std::vector<std::string> handlers;
    unsigned long long events = 0;
};
// The blocks of /proc/bus/input/devices.
std::vector<InputDevice> parseInputDevices(const std::string& text);
bool isExternalKeyboardOrMouse(const InputDevice& device);

} // namespace LinuxLidSensors

} // namespace tavrick

#include "Platform/Linux/LinuxLidSensors.h"

#include "CoreKit/FileIO.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <sstream>
#include <system_error>

namespace tavrick::LinuxLidSensors {

namespace fs = std::filesystem;

namespace {

// Bus numbers of <linux/input.h>.
constexpr unsigned busI2C = 0x18;
constexpr unsigned busHost = 0x19;
constexpr unsigned busI8042 = 0x11;
constexpr unsigned busVirtual = 0x06;
constexpr unsigned busSPI = 0x1C;
constexpr unsigned long long eventRepeat = 1ULL << 0x14;

std::optional<std::string> readTrimmed(const fs::path& path) {
    int error = 0;
    auto text = FileIO::readAll(path, error);
    if (!text) return std::nullopt;
    while (!text->empty() && std::isspace(static_cast<unsigned char>(text->back()))) text->pop_back();
    return text;
}

std::vector<fs::path> children(const fs::path& folder) {
    std::vector<fs::path> out;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) out.push_back(entry.path());
    std::sort(out.begin(), out.end());
    return out;
}

std::optional<bool> readAdapter(const fs::path& root) {
    std::optional<bool> online;
    for (const auto& supply : children(root / "sys/class/power_supply")) {
        const auto type = readTrimmed(supply / "type");
        if (type != "Mains" && type != "USB") continue;
        const auto value = readTrimmed(supply / "online");
        if (!value) continue;
        online = online.value_or(false) || *value == "1";
    }
    return online;
}

int readExternalDisplays(const fs::path& root) {
    int count = 0;
    for (const auto& connector : children(root / "sys/class/drm")) {
        const auto name = connector.filename().string();
        // "card0-HDMI-A-1": a card's connector; "card0" alone is the card.
        const auto dash = name.find('-');
        if (name.rfind("card", 0) != 0 || dash == std::string::npos) continue;
        const auto kind = name.substr(dash + 1);
        if (kind.rfind("eDP", 0) == 0 || kind.rfind("LVDS", 0) == 0 || kind.rfind("DSI", 0) == 0) continue;
        if (readTrimmed(connector / "status") == "connected") ++count;
    }
    return count;
}

bool readLidClosed(const fs::path& root) {
    for (const auto& lid : children(root / "proc/acpi/button/lid")) {
        auto state = readTrimmed(lid / "state");
        if (state && state->find("closed") != std::string::npos) return true;
    }
    return false;
}

} // namespace

std::vector<InputDevice> parseInputDevices(const std::string& text) {
    std::vector<InputDevice> devices;
    std::optional<InputDevice> current;
    std::istringstream lines(text);
    std::string line;
    auto finish = [&] {
        if (current) devices.push_back(std::move(*current));
        current.reset();
    };
    while (std::getline(lines, line)) {
        if (line.empty()) {
            finish();
            continue;
        }
        if (!current) current.emplace();
        if (line.rfind("I:", 0) == 0) {
            if (auto at = line.find("Bus="); at != std::string::npos) {
                current->bus = static_cast<unsigned>(std::strtoul(line.c_str() + at + 4, nullptr, 16));
            }
        } else if (line.rfind("N: Name=", 0) == 0) {
            std::string name = line.substr(8);
            if (name.size() >= 2 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
            if (!name.empty()) current->name = name;
        } else if (line.rfind("H: Handlers=", 0) == 0) {
            std::istringstream handlers(line.substr(12));
            std::string handler;
            while (handlers >> handler) current->handlers.push_back(handler);
        } else if (line.rfind("B: EV=", 0) == 0) {
            current->events = std::strtoull(line.c_str() + 6, nullptr, 16);
        }
    }
    finish();
    return devices;
}

bool isExternalKeyboardOrMouse(const InputDevice& device) {
    if (device.bus == busI8042 || device.bus == busHost || device.bus == busI2C || device.bus == busSPI ||
        device.bus == busVirtual) {
        return false;
    }
    const auto has = [&](auto predicate) { return std::any_of(device.handlers.begin(), device.handlers.end(), predicate); };
    const bool mouse = has([](const std::string& h) { return h.rfind("mouse", 0) == 0; });
    // Power and media buttons have a keyboard handler too, but no key repeat.
    const bool keyboard = has([](const std::string& h) { return h == "kbd"; }) && (device.events & eventRepeat);
    return mouse || keyboard;
}

LidReadings read(const fs::path& root) {
    LidReadings readings;
    readings.onPowerAdapter = readAdapter(root);
    readings.externalDisplays = readExternalDisplays(root);
    int error = 0;
    if (auto devices = FileIO::readAll(root / "proc/bus/input/devices", error)) {
        for (const auto& device : parseInputDevices(*devices)) {
            if (isExternalKeyboardOrMouse(device)) readings.externalInputNames.push_back(device.name);
        }
    }
    readings.lidClosed = readLidClosed(root);
    return readings;
}

LidSensors make(fs::path root) {
    return [root = std::move(root)] { return read(root); };
}

} // namespace tavrick::LinuxLidSensors

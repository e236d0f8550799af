#include "Platform/Linux/LinuxLidSensors.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

using namespace tavrick;
using namespace tavrick::testing;

namespace {
const std::filesystem::path fixtures = std::filesystem::path(TAVRICK_SOURCE_DIR) / "tests/Platform/Fixtures/lid";
} // namespace

TEST(LinuxLidSensors, ReadsEachFixtureMachine) {
    struct Case {
        std::string machine;
        LidConditions expected;
    };
    const std::vector<Case> cases = {
        // A laptop shut on a dock: charging over USB-C while the barrel adapter is out, two
        // monitors, a USB keyboard and a Bluetooth mouse without a name.
        {"docked", {true, 2, {"Keychron Keychron K2", "an external device"}, true}},
        // No power supply at all, no lid: a desktop.
        {"desktop", {true, 1, {"Logitech USB Receiver", "Logitech USB Receiver Mouse"}, false}},
        {"unplugged", {false, 0, {}, false}},
        // Nothing readable: the failed-read meanings.
        {"absent", {true, 0, {}, false}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(LidConditions::read(LinuxLidSensors::make(fixtures / c.machine)), c.expected) << c.machine;
    }
}

TEST(LinuxLidSensors, OnlyKeyboardsAndMiceOffTheBuiltInBusesCount) {
    const std::string devices =
        "I: Bus=0011 Vendor=0001 Product=0001 Version=ab83\n"
        "N: Name=\"AT Translated Set 2 keyboard\"\n"
        "H: Handlers=sysrq kbd leds event3 \n"
        "B: EV=120013\n"
        "\n"
        "I: Bus=0003 Vendor=1 Product=2 Version=3\n"
        "N: Name=\"USB Optical Mouse\"\n"
        "H: Handlers=mouse4 event7\n"
        "B: EV=17\n"
        "\n"
        "I: Bus=0003 Vendor=1 Product=2 Version=3\n"
        "N: Name=\"USB Headset\"\n"
        "H: Handlers=kbd event8\n"
        "B: EV=13\n"
        "\n"
        "I: Bus=0005 Vendor=1 Product=2 Version=3\n"
        "H: Handlers=kbd event9\n"
        "B: EV=100013\n";
    auto parsed = LinuxLidSensors::parseInputDevices(devices);
    ASSERT_EQ(parsed.size(), 4u);
    EXPECT_EQ(parsed[0].bus, 0x11u);
    EXPECT_EQ(parsed[0].name, "AT Translated Set 2 keyboard");
    EXPECT_EQ(parsed[3].name, std::nullopt);
    std::vector<bool> external;
    for (const auto& device : parsed) external.push_back(LinuxLidSensors::isExternalKeyboardOrMouse(device));
    EXPECT_EQ(external, (std::vector<bool>{false, true, false, true}));
}

TEST(LinuxLidSensors, AnUnreadableLidStateCountsAsOpen) {
    TempDir root;
    writeFile(root / "proc/acpi/button/lid/LID0/state", "state:      open\n");
    writeFile(root / "proc/acpi/button/lid/LID1/state", "state:      closed\n");
    EXPECT_TRUE(LinuxLidSensors::read(root.path()).lidClosed);
    std::filesystem::remove(root / "proc/acpi/button/lid/LID1/state");
    std::filesystem::create_directories(root / "proc/acpi/button/lid/LID1/state");  // a folder cannot be read
    EXPECT_FALSE(LinuxLidSensors::read(root.path()).lidClosed);
}

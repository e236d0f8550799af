#pragma once

#include "FanCore/SMC.h"
#include "FanCore/Thermal.h"

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace tavrick {

// The fan controller chip this build simulates. Its state lives in a small file mapped into
// every process that opens it (the application, the helper, a test), so each sees what the
// others wrote: fans that take time to reach their target, modes 0, 1 and 3, die temperatures
// that follow the load, and faults a test can switch on. Each operation holds an exclusive
// lock on the file, which the kernel drops if a holder is killed.
class SimulatedSMC {
public:
    // The helper's write command: the application's reader has none.
    static constexpr std::uint8_t writeKeyCommand = 6;
    static constexpr int maxSensors = 16;

    struct Fan {
        double actual = 0;
        double minimum = 0;
        double maximum = 0;
        double target = 0;
        int mode = 0;
    };

    struct Faults {
        // Another program has the fan in manual mode and keeps writing its target.
        std::optional<int> foreignWriter;
        // A fan that never turns, whatever it is told.
        std::optional<int> stuckFan;
        // The system puts every manual fan back to automatic on each tick.
        bool systemReclaims = false;
        // Every write is refused by the firmware.
        bool writesFail = false;
        // The die sensors stop changing.
        bool sensorsFrozen = false;
    };

    // Opens (and on first use creates) the chip at `path`. Throws std::runtime_error when the
    // file cannot be opened or mapped.
    explicit SimulatedSMC(const std::filesystem::path& path);
    ~SimulatedSMC();
    SimulatedSMC(const SimulatedSMC&) = delete;
    SimulatedSMC& operator=(const SimulatedSMC&) = delete;

    // A fresh chip: `fans` fans with the given range, idle at the minimum in automatic mode,
    // `sensors` die sensors, ambient load. `automaticMode` is what the chip reads when macOS has
    // a fan: 0 on most Macs, 3 on those whose firmware reports "system".
    void reset(int fans = 2, double minimum = 1200, double maximum = 6000, int sensors = 8, int automaticMode = 0,
               bool uppercaseModeKey = false);

    std::vector<Fan> fans();
    std::vector<double> dieTemperatures();
    void setLoad(double load);  // 0...1
    void setSensorCount(int count);
    void setFaults(const Faults& faults);
    Faults faults();
    // As another program would: puts the fan in manual mode at this target.
    void takeFan(int fan, double target);
    // Moves the simulation on by this much of its own time (tests; the chip also follows the
    // system's monotonic clock by itself).
    void elapse(double seconds);

    // The chip as a driver, for SMCReader in either process.
    std::unique_ptr<SMCDriver> driver();
    // Its die sensors.
    std::unique_ptr<DieSensorSource> sensors();

    struct State;

private:
    friend class SimulatedSMCDriver;
    friend class SimulatedDieSensors;
    template <class F>
    auto locked(F&& body);
    void advance(State& state);
    int fd_ = -1;
    State* state_ = nullptr;
    std::mutex mutex_;
};

} // namespace tavrick

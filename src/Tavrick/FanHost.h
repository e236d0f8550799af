#pragma once

#include "CoreKit/Dispatch.h"
#include "FanCore/SMC.h"
#include "FanCore/Thermal.h"
#include "FanKit/FanHelperClient.h"
#include "FanKit/FanHelperInstaller.h"
#include "Platform/Linux/FanHelperLauncher.h"
#include "Platform/Linux/HwmonSensors.h"
#include "Platform/Simulated/SimulatedSMC.h"

#include <memory>
#include <optional>

namespace tavrick {

// Everything fan control stands on in this build: the simulated controller the helper writes,
// the machine's own hwmon fans and temperatures for the readings where it has them, the helper's
// launcher and the way to reach it.
class FanHost {
public:
    FanHost(const std::filesystem::path& supportDirectory, const std::filesystem::path& configDirectory,
            const std::filesystem::path& hwmonRoot = "/sys/class/hwmon");

    FanHelperLauncher& launcher() { return *launcher_; }
    SimulatedSMC& chip() { return *chip_; }
    // What the monitor reads: hwmon where the machine reports fans, else the simulated chip.
    SMCReader& monitorReader() { return *monitorReader_; }
    ThermalSensors& monitorSensors() { return *monitorSensors_; }
    bool readsRealHardware() const { return realFans_; }
    // The simulated chip as the helper sees it.
    SMCReader& chipReader() { return *chipReader_; }
    ThermalSensors& chipSensors() { return *chipSensors_; }
    const std::optional<FanHelperBundle>& bundle() const { return bundle_; }
    std::shared_ptr<FanHelperClient> makeClient(Scheduler& scheduler);

private:
    std::unique_ptr<FanHelperLauncher> launcher_;
    std::unique_ptr<SimulatedSMC> chip_;
    std::unique_ptr<SMCDriver> chipDriver_;
    std::unique_ptr<DieSensorSource> chipSource_;
    std::unique_ptr<SMCReader> chipReader_;
    std::unique_ptr<ThermalSensors> chipSensors_;
    std::unique_ptr<HwmonSMC> hwmon_;
    std::unique_ptr<HwmonTemperatures> hwmonTemperatures_;
    std::unique_ptr<SMCReader> hwmonReader_;
    std::unique_ptr<ThermalSensors> hwmonSensors_;
    SMCReader* monitorReader_ = nullptr;
    ThermalSensors* monitorSensors_ = nullptr;
    bool realFans_ = false;
    std::optional<FanHelperBundle> bundle_;
};

} // namespace tavrick

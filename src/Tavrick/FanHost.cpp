#include "Tavrick/FanHost.h"

#include "CoreKit/AppInfo.h"
#include "SigningCore/CodeIdentity.h"

namespace tavrick {

FanHost::FanHost(const std::filesystem::path& support, const std::filesystem::path& config, const std::filesystem::path& hwmonRoot) {
    auto paths = FanHelperPaths::standard(support, config);
    launcher_ = std::make_unique<FanHelperLauncher>(paths);
    chip_ = std::make_unique<SimulatedSMC>(paths.smc);
    chipDriver_ = chip_->driver();
    chipSource_ = chip_->sensors();
    chipReader_ = std::make_unique<SMCReader>(*chipDriver_);
    chipSensors_ = std::make_unique<ThermalSensors>(*chipSource_);
    hwmon_ = std::make_unique<HwmonSMC>(hwmonRoot);
    hwmonTemperatures_ = std::make_unique<HwmonTemperatures>(hwmonRoot);
    hwmonReader_ = std::make_unique<SMCReader>(*hwmon_);
    hwmonSensors_ = std::make_unique<ThermalSensors>(*hwmonTemperatures_);
    realFans_ = hwmon_->hasFans();
    monitorReader_ = realFans_ ? hwmonReader_.get() : chipReader_.get();
    monitorSensors_ = realFans_ ? hwmonSensors_.get() : chipSensors_.get();
    bundle_ = FanHelperBundle::make(AppInfo::bundleIdentifier(), paths.helperExecutable.string(), CodeIdentity::ownTeamID(),
                                    AppInfo::build());
}

std::shared_ptr<FanHelperClient> FanHost::makeClient(Scheduler& scheduler) {
    auto* launcher = launcher_.get();
    auto expected = bundle_ ? bundle_->bundledHash() : std::nullopt;
    return FanHelperClient::make(std::make_shared<SocketFanHelperConnector>(
                                     launcher->paths().socket, expected,
                                     [launcher](std::string* error) { return launcher->launch(error); }),
                                 scheduler);
}

} // namespace tavrick

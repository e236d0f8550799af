#pragma once

#include "FanCore/SMC.h"
#include "FanCore/Thermal.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tavrick {

// The machine's own fans and temperatures from hwmon, read only. The fans are offered as the
// fan keys of a read-only controller (FNum, F<i>Ac, Mn, Mx, Tg), so the monitor reads them as it
// reads the simulated chip; writes are refused. `root` is /sys/class/hwmon unless a test says.
class HwmonSMC final : public SMCDriver {
public:
    explicit HwmonSMC(std::filesystem::path root = "/sys/class/hwmon");
    // True when the tree has at least one fan.
    bool hasFans() const;
    bool hasService() override;
    std::int32_t openService(std::uint32_t& connection) override;
    std::int32_t callStruct(std::uint32_t connection, std::uint32_t selector, const SMCParamStruct& input,
                            SMCParamStruct& output) override;
    void closeService(std::uint32_t) override {}

private:
    struct Fan {
        std::filesystem::path input, minimum, maximum, target;
    };
    std::vector<Fan> scan() const;
    std::filesystem::path root_;
};

// Every temp*_input of hwmon, named by its label (or its chip and number).
class HwmonTemperatures final : public DieSensorSource {
public:
    explicit HwmonTemperatures(std::filesystem::path root = "/sys/class/hwmon");
    std::vector<std::pair<std::uint64_t, std::string>> enumerate() override;
    std::optional<double> read(std::uint64_t registryID) override;

private:
    std::filesystem::path root_;
    std::vector<std::filesystem::path> inputs_;
};

} // namespace tavrick

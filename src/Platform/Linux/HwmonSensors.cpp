#include "Platform/Linux/HwmonSensors.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <regex>

namespace tavrick {

namespace {
std::optional<double> readNumber(const std::filesystem::path& path) {
    std::ifstream file(path);
    double value;
    if (!(file >> value)) return std::nullopt;
    return value;
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// Chips in name order, and their files by number, so indexes stay put between reads.
std::vector<std::filesystem::path> chips(const std::filesystem::path& root) {
    std::vector<std::filesystem::path> out;
    std::error_code error;
    for (auto it = std::filesystem::directory_iterator(root, error); !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        out.push_back(it->path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::pair<int, std::filesystem::path>> numbered(const std::filesystem::path& chip, const std::string& prefix) {
    std::vector<std::pair<int, std::filesystem::path>> out;
    const std::regex pattern(prefix + "([0-9]+)_input");
    std::error_code error;
    for (auto it = std::filesystem::directory_iterator(chip, error); !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        std::smatch match;
        const std::string name = it->path().filename().string();
        if (std::regex_match(name, match, pattern)) out.push_back({std::stoi(match[1]), it->path()});
    }
    std::sort(out.begin(), out.end());
    return out;
}
} // namespace

HwmonSMC::HwmonSMC(std::filesystem::path root) : root_(std::move(root)) {}

std::vector<HwmonSMC::Fan> HwmonSMC::scan() const {
    std::vector<Fan> fans;
    for (const auto& chip : chips(root_)) {
        for (const auto& [n, input] : numbered(chip, "fan")) {
            const std::string base = "fan" + std::to_string(n) + "_";
            fans.push_back({input, chip / (base + "min"), chip / (base + "max"), chip / (base + "target")});
        }
    }
    if (fans.size() > static_cast<std::size_t>(FanKeys::maxFans)) fans.resize(FanKeys::maxFans);
    return fans;
}

bool HwmonSMC::hasFans() const { return !scan().empty(); }
bool HwmonSMC::hasService() { return true; }

std::int32_t HwmonSMC::openService(std::uint32_t& connection) {
    connection = 1;
    return 0;
}

std::int32_t HwmonSMC::callStruct(std::uint32_t, std::uint32_t, const SMCParamStruct& in, SMCParamStruct& out) {
    out = SMCParamStruct{};
    out.key = in.key;
    const std::string key = FourCC::unpack(in.key);
    auto fans = scan();
    std::optional<SMCValue> value;
    if (key == "FNum") {
        value = SMCValue{"ui8 ", SMCValue::encode(static_cast<std::uint8_t>(fans.size()))};
    } else if (key.size() == 4 && key[0] == 'F' && key[1] >= '0' && key[1] <= '9') {
        const auto fan = static_cast<std::size_t>(key[1] - '0');
        const std::string suffix = key.substr(2);
        if (fan < fans.size()) {
            const auto& f = fans[fan];
            std::optional<double> number;
            if (suffix == "Ac") number = readNumber(f.input);
            else if (suffix == "Mn") number = readNumber(f.minimum).value_or(0);
            else if (suffix == "Mx") number = readNumber(f.maximum).value_or(0);
            else if (suffix == "Tg") number = readNumber(f.target) ? readNumber(f.target) : readNumber(f.input);
            if (number) value = SMCValue{"flt ", SMCValue::encodeFloat(static_cast<float>(*number))};
            else if (suffix == "Ac") out.result = 0x85;  // the file went away or says nothing
        }
    }
    if (out.result != 0) return 0;
    if (!value) {
        out.result = 0x84;
        return 0;
    }
    switch (in.data8) {
    case static_cast<std::uint8_t>(SMCCommand::keyInfo):
        out.keyInfoDataSize = static_cast<std::uint32_t>(value->bytes.size());
        out.keyInfoDataType = *FourCC::pack(value->type);
        return 0;
    case static_cast<std::uint8_t>(SMCCommand::readKey):
        std::memcpy(out.bytes, value->bytes.data(), value->bytes.size());
        return 0;
    default:
        // Read only: nothing here is ever written.
        out.result = 0x86;
        return 0;
    }
}

HwmonTemperatures::HwmonTemperatures(std::filesystem::path root) : root_(std::move(root)) {}

std::vector<std::pair<std::uint64_t, std::string>> HwmonTemperatures::enumerate() {
    inputs_.clear();
    std::vector<std::pair<std::uint64_t, std::string>> out;
    for (const auto& chip : chips(root_)) {
        const std::string chipName = readText(chip / "name");
        for (const auto& [n, input] : numbered(chip, "temp")) {
            std::string label = readText(chip / ("temp" + std::to_string(n) + "_label"));
            if (label.empty()) label = (chipName.empty() ? chip.filename().string() : chipName) + " temp" + std::to_string(n);
            out.push_back({inputs_.size(), label});
            inputs_.push_back(input);
        }
    }
    return out;
}

std::optional<double> HwmonTemperatures::read(std::uint64_t id) {
    if (id >= inputs_.size()) return std::nullopt;
    auto milli = readNumber(inputs_[id]);
    if (!milli) return std::nullopt;
    return *milli / 1000.0;
}

} // namespace tavrick

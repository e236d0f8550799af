#include "Platform/Simulated/SimulatedSMC.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavrick {

namespace {
constexpr std::uint32_t stateMagic = 0x534D4331;  // "SMC1"
constexpr int maxFans = 10;

struct FanSlot {
    double actual;
    double minimum;
    double maximum;
    double target;        // as last written
    double systemTarget;  // what macOS asks for in automatic mode
    std::int32_t mode;
    std::int32_t padding;
};

double monotonicNow() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}
} // namespace

struct SimulatedSMC::State {
    std::uint32_t magic;
    std::int32_t fanCount;
    std::int32_t automaticMode;
    std::int32_t upperModeKey;
    std::int32_t sensorCount;
    std::int32_t foreignWriter;  // -1: none
    std::int32_t stuckFan;       // -1: none
    std::int32_t systemReclaims;
    std::int32_t writesFail;
    std::int32_t sensorsFrozen;
    double load;
    double die;
    double lastMonotonic;
    double extraTime;  // time added by tests
    double simTime;
    double lastReclaim;
    double frozen[SimulatedSMC::maxSensors];
    FanSlot fans[maxFans];
};

namespace {
constexpr std::size_t stateSize = sizeof(SimulatedSMC::State);
}

SimulatedSMC::SimulatedSMC(const std::filesystem::path& path) {
    std::error_code ignored;
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), ignored);
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) throw std::runtime_error("could not open the simulated SMC at " + path.string() + ": " + std::strerror(errno));
    ::flock(fd_, LOCK_EX);
    struct stat info {};
    ::fstat(fd_, &info);
    const bool fresh = static_cast<std::size_t>(info.st_size) < stateSize;
    if (fresh && ::ftruncate(fd_, static_cast<off_t>(stateSize)) != 0) {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
        throw std::runtime_error("could not size the simulated SMC at " + path.string());
    }
    void* mapped = ::mmap(nullptr, stateSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (mapped == MAP_FAILED) {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
        throw std::runtime_error("could not map the simulated SMC at " + path.string());
    }
    state_ = static_cast<State*>(mapped);
    const bool needsReset = state_->magic != stateMagic;
    ::flock(fd_, LOCK_UN);
    if (needsReset) reset();
}

SimulatedSMC::~SimulatedSMC() {
    if (state_) ::munmap(state_, stateSize);
    if (fd_ >= 0) ::close(fd_);
}

template <class F>
auto SimulatedSMC::locked(F&& body) {
    std::lock_guard guard(mutex_);
    ::flock(fd_, LOCK_EX);
    struct Unlock {
        int fd;
        ~Unlock() { ::flock(fd, LOCK_UN); }
    } unlock{fd_};
    advance(*state_);
    return body(*state_);
}

void SimulatedSMC::reset(int fans, double minimum, double maximum, int sensors, int automaticMode, bool uppercaseModeKey) {
    std::lock_guard guard(mutex_);
    ::flock(fd_, LOCK_EX);
    State& s = *state_;
    std::memset(&s, 0, sizeof s);
    s.magic = stateMagic;
    s.fanCount = std::clamp(fans, 0, maxFans);
    s.automaticMode = automaticMode;
    s.upperModeKey = uppercaseModeKey;
    s.sensorCount = std::clamp(sensors, 0, maxSensors);
    s.foreignWriter = -1;
    s.stuckFan = -1;
    s.load = 0.1;
    s.die = 42.0;
    s.lastMonotonic = monotonicNow();
    for (int i = 0; i < s.fanCount; ++i) {
        // Each fan a little different, as on a real machine.
        s.fans[i] = FanSlot{minimum, minimum, maximum + i * 100.0, minimum, minimum, automaticMode, 0};
    }
    ::flock(fd_, LOCK_UN);
}

void SimulatedSMC::advance(State& s) {
    const double now = monotonicNow();
    double dt = std::max(now - s.lastMonotonic, 0.0) + s.extraTime;
    s.lastMonotonic = now;
    s.extraTime = 0;
    // Small steps, so a long gap behaves like the seconds it stands for.
    while (dt > 0) {
        const double step = std::min(dt, 0.1);
        dt -= step;
        s.simTime += step;
        double fraction = 0;
        for (int i = 0; i < s.fanCount; ++i) {
            const auto& f = s.fans[i];
            fraction += (f.actual - f.minimum) / std::max(f.maximum - f.minimum, 1.0);
        }
        if (s.fanCount > 0) fraction /= s.fanCount;
        const double dieTarget = 38.0 + s.load * 57.0 - 8.0 * fraction;
        s.die += (dieTarget - s.die) * (1 - std::exp(-step / 8.0));
        if (s.systemReclaims && s.simTime - s.lastReclaim >= 1.0) {
            for (int i = 0; i < s.fanCount; ++i) {
                if (s.fans[i].mode == 1 && i != s.foreignWriter) s.fans[i].mode = s.automaticMode;
            }
            s.lastReclaim = s.simTime;
        }
        for (int i = 0; i < s.fanCount; ++i) {
            auto& f = s.fans[i];
            f.systemTarget = f.minimum + (f.maximum - f.minimum) * std::clamp((s.die - 65.0) / 30.0, 0.0, 1.0);
            if (i == s.foreignWriter) {
                f.mode = 1;
                f.target = std::round(f.minimum + (f.maximum - f.minimum) * (0.35 + 0.25 * std::sin(s.simTime * 0.7)));
            }
            const double wanted = f.mode == 1 ? f.target : f.systemTarget;
            if (i == s.stuckFan) {
                f.actual = 0;
            } else {
                f.actual += (wanted - f.actual) * (1 - std::exp(-step / 2.5));
            }
        }
    }
}

std::vector<SimulatedSMC::Fan> SimulatedSMC::fans() {
    return locked([](State& s) {
        std::vector<Fan> out;
        for (int i = 0; i < s.fanCount; ++i) {
            const auto& f = s.fans[i];
            out.push_back({f.actual, f.minimum, f.maximum, f.mode == 1 ? f.target : f.systemTarget, f.mode});
        }
        return out;
    });
}

namespace {
std::vector<double> sensorValues(SimulatedSMC::State& s) {
    std::vector<double> out;
    for (int i = 0; i < s.sensorCount; ++i) {
        if (s.sensorsFrozen) {
            out.push_back(s.frozen[i]);
        } else {
            // Live sensors differ a little and change on every read.
            out.push_back(s.die + i * 0.7 - 2.0 + 0.05 * std::sin(s.simTime * 3.0 + i));
        }
    }
    return out;
}
} // namespace

std::vector<double> SimulatedSMC::dieTemperatures() {
    return locked([](State& s) { return sensorValues(s); });
}

void SimulatedSMC::setLoad(double load) {
    locked([load](State& s) {
        s.load = std::clamp(load, 0.0, 1.0);
        return 0;
    });
}

void SimulatedSMC::setSensorCount(int count) {
    locked([count](State& s) {
        s.sensorCount = std::clamp(count, 0, maxSensors);
        return 0;
    });
}

void SimulatedSMC::setFaults(const Faults& faults) {
    locked([&faults](State& s) {
        s.foreignWriter = faults.foreignWriter.value_or(-1);
        s.stuckFan = faults.stuckFan.value_or(-1);
        s.systemReclaims = faults.systemReclaims;
        s.writesFail = faults.writesFail;
        if (faults.sensorsFrozen && !s.sensorsFrozen) {
            auto values = sensorValues(s);
            std::copy(values.begin(), values.end(), s.frozen);
        }
        s.sensorsFrozen = faults.sensorsFrozen;
        return 0;
    });
}

SimulatedSMC::Faults SimulatedSMC::faults() {
    return locked([](State& s) {
        Faults f;
        if (s.foreignWriter >= 0) f.foreignWriter = s.foreignWriter;
        if (s.stuckFan >= 0) f.stuckFan = s.stuckFan;
        f.systemReclaims = s.systemReclaims;
        f.writesFail = s.writesFail;
        f.sensorsFrozen = s.sensorsFrozen;
        return f;
    });
}

void SimulatedSMC::takeFan(int fan, double target) {
    locked([fan, target](State& s) {
        if (fan >= 0 && fan < s.fanCount) {
            s.fans[fan].target = target;
            s.fans[fan].mode = 1;
        }
        return 0;
    });
}

void SimulatedSMC::elapse(double seconds) {
    locked([seconds](State& s) {
        s.extraTime += seconds;
        return 0;
    });
    locked([](State&) { return 0; });
}

// MARK: The driver

class SimulatedSMCDriver final : public SMCDriver {
public:
    explicit SimulatedSMCDriver(SimulatedSMC& chip) : chip_(chip) {}
    bool hasService() override { return true; }
    std::int32_t openService(std::uint32_t& connection) override {
        connection = 1;
        return 0;
    }
    void closeService(std::uint32_t) override {}

    std::int32_t callStruct(std::uint32_t connection, std::uint32_t selector, const SMCParamStruct& in,
                            SMCParamStruct& out) override {
        out = SMCParamStruct{};
        if (connection != 1 || selector != smcSelector) return static_cast<std::int32_t>(0xE00002C2);  // bad argument
        return chip_.locked([&](SimulatedSMC::State& s) { return handle(s, in, out); });
    }

private:
    struct KeyValue {
        std::string type;
        std::vector<std::uint8_t> bytes;
    };

    static std::vector<std::string> keyNames(const SimulatedSMC::State& s) {
        std::vector<std::string> names{"#KEY", "FNum"};
        for (int i = 0; i < s.fanCount; ++i) {
            names.push_back(FanKeys::actual(i));
            names.push_back(FanKeys::minimum(i));
            names.push_back(FanKeys::maximum(i));
            names.push_back(FanKeys::target(i));
            names.push_back(FanKeys::mode(i, s.upperModeKey ? FanLayout::ModeKey::uppercase : FanLayout::ModeKey::lowercase));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::optional<KeyValue> value(const SimulatedSMC::State& s, const std::string& key) {
        if (key == "#KEY") return KeyValue{"ui32", SMCValue::encode(static_cast<std::uint32_t>(keyNames(s).size()))};
        if (key == "FNum") return KeyValue{"ui8 ", SMCValue::encode(static_cast<std::uint8_t>(s.fanCount))};
        if (key.size() != 4 || key[0] != 'F' || key[1] < '0' || key[1] > '9') return std::nullopt;
        const int fan = key[1] - '0';
        if (fan >= s.fanCount) return std::nullopt;
        const auto& f = s.fans[fan];
        const std::string suffix = key.substr(2);
        auto flt = [](double v) { return KeyValue{"flt ", SMCValue::encodeFloat(static_cast<float>(v))}; };
        if (suffix == "Ac") return flt(f.actual);
        if (suffix == "Mn") return flt(f.minimum);
        if (suffix == "Mx") return flt(f.maximum);
        if (suffix == "Tg") return flt(f.mode == 1 ? f.target : f.systemTarget);
        if (suffix == (s.upperModeKey ? "Md" : "md")) return KeyValue{"ui8 ", SMCValue::encode(static_cast<std::uint8_t>(f.mode))};
        return std::nullopt;
    }

    static std::int32_t handle(SimulatedSMC::State& s, const SMCParamStruct& in, SMCParamStruct& out) {
        out.key = in.key;
        switch (in.data8) {
        case static_cast<std::uint8_t>(SMCCommand::keyAtIndex): {
            auto names = keyNames(s);
            if (in.data32 >= names.size()) {
                out.result = 0x84;
            } else {
                out.key = *FourCC::pack(names[in.data32]);
            }
            return 0;
        }
        case static_cast<std::uint8_t>(SMCCommand::keyInfo):
        case static_cast<std::uint8_t>(SMCCommand::readKey): {
            auto v = value(s, FourCC::unpack(in.key));
            if (!v) {
                out.result = 0x84;
                return 0;
            }
            out.keyInfoDataSize = static_cast<std::uint32_t>(v->bytes.size());
            out.keyInfoDataType = *FourCC::pack(v->type);
            if (in.data8 == static_cast<std::uint8_t>(SMCCommand::readKey)) {
                std::memcpy(out.bytes, v->bytes.data(), v->bytes.size());
            }
            return 0;
        }
        case SimulatedSMC::writeKeyCommand: {
            const std::string key = FourCC::unpack(in.key);
            auto v = value(s, key);
            if (!v) {
                out.result = 0x84;
                return 0;
            }
            if (s.writesFail || key == "FNum" || key == "#KEY" || key.ends_with("Ac") || key.ends_with("Mn") ||
                key.ends_with("Mx")) {
                out.result = 0x86;
                return 0;
            }
            if (in.keyInfoDataSize != v->bytes.size()) {
                out.result = 0x87;
                return 0;
            }
            const int fan = key[1] - '0';
            auto& f = s.fans[fan];
            if (key.ends_with("Tg")) {
                float rpm;
                std::memcpy(&rpm, in.bytes, 4);
                f.target = rpm;
            } else if (in.bytes[0] == 0) {
                f.mode = s.automaticMode;
            } else if (in.bytes[0] == 1) {
                f.mode = 1;
            } else {
                out.result = 0x86;
            }
            return 0;
        }
        default: out.result = 0x89; return 0;
        }
    }

    SimulatedSMC& chip_;
};

class SimulatedDieSensors final : public DieSensorSource {
public:
    explicit SimulatedDieSensors(SimulatedSMC& chip) : chip_(chip) {}
    std::vector<std::pair<std::uint64_t, std::string>> enumerate() override {
        const int count = chip_.locked([](SimulatedSMC::State& s) { return s.sensorCount; });
        std::vector<std::pair<std::uint64_t, std::string>> out;
        for (int i = 0; i < count; ++i) out.push_back({0x100000000ULL + static_cast<std::uint64_t>(i), "PMU tdie" + std::to_string(i + 1)});
        return out;
    }
    std::optional<double> read(std::uint64_t registryID) override {
        const auto index = static_cast<std::size_t>(registryID - 0x100000000ULL);
        auto values = chip_.dieTemperatures();
        if (index >= values.size()) return std::nullopt;
        return values[index];
    }

private:
    SimulatedSMC& chip_;
};

std::unique_ptr<SMCDriver> SimulatedSMC::driver() { return std::make_unique<SimulatedSMCDriver>(*this); }
std::unique_ptr<DieSensorSource> SimulatedSMC::sensors() { return std::make_unique<SimulatedDieSensors>(*this); }

} // namespace tavrick

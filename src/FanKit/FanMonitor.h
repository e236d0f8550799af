#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Models.h"
#include "CoreKit/Observable.h"
#include "FanCore/FanPolicy.h"
#include "FanCore/SMC.h"
#include "FanCore/Thermal.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// Fans and chip temperature read straight from the fan controller and the die sensors, with no
// helper and no privileges, so the readings work in every build. Main queue only; reads happen
// on the global pool, one at a time, and only while somebody watches.
class FanMonitor {
public:
    static constexpr double watchedInterval = 2.0;
    static constexpr double readoutInterval = 5.0;

    struct Sample {
        std::optional<FanLayout> layout;
        std::vector<FanReading> fans;
        std::optional<std::string> failure;
        std::vector<double> celsius;
    };

    FanMonitor(Scheduler& scheduler, DiagnosticLog& log, SMCReader& reader, ThermalSensors& sensors);
    ~FanMonitor();

    static std::optional<double> pollInterval(int watchers, bool alwaysOn);
    void addWatcher();
    void removeWatcher();
    void setAlwaysOn(bool on);
    void refresh();
    // Reads once on the calling thread (the command line).
    static Sample read(SMCReader& reader, ThermalSensors& sensors);

    const Observable<std::vector<FanReading>>& fans() const { return fans_; }
    const std::optional<FanLayout>& layout() const { return layout_; }
    const Observable<std::optional<ThermalSummary>>& thermal() const { return thermal_; }
    const Observable<std::optional<std::string>>& failure() const { return failure_; }
    bool hasRead() const { return hasRead_; }
    bool isFanless() const { return layout_ && layout_->isFanless(); }
    std::optional<double> hottest() const { return thermal_.get() ? thermal_.get()->hottest : std::nullopt; }
    int sensorCount() const { return thermal_.get() ? thermal_.get()->validCount : 0; }
    int watchers() const { return watchers_; }

private:
    void reschedule();
    void apply(const Sample& sample);

    Scheduler& scheduler_;
    DiagnosticLog& log_;
    SMCReader& reader_;
    ThermalSensors& sensors_;
    ThermalFilter filter_;
    Observable<std::vector<FanReading>> fans_;
    std::optional<FanLayout> layout_;
    Observable<std::optional<ThermalSummary>> thermal_;
    Observable<std::optional<std::string>> failure_;
    bool hasRead_ = false;
    bool isAlwaysOn_ = false;
    bool isReading_ = false;
    int watchers_ = 0;
    Cancellable timer_;
    std::optional<std::string> loggedFailure_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// Fan readings in words.
namespace FanFormat {
std::string grouped(double x);
std::string rpm(double x);
std::string compact(double x);
std::string degrees(double x);
std::string range(const FanReading& reading);
std::optional<std::string> speeds(const std::vector<FanReading>& fans, bool controlling);
bool areHeld(const std::vector<FanReading>& fans);
bool areStopped(const std::vector<FanReading>& fans);
std::string spinningUp(const std::vector<FanReading>& fans);
std::optional<std::string> floors(const std::vector<FanReading>& fans, double level);
std::optional<std::string> floors(const std::vector<FanReading>& fans, FanPreset preset);
inline constexpr std::size_t readoutWidth = 5;
std::string readout(const std::vector<FanReading>& fans, std::optional<double> hottest);
double rangeFraction(const FanReading& reading);
// "  fan 0  Ac  2400  Mn  1200  Mx  6000  Tg  2400  mode 0"
std::string probeLine(const FanReading& reading);
} // namespace FanFormat

} // namespace tavrick

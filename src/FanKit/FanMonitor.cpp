#include "FanKit/FanMonitor.h"

#include "CoreKit/Log.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tavrick {

FanMonitor::FanMonitor(Scheduler& scheduler, DiagnosticLog& log, SMCReader& reader, ThermalSensors& sensors)
    : scheduler_(scheduler), log_(log), reader_(reader), sensors_(sensors) {}

FanMonitor::~FanMonitor() {
    *alive_ = false;
    timer_.cancel();
}

std::optional<double> FanMonitor::pollInterval(int watchers, bool alwaysOn) {
    if (watchers >= 1) return watchedInterval;
    if (alwaysOn) return readoutInterval;
    return std::nullopt;
}

void FanMonitor::reschedule() {
    timer_.cancel();
    timer_ = {};
    if (auto interval = pollInterval(watchers_, isAlwaysOn_)) {
        std::weak_ptr<bool> alive = alive_;
        timer_ = scheduler_.every(*interval, [this, alive] {
            if (alive.lock()) refresh();
        });
    }
}

void FanMonitor::addWatcher() {
    if (++watchers_ == 1) {
        reschedule();
        refresh();
    }
}

void FanMonitor::removeWatcher() {
    if (watchers_ == 0) return;
    if (--watchers_ == 0) reschedule();
}

void FanMonitor::setAlwaysOn(bool on) {
    if (on == isAlwaysOn_) return;
    isAlwaysOn_ = on;
    reschedule();
    if (on) refresh();
}

FanMonitor::Sample FanMonitor::read(SMCReader& reader, ThermalSensors& sensors) {
    Sample sample;
    try {
        reader.open();
        auto layout = FanKeys::discover(reader);
        sample.layout = layout;
        sample.fans = FanKeys::readFans(reader, layout);
    } catch (const SMCError& error) {
        sample.failure = error.what();
        sample.fans.clear();
        // The next tick starts clean.
        reader.close();
    }
    for (const auto& t : sensors.read()) sample.celsius.push_back(t.celsius);
    return sample;
}

void FanMonitor::refresh() {
    if (isReading_) return;
    isReading_ = true;
    std::weak_ptr<bool> alive = alive_;
    scheduler_.global(QoS::utility, [this, alive] {
        if (!alive.lock()) return;
        auto sample = read(reader_, sensors_);
        scheduler_.async([this, alive, sample] {
            if (alive.lock()) apply(sample);
        });
    });
}

void FanMonitor::apply(const Sample& sample) {
    isReading_ = false;
    if (sample.layout) layout_ = sample.layout;
    fans_.set(sample.fans);
    failure_.set(sample.failure);
    thermal_.set(filter_.assess(sample.celsius, scheduler_.clock().monotonic()));
    if (sample.failure) {
        if (loggedFailure_ != sample.failure) {
            Log::core.error("Could not read the fans: %s", sample.failure->c_str());
            log_.note("fans", "could not read the fans — " + *sample.failure);
            loggedFailure_ = sample.failure;
        }
    } else {
        loggedFailure_.reset();
    }
    hasRead_ = true;
}

namespace FanFormat {

std::string grouped(double x) {
    if (!std::isfinite(x)) return "–";
    long long v = std::llround(x);
    const bool negative = v < 0;
    std::string digits = std::to_string(negative ? -v : v);
    std::string out;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
        out += digits[i];
    }
    return negative ? "-" + out : out;
}

std::string rpm(double x) { return grouped(x) + " rpm"; }

std::string compact(double x) {
    if (!std::isfinite(x)) return "–";
    char buffer[32];
    if (std::fabs(std::round(x)) < 1000) {
        std::snprintf(buffer, sizeof buffer, "%.0f", x);
    } else {
        // Thousands of rpm, one decimal: "2.4k".
        std::snprintf(buffer, sizeof buffer, "%.1fk", x / 1000.0);
    }
    return buffer;
}

std::string degrees(double x) {
    if (!std::isfinite(x)) return "–";
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.0f°", x);
    return buffer;
}

std::string range(const FanReading& r) { return grouped(r.minimum) + "–" + grouped(r.maximum) + " rpm"; }

bool areHeld(const std::vector<FanReading>& fans) {
    return std::any_of(fans.begin(), fans.end(), [](const FanReading& f) { return f.target > 0 && !(f.actual >= 1); });
}

bool areStopped(const std::vector<FanReading>& fans) {
    return std::none_of(fans.begin(), fans.end(), [](const FanReading& f) { return f.actual >= 1; });
}

std::string spinningUp(const std::vector<FanReading>&) { return "Spinning up"; }

std::optional<std::string> speeds(const std::vector<FanReading>& fans, bool controlling) {
    if (fans.empty()) return std::nullopt;
    if (areStopped(fans)) return (controlling || areHeld(fans)) ? spinningUp(fans) : "Off";
    if (fans.size() > 3) {
        auto [slow, fast] = std::minmax_element(fans.begin(), fans.end(),
                                                [](const FanReading& a, const FanReading& b) { return a.actual < b.actual; });
        return grouped(slow->actual) + "–" + grouped(fast->actual) + " rpm";
    }
    std::string out;
    for (const auto& f : fans) {
        if (!out.empty()) out += " · ";
        out += grouped(f.actual);
    }
    return out + " rpm";
}

std::optional<std::string> floors(const std::vector<FanReading>& fans, double level) {
    std::string out;
    for (const auto& f : fans) {
        auto limits = FanLimits::make(f);
        if (!limits) continue;
        if (!out.empty()) out += ", ";
        out += rpm(limits->floor(FanRequest{level, false}));
    }
    if (out.empty()) return std::nullopt;
    return out;
}

std::optional<std::string> floors(const std::vector<FanReading>& fans, FanPreset preset) {
    auto l = level(preset);
    if (!l) return std::nullopt;
    return floors(fans, *l);
}

std::string readout(const std::vector<FanReading>& fans, std::optional<double> hottest) {
    std::string text;
    if (!fans.empty()) {
        double fastest = fans.front().actual;
        for (const auto& f : fans) fastest = std::max(fastest, f.actual);
        text = compact(fastest);
    } else {
        text = hottest ? degrees(*hottest) : "–";
    }
    // Padded by characters, not bytes, so the dash and the degree sign count once.
    std::size_t length = 0;
    for (unsigned char c : text) length += (c & 0xC0) != 0x80;
    while (length < readoutWidth) {
        text = " " + text;
        ++length;
    }
    return text;
}

double rangeFraction(const FanReading& r) {
    if (!(r.maximum > r.minimum) || !std::isfinite(r.actual)) return 0;
    return std::clamp((r.actual - r.minimum) / (r.maximum - r.minimum), 0.0, 1.0);
}

std::string probeLine(const FanReading& r) {
    char buffer[160];
    const std::string mode = r.mode ? std::to_string(*r.mode) : "–";
    std::snprintf(buffer, sizeof buffer, "  fan %d  Ac %5.0f  Mn %5.0f  Mx %5.0f  Tg %5.0f  mode %s", r.index, r.actual,
                  r.minimum, r.maximum, r.target, mode.c_str());
    return buffer;
}

} // namespace FanFormat

} // namespace tavrick

#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace tavrick {

// Watches the helper's control tick from its own thread. While the helper holds fans, a tick
// that has not come for `stall` seconds means the loop is stuck: the emergency hand-back runs,
// and `end` is called once it is done or once `deadline` seconds have passed, whichever is
// first. A stuck helper is not trusted to go on.
class FanWatchdog {
public:
    FanWatchdog(double stall, double deadline, std::function<void()> emergency, std::function<void()> end);
    ~FanWatchdog();
    FanWatchdog(const FanWatchdog&) = delete;
    FanWatchdog& operator=(const FanWatchdog&) = delete;

    void beat();
    void setArmed(bool armed);
    bool hasFired() const { return fired_; }

private:
    static double now();
    double stall_;
    double deadline_;
    std::function<void()> emergency_;
    std::function<void()> end_;
    std::atomic<double> lastBeat_;
    std::atomic<bool> armed_{false};
    std::atomic<bool> fired_{false};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace tavrick

#include "FanHelper/FanWatchdog.h"

#include <chrono>
#include <memory>

namespace tavrick {

double FanWatchdog::now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

FanWatchdog::FanWatchdog(double stall, double deadline, std::function<void()> emergency, std::function<void()> end)
    : stall_(stall), deadline_(deadline), emergency_(std::move(emergency)), end_(std::move(end)), lastBeat_(now()) {
    thread_ = std::thread([this] {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            wake_.wait_for(lock, std::chrono::duration<double>(stall_ / 10));
            if (stopping_ || !armed_ || now() - lastBeat_ < stall_) continue;
            fired_ = true;
            lock.unlock();
            // The hand-back gets its deadline; past it the helper ends regardless.
            struct Finish {
                std::atomic<bool> ended{false};
                std::function<void()> end;
                void operator()() {
                    if (!ended.exchange(true) && end) end();
                }
            };
            auto finish = std::make_shared<Finish>();
            finish->end = end_;
            std::thread([finish, deadline = deadline_] {
                std::this_thread::sleep_for(std::chrono::duration<double>(deadline));
                (*finish)();
            }).detach();
            if (emergency_) emergency_();
            (*finish)();
            return;
        }
    });
}

FanWatchdog::~FanWatchdog() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void FanWatchdog::beat() { lastBeat_ = now(); }

void FanWatchdog::setArmed(bool armed) {
    if (armed && !armed_) beat();
    armed_ = armed;
}

} // namespace tavrick

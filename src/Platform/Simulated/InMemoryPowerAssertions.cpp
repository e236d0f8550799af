#include "Platform/Simulated/InMemoryPowerAssertions.h"

namespace tavrick {

InMemoryPowerAssertions::InMemoryPowerAssertions(std::string why) : why_(std::move(why)) {}

std::optional<std::uint32_t> InMemoryPowerAssertions::create(const std::string& type, const std::string& name, int& error) {
    std::lock_guard lock(mutex_);
    if (refusal_ != 0) {
        error = refusal_;
        return std::nullopt;
    }
    const auto id = nextID_++;
    held_[id] = {type, name};
    return id;
}

void InMemoryPowerAssertions::release(std::uint32_t id) {
    std::lock_guard lock(mutex_);
    held_.erase(id);
}

std::string InMemoryPowerAssertions::describe() const {
    return "an assertion held in memory only (" + why_ + "), so nothing stops the machine idling";
}

void InMemoryPowerAssertions::setRefusal(int error) {
    std::lock_guard lock(mutex_);
    refusal_ = error;
}

std::map<std::uint32_t, std::pair<std::string, std::string>> InMemoryPowerAssertions::held() const {
    std::lock_guard lock(mutex_);
    return held_;
}

} // namespace tavrick

#pragma once

#include "AwakeKit/PowerAssertions.h"

#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace tavrick {

// Holds assertions in memory only: the stand-in where no system bus offers an idle inhibitor.
// Nothing stops the machine idling, and `describe` says so. Scriptable: it can refuse, as a
// platform that turns down an assertion does.
class InMemoryPowerAssertions final : public PowerAssertions {
public:
    explicit InMemoryPowerAssertions(std::string why = "no system bus with logind here");

    std::optional<std::uint32_t> create(const std::string& type, const std::string& name, int& error) override;
    void release(std::uint32_t id) override;
    std::string describe() const override;

    // Every following create fails with `error`; 0 accepts again.
    void setRefusal(int error);
    // Held assertions: id to type and name.
    std::map<std::uint32_t, std::pair<std::string, std::string>> held() const;

private:
    std::string why_;
    mutable std::mutex mutex_;
    std::map<std::uint32_t, std::pair<std::string, std::string>> held_;
    std::uint32_t nextID_ = 1;
    int refusal_ = 0;
};

} // namespace tavrick

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tavrick {

// What keeps the machine from idling to sleep while it is held: the platform's power assertion.
class PowerAssertions {
public:
    virtual ~PowerAssertions() = default;
    // Takes an assertion of `type` ("PreventUserIdleDisplaySleep" or "PreventUserIdleSystemSleep")
    // under `name`, the text a system tool shows beside it. Its identifier (never 0), or nothing
    // with `error` set to the platform's code.
    virtual std::optional<std::uint32_t> create(const std::string& type, const std::string& name, int& error) = 0;
    virtual void release(std::uint32_t id) = 0;
    // What holds the assertion, for the launch log.
    virtual std::string describe() const = 0;
};

} // namespace tavrick

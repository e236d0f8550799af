#pragma once

#include "AwakeKit/PowerAssertions.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace sdbus {
class IConnection;
}

namespace tavrick {

// Power assertions as logind inhibitor locks on the system bus: Inhibit("idle", ...) in "block"
// mode hands back a file descriptor, and the lock holds for as long as it stays open. Both modes
// take the idle lock; keeping the screen lit as well is the screen saver's business, on the
// session bus.
class LogindPowerAssertions final : public PowerAssertions {
public:
    static constexpr const char* service = "org.freedesktop.login1";

    // Over a bus that has logind on it.
    explicit LogindPowerAssertions(std::unique_ptr<sdbus::IConnection> connection, std::string who = "Tavrick");
    ~LogindPowerAssertions() override;

    std::optional<std::uint32_t> create(const std::string& type, const std::string& name, int& error) override;
    void release(std::uint32_t id) override;
    std::string describe() const override;

    // logind's lock kinds for an assertion type: "idle" for both kinds this program takes.
    static std::string inhibitWhat(const std::string& type);

    // Whether `connection`'s bus has logind on it.
    static bool hasLogind(sdbus::IConnection& connection);

    // The logind adapter when the system bus answers and has logind; otherwise the in-memory
    // stand-in, with the reason in `describe()`.
    static std::unique_ptr<PowerAssertions> makeBest();

private:
    std::unique_ptr<sdbus::IConnection> connection_;
    std::string who_;
    std::mutex mutex_;
    std::map<std::uint32_t, int> descriptors_;
    std::uint32_t nextID_ = 1;
};

} // namespace tavrick

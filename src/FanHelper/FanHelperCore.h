#pragma once

#include "FanCore/FanJournal.h"
#include "FanCore/FanPolicy.h"
#include "FanCore/FanProtocol.h"
#include "FanCore/SMC.h"
#include "FanCore/Thermal.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// The helper's control logic, free of sockets and clocks: the server feeds it calls, client
// arrivals and departures and a tick every second, each with the time. It is the only code in
// the program that writes to the fan controller, and every way out of it ends with the fans
// handed back: a client leaving, a doubtful reading, a failed write, a request to stop.
class FanHelperCore {
public:
    using ClientID = std::uint64_t;

    struct Environment {
        SMCReader& reader;
        ThermalSensors& sensors;
        FanJournal& journal;
        std::string build;
        std::optional<std::string> cdhash;
        // Waits between the tries of one hand-back; the real helper sleeps, tests do not.
        std::function<void(double)> pause;
        // Log lines for whoever runs the helper.
        std::function<void(const std::string&)> log;
    };

    explicit FanHelperCore(Environment environment);

    // Reads the journal an earlier run may have left and starts handing those fans back.
    void start(double now, double wall);
    void tick(double now, double wall);

    // The reply's JSON to one call.
    std::string handle(ClientID client, const FanWire::Call& call, double now, double wall);
    void clientLeft(ClientID client, double now, double wall);
    // The machine slept: what was held goes back with `sleeping`, every request stays, and the
    // fans are taken again `wakeSettle` after now.
    void woke(double now, double wall);
    // Told to stop: every fan goes back before the process ends.
    void shutDown(double now, double wall);

    // True once the helper has had nothing to do for `idleExitAfter`.
    bool isIdle(double now, int connectedClients) const;
    // An exitForUpdate was answered and nothing holds the helper.
    bool wantsExit() const { return wantsExit_; }
    bool isControlling() const { return controlling_; }
    FanHelperReply::Status status() const;

    // The watchdog's last resort, over a connection of its own: every fan the journal lists (or,
    // without one, every fan in manual mode) is set to its maximum and given back to macOS.
    // Returns the fans it wrote to.
    static std::vector<int> emergencyHandBack(SMCReader& reader, const FanJournal& journal);

private:
    struct Held {
        FanLimits limits;
        TakeoverDecay decay;
        TargetSmoother smoother;
        ReadBackCheck check;
    };

    void note(const std::string& line) const;
    bool readFans();
    void readTemperature(double now);
    std::optional<FanReason> takeoverRefusal() const;
    void takeOver(double now, double wall);
    void control(double now, double wall);
    bool write(const FanWrite& write);
    static void write(SMCReader& reader, const FanLayout& layout, const FanWrite& write);
    // Parks the fans on the curve and gives them back; false when a fan still reads manual.
    bool handBack(const std::vector<int>& fans, std::optional<FanReason> reason, double now, double wall);
    void end(std::optional<FanReason> reason, double now, double wall);
    void recoverOrphan(double now, double wall);
    std::vector<int> manualFans() const;
    std::optional<std::vector<int>> journalListing() const;

    Environment env_;
    FanOwnership<ClientID> ownership_;
    FanLayout layout_;
    std::vector<FanReading> fans_;
    ThermalFilter filter_;
    ThermalSummary thermal_;
    SafetyCurve curve_;
    std::optional<TemperatureGuard> guard_;
    std::map<int, Held> held_;
    std::map<int, FanTarget> lastTargets_;
    bool controlling_ = false;
    bool safeHold_ = false;
    bool reclaiming_ = false;
    bool recoveredOrphan_ = false;
    bool journalUnreadable_ = false;
    bool wantsExit_ = false;
    std::optional<FanReason> reason_;
    std::optional<FanRelease> lastRelease_;
    std::optional<double> lastModeSwitch_;
    std::optional<double> takeAgainAt_;
    std::optional<double> lastSafeHoldTry_;
    double lastBusy_ = 0;
};

} // namespace tavrick

#pragma once

#include "NetCore/Flow.h"
#include "NetCore/SeenStore.h"

#include <functional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace tavrick {

struct AlertPolicy {
    // After enabling, nothing is alerted for this long.
    double learningPeriod = 900;
    // How long an app's news gathers before it goes out.
    double coalesceWindow = 60;
    // Alerts for all apps together in the last hour.
    int postsPerHour = 12;
    // Alerts for one app in the last hour.
    int digestsPerAppPerHour = 3;
    // Hosts named in one alert.
    int namesInDigest = 3;
    // Hosts kept per pending digest.
    int hostsRemembered = 20;

    static AlertPolicy standard() { return {}; }
    bool operator==(const AlertPolicy&) const = default;
};

struct Alert {
    AppKey app;
    std::string displayName;
    std::vector<std::string> hosts;
    int hostCount = 0;
    bool isNewApp = false;
    // Alerts withheld since the previous one that went out.
    int suppressed = 0;

    std::string title() const;
    std::string body() const;
    bool operator==(const Alert&) const = default;
};

// Decides when the watcher speaks: it learns silently first, gathers a burst of connections
// into one alert per app, caps its rate and says how much it held back. It reads no clock:
// `now` comes in, and the wall clock is asked only for the time a host was last seen.
class AlertEngine {
public:
    using WallClock = std::function<double()>;

    AlertEngine(AlertPolicy policy, double enabledAt, SeenStore seen, std::set<std::string> mutedApps,
                WallClock wallClock);

    const AlertPolicy& policy() const { return policy_; }
    double enabledAt() const { return enabledAt_; }
    bool isLearning(double time) const { return time < enabledAt_ + policy_.learningPeriod; }
    // Enabling again begins a new learning period; rate counters and memory stay.
    void restart(double time);

    std::vector<Alert> observe(const std::vector<Flow>& flows, double now, bool alertOnNewApps, bool alertOnNewHosts);
    // Puts a name in place of an address in every digest still waiting.
    void rename(const std::string& host, const std::string& name);

    std::size_t waitingCount() const { return pending_.size(); }
    int suppressedCount() const { return suppressed_; }

    SeenStore& seen() { return seen_; }
    const SeenStore& seen() const { return seen_; }
    void setSeen(SeenStore seen) { seen_ = std::move(seen); }
    const std::set<std::string>& mutedApps() const { return mutedApps_; }
    void setMutedApps(std::set<std::string> muted) { mutedApps_ = std::move(muted); }

private:
    struct Pending {
        double firstAt = 0;
        std::vector<std::string> hosts;
        int count = 0;
        bool isNewApp = false;
        std::string displayName;
        AppKey app;
        // Arrival order breaks ties between digests started at the same moment.
        std::uint64_t order = 0;
    };
    std::vector<Alert> flush(double now);
    void trim(double now);

    AlertPolicy policy_;
    double enabledAt_;
    SeenStore seen_;
    std::set<std::string> mutedApps_;
    WallClock wallClock_;
    std::unordered_map<AppKey, Pending> pending_;
    std::vector<double> posts_;
    std::unordered_map<AppKey, std::vector<double>> postsByApp_;
    int suppressed_ = 0;
    std::uint64_t nextOrder_ = 0;
};

} // namespace tavrick

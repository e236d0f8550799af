#include "NetCore/AlertEngine.h"

#include <algorithm>

namespace tavrick {

std::string Alert::title() const {
    return displayName + (isNewApp ? " is using the network" : " reached new hosts");
}

std::string Alert::body() const {
    std::string text;
    if (hostCount < 1) {
        text = "A connection was opened.";
    } else if (hostCount == 1 && hosts.size() == 1) {
        text = "Connected to " + hosts[0] + ".";
    } else if (hostCount < 4 && !hosts.empty()) {
        std::string list;
        for (std::size_t i = 0; i < hosts.size(); ++i) {
            if (i > 0) list += i + 1 == hosts.size() ? " and " : ", ";
            list += hosts[i];
        }
        text = "Connected to " + list + ".";
    } else {
        // The plural stays as it is for a single host whose name was cut away.
        text = "Reached ";
        text += std::to_string(hostCount);
        text += " new hosts.";
        if (!hosts.empty()) text += " First was " + hosts[0] + ".";
    }
    if (suppressed >= 1) {
        text += ' ';
        text += std::to_string(suppressed);
        text += " more went unreported while quiet.";
    }
    return text;
}

AlertEngine::AlertEngine(AlertPolicy policy, double enabledAt, SeenStore seen, std::set<std::string> mutedApps,
                         WallClock wallClock)
    : policy_(policy),
      enabledAt_(enabledAt),
      seen_(std::move(seen)),
      mutedApps_(std::move(mutedApps)),
      wallClock_(std::move(wallClock)) {}

void AlertEngine::restart(double time) {
    enabledAt_ = time;
    pending_.clear();
}

std::vector<Alert> AlertEngine::observe(const std::vector<Flow>& flows, double now, bool alertOnNewApps,
                                        bool alertOnNewHosts) {
    const double wall = wallClock_ ? wallClock_() : now;
    for (const Flow& flow : flows) {
        if (flow.state == FlowState::listening || flow.remote.address.empty()) continue;
        const AppKey app{flow.executablePath, flow.name};
        const bool isNewApp = !seen_.knowsApp(app);
        // Memory builds up whatever follows, so what learning or a mute saw is no news later.
        const bool isNewHost = seen_.record(flow.remote.address, app, wall);
        if (mutedApps_.count(flow.executablePath)) continue;
        if (!isNewApp && !isNewHost) continue;
        if (isNewApp ? !alertOnNewApps : !alertOnNewHosts) continue;

        auto [it, inserted] = pending_.try_emplace(app);
        Pending& digest = it->second;
        if (inserted) {
            digest.firstAt = now;
            digest.app = app;
            digest.order = nextOrder_++;
        }
        digest.count += 1;
        digest.isNewApp = digest.isNewApp || isNewApp;
        if (auto owner = ProcessIdentity::owningApp(flow.executablePath)) {
            digest.displayName = *owner;
        } else {
            digest.displayName = flow.name.empty() ? "Unknown" : flow.name;
        }
        if (digest.hosts.size() < static_cast<std::size_t>(std::max(policy_.hostsRemembered, 0)) &&
            std::find(digest.hosts.begin(), digest.hosts.end(), flow.remote.address) == digest.hosts.end()) {
            digest.hosts.push_back(flow.remote.address);
        }
    }
    return flush(now);
}

void AlertEngine::trim(double now) {
    const double horizon = now - 3600;
    auto old = [horizon](double t) { return t < horizon; };
    posts_.erase(std::remove_if(posts_.begin(), posts_.end(), old), posts_.end());
    for (auto it = postsByApp_.begin(); it != postsByApp_.end();) {
        auto& times = it->second;
        times.erase(std::remove_if(times.begin(), times.end(), old), times.end());
        it = times.empty() ? postsByApp_.erase(it) : std::next(it);
    }
}

std::vector<Alert> AlertEngine::flush(double now) {
    trim(now);
    std::vector<const Pending*> due;
    for (auto& [app, digest] : pending_) {
        if (now - digest.firstAt >= policy_.coalesceWindow) due.push_back(&digest);
    }
    std::sort(due.begin(), due.end(), [](const Pending* a, const Pending* b) {
        return a->firstAt != b->firstAt ? a->firstAt < b->firstAt : a->order < b->order;
    });

    std::vector<Alert> alerts;
    for (const Pending* entry : due) {
        Pending digest = *entry;
        pending_.erase(digest.app);
        if (isLearning(now)) continue;
        // The mute may have come after the news was gathered.
        if (mutedApps_.count(digest.app.executablePath)) continue;
        auto& appPosts = postsByApp_[digest.app];
        if (posts_.size() >= static_cast<std::size_t>(policy_.postsPerHour) ||
            appPosts.size() >= static_cast<std::size_t>(policy_.digestsPerAppPerHour)) {
            suppressed_ += 1;
            if (appPosts.empty()) postsByApp_.erase(digest.app);
            continue;
        }
        Alert alert;
        alert.app = digest.app;
        alert.displayName = digest.displayName;
        const std::size_t names = static_cast<std::size_t>(std::max(policy_.namesInDigest, 1));
        alert.hosts.assign(digest.hosts.begin(), digest.hosts.begin() + std::min(names, digest.hosts.size()));
        alert.hostCount = digest.count;
        alert.isNewApp = digest.isNewApp;
        alert.suppressed = suppressed_;
        suppressed_ = 0;
        posts_.push_back(now);
        appPosts.push_back(now);
        alerts.push_back(std::move(alert));
    }
    return alerts;
}

void AlertEngine::rename(const std::string& host, const std::string& name) {
    for (auto& [app, digest] : pending_) {
        std::replace(digest.hosts.begin(), digest.hosts.end(), host, name);
    }
}

} // namespace tavrick

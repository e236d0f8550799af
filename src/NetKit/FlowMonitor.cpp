#include "NetKit/FlowMonitor.h"

#include "CoreKit/DiagnosticLog.h"
#include "NetKit/NetLog.h"

#include <algorithm>
#include <cassert>
#include <unordered_map>
#include <unordered_set>

namespace tavrick {

namespace {
std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string describe(const FlowScope& scope) {
    if (auto polled = std::get_if<FlowScope::OwnUserPolled>(&scope.value)) {
        return "this user's connections, read every " + std::to_string(polled->seconds) + " s";
    }
    return "every connection on this machine";
}
} // namespace

std::shared_ptr<FlowMonitor> FlowMonitor::make(Services services, const std::filesystem::path& directory,
                                               std::set<std::string> muted, bool alertOnNewApps, bool alertOnNewHosts,
                                               int sampleSeconds, double learningStartedAt, SourceFactory makeSource) {
    return std::shared_ptr<FlowMonitor>(new FlowMonitor(std::move(services), directory, std::move(muted), alertOnNewApps,
                                                        alertOnNewHosts, sampleSeconds, learningStartedAt,
                                                        std::move(makeSource)));
}

FlowMonitor::FlowMonitor(Services services, const std::filesystem::path& directory, std::set<std::string> muted,
                         bool alertOnNewApps, bool alertOnNewHosts, int sampleSeconds, double learningStartedAt,
                         SourceFactory makeSource)
    : services_(std::move(services)),
      store_{directory / SeenFile::fileName, services_.log, [clock = &services_.scheduler.clock()] { return clock->now(); }},
      engine_(AlertPolicy::standard(), learningStartedAt > 0 ? learningStartedAt : services_.scheduler.clock().now(),
              store_.load(), muted, [clock = &services_.scheduler.clock()] { return clock->now(); }),
      muted_(std::move(muted)),
      alertOnNewApps_(alertOnNewApps),
      alertOnNewHosts_(alertOnNewHosts),
      sampleSeconds_(sampleSeconds),
      makeSource_(std::move(makeSource)) {}

FlowMonitor::~FlowMonitor() {
    saveWork_.cancel();
    if (source_) {
        source_->setOnFlows(nullptr);
        source_->stop();
    }
}

void FlowMonitor::addWatcher() {
    assert(services_.scheduler.isMainThread());
    watchers_ += 1;
    if (watchers_ == 1) start();
}

void FlowMonitor::removeWatcher() {
    assert(services_.scheduler.isMainThread());
    if (watchers_ == 0) return;
    watchers_ -= 1;
    if (watchers_ == 0) {
        stopSource();
        saveWork_.cancel();
        saveWork_ = Cancellable();
        saveNow();
    }
}

void FlowMonitor::start() {
    if (source_) return;
    std::weak_ptr<FlowMonitor> weak = weak_from_this();
    Scheduler* scheduler = &services_.scheduler;
    resolver_ = HostResolver::make(services_.lookup, services_.scheduler,
                                   [weak, scheduler](const std::string& address, const std::string& name) {
                                       scheduler->async([weak, address, name] {
                                           auto self = weak.lock();
                                           if (!self) return;
                                           self->names_[address] = name;
                                           // Names of connections long gone go first; the
                                           // resolver's cache still has them for a while.
                                           if (self->names_.size() > ResolverCache::capacity) self->pruneNames();
                                           self->engine_.rename(address, name);
                                           self->rebuild();
                                       });
                                   });

    if (preferExtension_ && services_.makeExtensionSource) {
        if (startSource(services_.makeExtensionSource(extensionSeconds))) return;
        // With less sight the watcher still works; it does not give up.
        NetLog::network.notice("falling back to the socket table");
        if (services_.log) services_.log->note("network", "falling back to the socket table");
        source_.reset();
    }
    if (!startSource(makeSource_ ? makeSource_(sampleSeconds_) : nullptr)) {
        if (source_) source_->setOnFlows(nullptr);
        source_.reset();
        resolver_.reset();
        isRunning_.set(false);
    }
}

bool FlowMonitor::startSource(std::shared_ptr<FlowSource> source) {
    if (!source) return false;
    const std::uint64_t generation = ++generation_;
    std::weak_ptr<FlowMonitor> weak = weak_from_this();
    Scheduler* scheduler = &services_.scheduler;
    source->setOnFlows([weak, scheduler, generation](const std::vector<Flow>& flows) {
        scheduler->async([weak, generation, flows] {
            auto self = weak.lock();
            if (self && self->generation_ == generation && self->source_) self->received(flows);
        });
    });
    source_ = source;
    isRunning_.set(true);
    scope_.set(source->scope());
    try {
        source->start();
    } catch (const std::exception& error) {
        NetLog::network.error("Network monitor could not start: %s", error.what());
        if (services_.log) services_.log->note("network", std::string("could not start: ") + error.what());
        source->setOnFlows(nullptr);
        return false;
    }
    if (services_.log) services_.log->note("network", "watching " + describe(source->scope()));
    return true;
}

void FlowMonitor::stopSource() {
    generation_ += 1;
    if (source_) {
        source_->setOnFlows(nullptr);
        source_->stop();
        if (services_.log) services_.log->note("network", "stopped watching");
    }
    source_.reset();
    resolver_.reset();
    isRunning_.set(false);
    apps_.set({});
    flowCount_.set(0);
    latest_.clear();
}

void FlowMonitor::useExtension(bool prefer) {
    if (prefer == preferExtension_) return;
    preferExtension_ = prefer;
    if (watchers_ > 0) {
        stopSource();
        start();
    }
}

void FlowMonitor::apply(std::set<std::string> muted, bool alertOnNewApps, bool alertOnNewHosts, int sampleSeconds) {
    muted_ = std::move(muted);
    engine_.setMutedApps(muted_);
    alertOnNewApps_ = alertOnNewApps;
    alertOnNewHosts_ = alertOnNewHosts;
    if (sampleSeconds != sampleSeconds_) {
        sampleSeconds_ = sampleSeconds;
        if (source_) {
            stopSource();
            saveNow();
            start();
            return;
        }
    }
    rebuild();
}

double FlowMonitor::beginLearning() {
    const double now = services_.scheduler.clock().now();
    engine_.restart(now);
    return now;
}

void FlowMonitor::mute(const AppKey& app) {
    muted_.insert(app.executablePath);
    engine_.setMutedApps(muted_);
    rebuild();
}

void FlowMonitor::unmute(const AppKey& app) {
    muted_.erase(app.executablePath);
    engine_.setMutedApps(muted_);
    rebuild();
}

std::string FlowMonitor::label(const std::string& address) {
    if (auto it = names_.find(address); it != names_.end()) return it->second;
    if (resolver_) return resolver_->label(address);
    return address;
}

void FlowMonitor::flush() {
    if (!saveWork_ || saveWork_.isCancelled()) return;
    saveWork_.cancel();
    saveWork_ = Cancellable();
    saveNow();
}

void FlowMonitor::pruneNames() {
    std::set<std::string> current;
    for (const auto& flow : latest_) current.insert(flow.remote.address);
    for (auto it = names_.begin(); it != names_.end();) {
        it = current.count(it->first) ? std::next(it) : names_.erase(it);
    }
}

void FlowMonitor::forgetEverything() {
    engine_.setSeen(SeenStore{});
    names_.clear();
    saveWork_.cancel();
    saveWork_ = Cancellable();
    saveNow();
    rebuild();
}

void FlowMonitor::received(const std::vector<Flow>& flows) {
    latest_ = flows;
    const double now = services_.scheduler.clock().now();
    const auto alerts = engine_.observe(flows, now, alertOnNewApps_, alertOnNewHosts_);
    if (!alerts.empty()) {
        auto recent = recentAlerts_.get();
        for (const auto& alert : alerts) {
            recent.push_back(alert);
            if (recent.size() > recentAlertsKept) recent.erase(recent.begin());
        }
        recentAlerts_.set(recent);
        for (const auto& alert : alerts) {
            if (services_.log) {
                services_.log->note("network", "alert: " + alert.title() + " (" + std::to_string(alert.hostCount) +
                                                   " new, " + std::to_string(alert.suppressed) + " withheld before)");
            }
            if (onAlert) onAlert(alert);
        }
    }
    if (resolver_) {
        std::set<std::string> unnamed;
        for (const auto& flow : flows) {
            if (!flow.remote.address.empty() && !names_.count(flow.remote.address)) unnamed.insert(flow.remote.address);
        }
        if (!unnamed.empty()) resolver_->resolve({unnamed.begin(), unnamed.end()});
    }
    rebuild();
    save();
}

void FlowMonitor::rebuild() {
    const double now = services_.scheduler.clock().now();
    struct Group {
        AppKey app;
        std::unordered_map<FlowKey, Flow> byKey;
        std::vector<FlowKey> order;
    };
    std::unordered_map<std::string, std::size_t> index;
    std::vector<Group> groups;
    for (const auto& flow : latest_) {
        // Programs without a path are told apart by name.
        const std::string groupKey = flow.executablePath.empty() ? "\n" + flow.name : flow.executablePath;
        auto [it, inserted] = index.try_emplace(groupKey, groups.size());
        if (inserted) groups.push_back(Group{AppKey{flow.executablePath, flow.name}, {}, {}});
        Group& group = groups[it->second];
        const FlowKey key = flow.id();
        auto existing = group.byKey.find(key);
        if (existing == group.byKey.end()) {
            group.byKey.emplace(key, flow);
            group.order.push_back(key);
        } else if (flow.lastSeen > existing->second.lastSeen) {
            existing->second = flow;
        }
    }

    std::vector<AppFlows> apps;
    int flowCount = 0;
    for (auto& group : groups) {
        AppFlows entry;
        entry.app = group.app;
        entry.executablePath = group.app.executablePath;
        entry.displayName = ProcessIdentity::displayName(group.app.executablePath, group.app.fallbackName);
        std::set<std::int32_t> pids;
        std::unordered_set<std::string> hosts;
        for (const auto& key : group.order) {
            const Flow& flow = group.byKey.at(key);
            entry.flows.push_back(flow);
            pids.insert(flow.pid);
            if (!flow.remote.address.empty()) hosts.insert(flow.remote.address);
            if (now - flow.firstSeen < newHostWindow) {
                entry.lastNewHost = std::max(entry.lastNewHost.value_or(flow.firstSeen), flow.firstSeen);
            }
        }
        entry.pids.assign(pids.begin(), pids.end());
        entry.hostCount = static_cast<int>(hosts.size());
        entry.isMuted = muted_.count(group.app.executablePath) > 0;
        entry.isSystem = ProcessIdentity::isSystemPath(group.app.executablePath);
        flowCount += static_cast<int>(entry.flows.size());
        apps.push_back(std::move(entry));
    }
    // On screen: the programs a person runs first, then system ones, then muted ones; by name
    // within each, without regard to case.
    std::sort(apps.begin(), apps.end(), [](const AppFlows& a, const AppFlows& b) {
        auto rank = [](const AppFlows& x) { return (x.isMuted ? 2 : 0) + (x.isSystem ? 1 : 0); };
        if (rank(a) != rank(b)) return rank(a) < rank(b);
        auto an = lowercased(a.displayName), bn = lowercased(b.displayName);
        if (an != bn) return an < bn;
        return a.executablePath < b.executablePath;
    });
    apps_.set(std::move(apps));
    flowCount_.set(flowCount);
}

void FlowMonitor::save() {
    if (saveWork_ && !saveWork_.isCancelled()) return;
    std::weak_ptr<FlowMonitor> weak = weak_from_this();
    saveWork_ = services_.scheduler.after(saveDelaySeconds, [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->saveWork_ = Cancellable();
        self->saveNow();
    });
}

void FlowMonitor::saveNow() {
    store_.save(engine_.seen());
}

} // namespace tavrick

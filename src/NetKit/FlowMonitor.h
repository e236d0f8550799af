#pragma once

#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"
#include "NetCore/AlertEngine.h"
#include "NetCore/Flow.h"
#include "NetKit/HostResolver.h"
#include "NetKit/SeenFile.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavrick {

class DiagnosticLog;

// One program in the list.
struct AppFlows {
    AppKey app;
    std::string displayName;
    std::string executablePath;
    std::vector<std::int32_t> pids;
    std::vector<Flow> flows;
    // Distinct remote hosts.
    int hostCount = 0;
    // The newest first sighting among connections less than five minutes old.
    std::optional<double> lastNewHost;
    bool isMuted = false;
    bool isSystem = false;
    bool operator==(const AppFlows& other) const {
        return app.executablePath == other.app.executablePath && app.fallbackName == other.app.fallbackName &&
               displayName == other.displayName && executablePath == other.executablePath && pids == other.pids &&
               flows == other.flows && hostCount == other.hostCount && lastNewHost == other.lastNewHost &&
               isMuted == other.isMuted && isSystem == other.isSystem;
    }
};

// The watcher the interface looks at: it owns a source, a resolver and the alert engine, turns
// each batch of flows into programs, passes alerts on and saves what it learned. It runs only
// while someone watches. Main thread only.
class FlowMonitor : public std::enable_shared_from_this<FlowMonitor> {
public:
    using SourceFactory = std::function<std::shared_ptr<FlowSource>(int seconds)>;
    static constexpr std::size_t recentAlertsKept = 20;
    static constexpr double saveDelaySeconds = 30;
    // How far back a connection's first sighting counts as a new host for the list.
    static constexpr double newHostWindow = 300;
    // The extension is read at this period whatever the sample setting says.
    static constexpr int extensionSeconds = 2;

    // What the monitor is made over besides its settings.
    struct Services {
        Scheduler& scheduler;
        DiagnosticLog* log = nullptr;
        HostLookup lookup;
        // The filter extension's source; may be empty, when the extension is never tried.
        SourceFactory makeExtensionSource;
    };

    // The seen file is "network-seen.json" in `directory`. A `learningStartedAt` above 0 is
    // the engine's start, so a learning period survives a relaunch; otherwise it starts now.
    static std::shared_ptr<FlowMonitor> make(Services services, const std::filesystem::path& directory,
                                             std::set<std::string> muted, bool alertOnNewApps, bool alertOnNewHosts,
                                             int sampleSeconds, double learningStartedAt, SourceFactory makeSource);
    ~FlowMonitor();

    const Observable<std::vector<AppFlows>>& apps() const { return apps_; }
    const Observable<int>& flowCount() const { return flowCount_; }
    const Observable<std::vector<Alert>>& recentAlerts() const { return recentAlerts_; }
    const Observable<bool>& isRunning() const { return isRunning_; }
    const Observable<FlowScope>& scope() const { return scope_; }
    std::function<void(const Alert&)> onAlert;

    void addWatcher();
    void removeWatcher();
    int watcherCount() const { return watchers_; }
    void useExtension(bool prefer);
    void apply(std::set<std::string> muted, bool alertOnNewApps, bool alertOnNewHosts, int sampleSeconds);
    // Starts a new learning period now and returns its start, for the settings.
    double beginLearning();
    bool isLearning(double time) const { return engine_.isLearning(time); }
    double learningEndsAt() const { return engine_.enabledAt() + engine_.policy().learningPeriod; }
    void mute(const AppKey& app);
    void unmute(const AppKey& app);
    std::vector<std::string> mutedPaths() const { return {muted_.begin(), muted_.end()}; }
    std::string label(const std::string& address);
    std::size_t seenAppCount() const { return engine_.seen().appCount(); }
    void forgetEverything();
    // Writes what was learned now, instead of at the end of the debounce (on quitting).
    void flush();

    int sampleSeconds() const { return sampleSeconds_; }
    bool alertsOnNewApps() const { return alertOnNewApps_; }
    bool alertsOnNewHosts() const { return alertOnNewHosts_; }
    bool prefersExtension() const { return preferExtension_; }
    const std::filesystem::path& seenFileURL() const { return store_.url; }
    // The source in use, for diagnostics and tests.
    std::shared_ptr<FlowSource> source() const { return source_; }

    // A batch from the current source, on the main thread.
    void received(const std::vector<Flow>& flows);

private:
    FlowMonitor(Services services, const std::filesystem::path& directory, std::set<std::string> muted,
                bool alertOnNewApps, bool alertOnNewHosts, int sampleSeconds, double learningStartedAt,
                SourceFactory makeSource);
    void start();
    bool startSource(std::shared_ptr<FlowSource> source);
    void stopSource();
    void rebuild();
    void save();
    void saveNow();
    void pruneNames();

    Services services_;
    SeenFile store_;
    AlertEngine engine_;
    std::set<std::string> muted_;
    bool alertOnNewApps_;
    bool alertOnNewHosts_;
    int sampleSeconds_;
    SourceFactory makeSource_;
    bool preferExtension_ = false;
    int watchers_ = 0;

    std::shared_ptr<FlowSource> source_;
    std::shared_ptr<HostResolver> resolver_;
    // Batches of a source that has since been replaced are dropped by this count.
    std::uint64_t generation_ = 0;
    std::map<std::string, std::string> names_;
    std::vector<Flow> latest_;
    Cancellable saveWork_;

    Observable<std::vector<AppFlows>> apps_;
    Observable<int> flowCount_{0};
    Observable<std::vector<Alert>> recentAlerts_;
    Observable<bool> isRunning_{false};
    Observable<FlowScope> scope_{FlowScope::ownUserPolled(3)};
};

} // namespace tavrick

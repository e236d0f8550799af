#pragma once

#include "CoreKit/Dispatch.h"
#include "NetCore/ResolverCache.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavrick {

// What the resolver needs from the system: a blocking reverse lookup, the machine's DNS servers
// (never asked about themselves) and a way to run a blocking call off the resolver's context.
struct HostLookup {
    std::function<std::optional<std::string>(const std::string& address)> reverseLookup;
    std::function<std::set<std::string>()> dnsServers;
    // Runs a blocking task somewhere else; by default on a thread of its own.
    std::function<void(Task)> detach;
};

// Reverse lookups with a cache and at most four at a time, reported as they arrive. All state
// lives on one serial queue; the lookups themselves run outside it, so a resolver that hangs
// holds four threads at most and never the queue.
class HostResolver : public std::enable_shared_from_this<HostResolver> {
public:
    static constexpr int concurrency = 4;
    // Past this many queued addresses new ones are left for a later sample, so a resolver
    // that hangs while a program sweeps the address space holds a bounded queue.
    static constexpr std::size_t waitingLimit = 4096;
    static constexpr const char* queueLabel = "com.orvell.tavrick.resolver";

    using ResolvedCallback = std::function<void(const std::string& address, const std::string& name)>;

    static std::shared_ptr<HostResolver> make(HostLookup lookup, Scheduler& scheduler, ResolvedCallback onResolved);

    // The cached name or the address; waits for the resolver's queue.
    std::string label(const std::string& address);
    // Queues what needs a lookup, in order, and starts up to four.
    void resolve(const std::vector<std::string>& addresses);

    // For tests and diagnostics; each waits for the queue.
    int runningCount();
    std::size_t waitingCount();
    std::size_t cacheCount();

private:
    HostResolver(HostLookup lookup, Scheduler& scheduler, ResolvedCallback onResolved);
    void enqueue(const std::vector<std::string>& addresses);
    void pump();
    void finished(const std::string& address, const std::optional<std::string>& name);
    const std::set<std::string>& dnsServers();

    HostLookup lookup_;
    Scheduler& scheduler_;
    ResolvedCallback onResolved_;
    std::shared_ptr<SerialQueue> queue_;

    // Touched only on `queue_`.
    ResolverCache cache_;
    std::set<std::string> inFlight_;
    std::deque<std::string> waiting_;
    int running_ = 0;
    std::optional<std::set<std::string>> dnsServers_;
};

} // namespace tavrick

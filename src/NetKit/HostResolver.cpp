#include "NetKit/HostResolver.h"

#include "NetCore/Flow.h"

#include <thread>

namespace tavrick {

std::shared_ptr<HostResolver> HostResolver::make(HostLookup lookup, Scheduler& scheduler, ResolvedCallback onResolved) {
    return std::shared_ptr<HostResolver>(new HostResolver(std::move(lookup), scheduler, std::move(onResolved)));
}

HostResolver::HostResolver(HostLookup lookup, Scheduler& scheduler, ResolvedCallback onResolved)
    : lookup_(std::move(lookup)),
      scheduler_(scheduler),
      onResolved_(std::move(onResolved)),
      queue_(scheduler.makeSerialQueue(queueLabel, QoS::utility)) {
    if (!lookup_.reverseLookup) lookup_.reverseLookup = [](const std::string&) { return std::optional<std::string>(); };
    if (!lookup_.detach) {
        lookup_.detach = [](Task task) { std::thread(std::move(task)).detach(); };
    }
}

std::string HostResolver::label(const std::string& address) {
    std::string result = address;
    const double now = scheduler_.clock().now();
    queue_->sync([&] { result = cache_.label(address, now); });
    return result;
}

void HostResolver::resolve(const std::vector<std::string>& addresses) {
    std::weak_ptr<HostResolver> weak = weak_from_this();
    queue_->async([weak, addresses] {
        if (auto self = weak.lock()) self->enqueue(addresses);
    });
}

const std::set<std::string>& HostResolver::dnsServers() {
    if (!dnsServers_) dnsServers_ = lookup_.dnsServers ? lookup_.dnsServers() : std::set<std::string>{};
    return *dnsServers_;
}

void HostResolver::enqueue(const std::vector<std::string>& addresses) {
    const double now = scheduler_.clock().now();
    for (const auto& address : addresses) {
        if (address.empty() || Endpoint::isPrivateAddress(address)) continue;
        if (cache_.lookup(address, now)) continue;
        if (inFlight_.count(address)) continue;
        if (waiting_.size() >= waitingLimit) continue;
        // Asking a DNS server about itself would cost a lookup every sample.
        if (dnsServers().count(address)) {
            cache_.store(ResolverCache::Answer::none(), address, now);
            continue;
        }
        inFlight_.insert(address);
        waiting_.push_back(address);
    }
    pump();
}

void HostResolver::pump() {
    std::weak_ptr<HostResolver> weak = weak_from_this();
    while (running_ < concurrency && !waiting_.empty()) {
        std::string address = std::move(waiting_.front());
        waiting_.pop_front();
        running_ += 1;
        auto reverseLookup = lookup_.reverseLookup;
        auto queue = queue_;
        lookup_.detach([weak, queue, reverseLookup, address] {
            std::optional<std::string> name = reverseLookup(address);
            queue->async([weak, address, name] {
                if (auto self = weak.lock()) self->finished(address, name);
            });
        });
    }
}

void HostResolver::finished(const std::string& address, const std::optional<std::string>& name) {
    // A failed lookup waits out the negative lifetime before it is tried again.
    cache_.store(name ? ResolverCache::Answer::named(*name) : ResolverCache::Answer::none(), address,
                 scheduler_.clock().now());
    inFlight_.erase(address);
    running_ -= 1;
    pump();
    if (name && onResolved_) onResolved_(address, *name);
}

int HostResolver::runningCount() {
    int count = 0;
    queue_->sync([&] { count = running_; });
    return count;
}

std::size_t HostResolver::waitingCount() {
    std::size_t count = 0;
    queue_->sync([&] { count = waiting_.size(); });
    return count;
}

std::size_t HostResolver::cacheCount() {
    std::size_t count = 0;
    queue_->sync([&] { count = cache_.count(); });
    return count;
}

} // namespace tavrick

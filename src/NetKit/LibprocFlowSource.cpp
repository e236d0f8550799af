#include "NetKit/LibprocFlowSource.h"

namespace tavrick {

std::shared_ptr<LibprocFlowSource> LibprocFlowSource::make(int seconds, std::shared_ptr<SocketTableReader> table,
                                                           Scheduler& scheduler, std::int32_t ownPID) {
    return std::shared_ptr<LibprocFlowSource>(new LibprocFlowSource(seconds, std::move(table), scheduler, ownPID));
}

LibprocFlowSource::LibprocFlowSource(int seconds, std::shared_ptr<SocketTableReader> table, Scheduler& scheduler,
                                     std::int32_t ownPID)
    : seconds_(seconds < 1 ? 1 : seconds),
      table_(std::move(table)),
      scheduler_(scheduler),
      ownPID_(ownPID),
      queue_(scheduler.makeSerialQueue(queueLabel, QoS::utility)) {}

LibprocFlowSource::~LibprocFlowSource() {
    std::lock_guard lock(lock_);
    timer_.cancel();
}

void LibprocFlowSource::start() {
    std::weak_ptr<LibprocFlowSource> weak = weak_from_this();
    auto queue = queue_;
    auto tick = [weak, queue] {
        queue->async([weak] {
            if (auto self = weak.lock()) {
                // A tick that was already queued when the source stopped does nothing.
                if (self->isRunning()) self->sample();
            }
        });
    };
    {
        std::lock_guard lock(lock_);
        if (timer_) return;
        timer_ = scheduler_.every(seconds_, tick);
    }
    // The first reading comes at once, not one period later.
    tick();
}

void LibprocFlowSource::stop() {
    std::lock_guard lock(lock_);
    timer_.cancel();
    timer_ = Cancellable();
    known_.clear();
}

bool LibprocFlowSource::isRunning() const {
    std::lock_guard lock(lock_);
    return static_cast<bool>(timer_);
}

void LibprocFlowSource::setOnFlows(FlowsCallback callback) {
    std::lock_guard lock(lock_);
    onFlows_ = std::move(callback);
}

void LibprocFlowSource::sample() {
    const double now = scheduler_.clock().now();
    // Listening sockets are not flows.
    const auto scanned = table_->scan(ownPID_, {FlowState::established, FlowState::datagram});

    std::unordered_map<FlowKey, Flow> previous;
    {
        std::lock_guard lock(lock_);
        previous = known_;
    }
    std::unordered_map<FlowKey, Flow> current;
    // In scan order, so that what follows sees processes the way the table lists them.
    std::vector<Flow> flows;
    for (const auto& [process, sockets] : scanned) {
        for (const auto& entry : sockets) {
            Flow flow;
            flow.pid = process.pid;
            flow.processStartedAt = process.startedAt;
            flow.name = process.preferredName;
            flow.executablePath = process.executablePath;
            flow.local = entry.local;
            flow.remote = entry.remote;
            flow.state = entry.state;
            const FlowKey key = flow.id();
            auto old = previous.find(key);
            flow.firstSeen = old != previous.end() ? old->second.firstSeen : now;
            flow.lastSeen = now;
            if (current.emplace(key, flow).second) flows.push_back(std::move(flow));
        }
    }

    FlowsCallback callback;
    {
        std::lock_guard lock(lock_);
        // A connection that has closed leaves with the tick.
        known_ = std::move(current);
        callback = onFlows_;
    }
    if (callback) callback(flows);
}

} // namespace tavrick

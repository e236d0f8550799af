#include "NetKit/ExtensionFlowSource.h"

#include "CoreKit/DiagnosticLog.h"
#include "NetKit/NetLog.h"

namespace tavrick {

namespace {
const char* failureText(ExtensionFlowSource::Failure::Kind kind) {
    switch (kind) {
    case ExtensionFlowSource::Failure::Kind::noTeam:
        return "This copy of Tavrick is not signed by a team, so it cannot pin the filter.";
    case ExtensionFlowSource::Failure::Kind::noRequirement:
        return "The requirement that pins the filter could not be built.";
    }
    return "";
}
} // namespace

ExtensionFlowSource::Failure::Failure(Kind k) : std::runtime_error(failureText(k)), kind(k) {}

std::shared_ptr<ExtensionFlowSource> ExtensionFlowSource::make(int seconds, std::shared_ptr<NetFilterLink> link,
                                                               Scheduler& scheduler, DiagnosticLog* log) {
    return std::shared_ptr<ExtensionFlowSource>(new ExtensionFlowSource(seconds, std::move(link), scheduler, log));
}

ExtensionFlowSource::ExtensionFlowSource(int seconds, std::shared_ptr<NetFilterLink> link, Scheduler& scheduler,
                                         DiagnosticLog* log)
    : seconds_(seconds < 1 ? 1 : seconds),
      link_(std::move(link)),
      scheduler_(scheduler),
      log_(log),
      queue_(scheduler.makeSerialQueue(queueLabel, QoS::utility)) {}

ExtensionFlowSource::~ExtensionFlowSource() {
    std::shared_ptr<NetFilterConnection> connection;
    {
        std::lock_guard lock(lock_);
        timer_.cancel();
        connection = std::move(connection_);
    }
    if (connection) connection->invalidate();
}

void ExtensionFlowSource::note(const std::string& message) {
    if (log_) log_->note("netfilter", message);
}

void ExtensionFlowSource::start() {
    {
        std::lock_guard lock(lock_);
        if (timer_) return;
    }
    const auto team = link_ ? link_->ownTeamID() : std::nullopt;
    if (!team) throw Failure(Failure::Kind::noTeam);
    // Only the extension of the same team, under its identifier, is talked to.
    const auto requirement = link_->identifierRequirement(*team, NetFilterIdentity::bundleIdentifier);
    if (!requirement) throw Failure(Failure::Kind::noRequirement);

    std::weak_ptr<ExtensionFlowSource> weak = weak_from_this();
    auto connection = link_->connect(NetFilterIdentity::machServiceName(*team), *requirement, [weak] {
        if (auto self = weak.lock()) self->dropConnection();
    });
    auto queue = queue_;
    {
        std::lock_guard lock(lock_);
        connection_ = connection;
        timer_ = scheduler_.every(seconds_, [weak, queue] {
            queue->async([weak] {
                if (auto self = weak.lock()) self->collect();
            });
        });
    }
    if (!connection) return;
    connection->call(
        NetFilterMethod::hello, std::nullopt,
        [weak](const std::string& data) {
            auto self = weak.lock();
            if (!self) return;
            if (auto hello = NetFilterReply::decode<NetFilterReply::Hello>(data)) {
                self->note("connected to " + hello->shortVersion + " (" + hello->build + "), protocol " +
                           std::to_string(hello->protocolVersion));
            } else {
                NetLog::network.error("Network filter: hello was not understood");
            }
        },
        [](const std::string& description) { NetLog::network.error("Network filter: %s", description.c_str()); });
}

void ExtensionFlowSource::stop() {
    std::shared_ptr<NetFilterConnection> connection;
    {
        std::lock_guard lock(lock_);
        timer_.cancel();
        timer_ = Cancellable();
        connection = std::move(connection_);
        known_.clear();
    }
    if (connection) connection->invalidate();
}

bool ExtensionFlowSource::isRunning() const {
    std::lock_guard lock(lock_);
    return static_cast<bool>(timer_);
}

bool ExtensionFlowSource::isConnected() const {
    std::lock_guard lock(lock_);
    return static_cast<bool>(connection_);
}

void ExtensionFlowSource::setOnFlows(FlowsCallback callback) {
    std::lock_guard lock(lock_);
    callback_ = std::move(callback);
}

std::int64_t ExtensionFlowSource::token() const {
    std::lock_guard lock(lock_);
    return token_;
}

void ExtensionFlowSource::dropConnection() {
    NetLog::network.error("Network filter: the connection went away");
    std::lock_guard lock(lock_);
    // The next tick finds no connection and asks nothing.
    connection_.reset();
}

void ExtensionFlowSource::collect() {
    std::shared_ptr<NetFilterConnection> connection;
    std::int64_t token = 0;
    {
        std::lock_guard lock(lock_);
        connection = connection_;
        token = token_;
    }
    if (!connection) return;
    std::weak_ptr<ExtensionFlowSource> weak = weak_from_this();
    auto queue = queue_;
    connection->call(
        NetFilterMethod::flowsSinceToken, token,
        [weak, queue](const std::string& data) {
            queue->async([weak, data] {
                if (auto self = weak.lock()) self->merge(data);
            });
        },
        [](const std::string& description) { NetLog::network.error("Network filter: %s", description.c_str()); });
}

void ExtensionFlowSource::merge(const std::string& data) {
    auto reply = NetFilterReply::decode<NetFilterReply::Flows>(data);
    // Not understood is the same as no reply.
    if (!reply) return;
    if (reply->droppedOlder) note("the filter dropped flows before they were read");
    const double now = scheduler_.clock().now();
    std::vector<Flow> flows;
    FlowsCallback callback;
    {
        std::lock_guard lock(lock_);
        if (reply->token > token_) token_ = reply->token;
        for (const auto& wire : reply->flows) {
            Flow flow = wire.toFlow();
            known_.insert_or_assign(flow.id(), std::move(flow));
        }
        for (auto it = known_.begin(); it != known_.end();) {
            it = now - it->second.lastSeen > keepSeconds ? known_.erase(it) : std::next(it);
        }
        flows.reserve(known_.size());
        for (auto& [key, flow] : known_) flows.push_back(flow);
        callback = callback_;
    }
    if (callback) callback(flows);
}

} // namespace tavrick

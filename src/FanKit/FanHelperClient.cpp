#include "FanKit/FanHelperClient.h"

#include "CoreKit/Log.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace tavrick {

namespace Reply = FanHelperReply;

std::string FanHelperFailure::text() const {
    switch (kind) {
    case Kind::other: return detail;
    case Kind::interrupted: return "The fan helper stopped while answering.";
    case Kind::refused: return "The fan helper on this Mac did not accept this copy of Tavrick.";
    case Kind::invalidated: return "The fan helper is not available to this copy of Tavrick.";
    case Kind::helperNotTrusted:
        return "The fan helper on this Mac is not signed by the same developer as this copy of Tavrick.";
    case Kind::timedOut: return "The fan helper did not answer.";
    case Kind::unreadableReply: return "The fan helper's answer could not be read.";
    }
    return detail;
}

bool FanConnectionRecord::interrupted() {
    if (isRefused || answeredRun != run) {
        isRefused = true;
        return true;
    }
    run += 1;
    return false;
}

struct FanHelperClient::Once {
    std::mutex mutex;
    std::function<void(Raw)> finish;
    void operator()(Raw outcome) {
        std::function<void(Raw)> taken;
        {
            std::lock_guard guard(mutex);
            taken = std::exchange(finish, nullptr);
        }
        if (taken) taken(std::move(outcome));
    }
};

struct FanHelperClient::Pending {
    std::shared_ptr<Once> once;
    int sentDuring = 0;
};

struct FanHelperClient::Connection {
    std::mutex mutex;
    FanConnectionRecord record;
    std::shared_ptr<FanHelperChannel> channel;
    std::map<std::uint64_t, Pending> pending;
    bool detached = false;
};

namespace {
std::string wordText(const std::string& word) {
    if (word == FanWire::busy) return "The fan helper is already serving as many copies of Tavrick as it can.";
    if (word == FanWire::rateLimited) return "The fan helper was asked too often; try again in a moment.";
    return "The fan helper did not understand the request.";
}
} // namespace

std::shared_ptr<FanHelperClient> FanHelperClient::make(std::shared_ptr<FanHelperConnector> connector, Scheduler& scheduler) {
    return std::shared_ptr<FanHelperClient>(new FanHelperClient(std::move(connector), scheduler));
}

FanHelperClient::FanHelperClient(std::shared_ptr<FanHelperConnector> connector, Scheduler& scheduler)
    : connector_(std::move(connector)), scheduler_(scheduler),
      queue_(scheduler.makeSerialQueue("com.orvell.tavrick.fanhelper-client", QoS::utility)) {}

FanHelperClient::~FanHelperClient() {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard guard(lock_);
        connection = std::exchange(connection_, nullptr);
    }
    if (connection) detach(connection);
    // The last reference can go on the client's own queue, in the middle of one of its calls;
    // the queue is then let go from another thread, which waits for that call to end.
    if (queue_ && queue_->isCurrent()) std::thread([queue = std::move(queue_)] {}).detach();
}

std::shared_ptr<FanHelperClient::Connection> FanHelperClient::currentConnection() {
    std::lock_guard guard(lock_);
    if (isInvalidated_) return nullptr;
    if (!connection_) connection_ = std::make_shared<Connection>();
    return connection_;
}

std::shared_ptr<FanHelperClient::Once> FanHelperClient::send(FanHelperCall which, double level, bool max, double deadline,
                                                               std::function<void(Raw)> finish) {
    auto once = std::make_shared<Once>();
    once->finish = std::move(finish);
    auto connection = currentConnection();
    if (!connection) {
        (*once)(FanHelperFailure::of(FanHelperFailure::Kind::invalidated));
        return once;
    }
    std::weak_ptr<FanHelperClient> weak = weak_from_this();
    queue_->async([weak, connection, once, which, level, max, deadline] {
        auto self = weak.lock();
        if (!self) {
            (*once)(FanHelperFailure::of(FanHelperFailure::Kind::invalidated));
            return;
        }
        std::shared_ptr<FanHelperChannel> channel;
        {
            std::lock_guard guard(connection->mutex);
            if (connection->detached) {
                (*once)(FanHelperFailure::of(FanHelperFailure::Kind::invalidated));
                return;
            }
            channel = connection->channel;
        }
        if (!channel) {
            std::weak_ptr<Connection> weakConnection = connection;
            FanHelperChannelEvents events{
                [weak, weakConnection](const FanWire::Reply& reply) {
                    auto s = weak.lock();
                    auto c = weakConnection.lock();
                    if (s && c) s->replied(c, reply);
                },
                [weak, weakConnection] {
                    auto s = weak.lock();
                    auto c = weakConnection.lock();
                    if (s && c) s->connectionClosed(c);
                }};
            auto opened = self->connector_->open(std::move(events), std::min(deadline, respawnDeadline));
            if (auto* failure = std::get_if<FanHelperFailure>(&opened)) {
                if (failure->kind == FanHelperFailure::Kind::helperNotTrusted) self->detach(connection);
                if (failure->kind == FanHelperFailure::Kind::invalidated) {
                    Log::core.error("The connection to the fan helper was invalidated");
                    self->detach(connection);
                    self->scheduler_.async([weak] {
                        if (auto s = weak.lock(); s && s->onInvalidation) s->onInvalidation();
                    });
                }
                (*once)(*failure);
                return;
            }
            channel = std::get<std::shared_ptr<FanHelperChannel>>(opened);
            std::lock_guard guard(connection->mutex);
            connection->channel = channel;
        }
        std::uint64_t id;
        {
            std::lock_guard guard(self->lock_);
            id = self->nextID_++;
        }
        {
            std::lock_guard guard(connection->mutex);
            connection->pending[id] = Pending{once, connection->record.run};
        }
        // A failed write shows up as the end of the connection, which finishes the call.
        channel->send(FanWire::frame(FanWire::encodeCall({id, which, level, max})));
    });
    return once;
}

void FanHelperClient::replied(const std::shared_ptr<Connection>& connection, const FanWire::Reply& reply) {
    std::vector<std::shared_ptr<Once>> finish;
    {
        std::lock_guard guard(connection->mutex);
        if (reply.id == 0) {
            // A word about the connection itself, not about one call.
            for (auto& [id, pending] : connection->pending) finish.push_back(pending.once);
            connection->pending.clear();
        } else if (auto it = connection->pending.find(reply.id); it != connection->pending.end()) {
            connection->record.answered();
            finish.push_back(it->second.once);
            connection->pending.erase(it);
        }
    }
    for (auto& once : finish) {
        if (reply.data) (*once)(*reply.data);
        else (*once)(FanHelperFailure::other(wordText(reply.error.value_or(""))));
    }
}

void FanHelperClient::connectionClosed(const std::shared_ptr<Connection>& connection) {
    std::map<std::uint64_t, Pending> pending;
    bool refusal = false;
    bool detached;
    {
        std::lock_guard guard(connection->mutex);
        pending.swap(connection->pending);
        connection->channel.reset();
        detached = connection->detached;
        if (!detached) refusal = connection->record.interrupted();
        for (auto& [id, p] : pending) {
            const bool refused = detached ? false : (refusal || connection->record.wasRefused(p.sentDuring));
            (*p.once)(FanHelperFailure::of(detached ? FanHelperFailure::Kind::invalidated
                                                    : (refused ? FanHelperFailure::Kind::refused
                                                               : FanHelperFailure::Kind::interrupted)));
        }
    }
    if (detached) return;
    {
        std::lock_guard guard(lock_);
        if (connection_ != connection) return;
    }
    std::weak_ptr<FanHelperClient> weak = weak_from_this();
    if (refusal) {
        Log::core.error("The fan helper turned this app away; not asking again on this connection");
        detach(connection);
        scheduler_.async([weak] {
            if (auto s = weak.lock(); s && s->onRefusal) s->onRefusal();
        });
    } else {
        Log::core.notice("The fan helper went away; saying hello to start it again");
        rehello(connection);
        scheduler_.async([weak] {
            if (auto s = weak.lock(); s && s->onInterruption) s->onInterruption();
        });
    }
}

void FanHelperClient::rehello(const std::shared_ptr<Connection>& connection) {
    double delay;
    {
        std::lock_guard guard(lock_);
        const double now = scheduler_.clock().monotonic();
        // Spaced, so a helper that crashes at once is not driven in a tight loop.
        const double at = std::max(now, lastRehello_ + rehelloSpacing);
        lastRehello_ = at;
        delay = at - now;
    }
    std::weak_ptr<FanHelperClient> weak = weak_from_this();
    std::weak_ptr<Connection> weakConnection = connection;
    scheduler_.after(delay, [weak, weakConnection] {
        auto self = weak.lock();
        auto c = weakConnection.lock();
        if (!self || !c) return;
        {
            std::lock_guard guard(self->lock_);
            if (self->connection_ != c) return;
        }
        self->send(FanHelperCall::hello, 0, false, respawnDeadline, [](Raw) {});
    });
}

void FanHelperClient::detach(const std::shared_ptr<Connection>& connection) {
    std::shared_ptr<FanHelperChannel> channel;
    {
        std::lock_guard guard(connection->mutex);
        connection->detached = true;
        channel = std::exchange(connection->channel, nullptr);
    }
    {
        std::lock_guard guard(lock_);
        if (connection_ == connection) connection_.reset();
    }
    if (channel) channel->close();
}

void FanHelperClient::invalidate() {
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard guard(lock_);
        isInvalidated_ = true;
        connection = std::exchange(connection_, nullptr);
    }
    if (connection) detach(connection);
}

namespace {
template <class T>
FanHelperOutcome<T> decoded(const FanHelperClient::Raw& raw) {
    if (auto* failure = std::get_if<FanHelperFailure>(&raw)) return *failure;
    try {
        return Reply::decode<T>(std::get<std::string>(raw));
    } catch (const FanDecodingError&) {
        return FanHelperFailure::of(FanHelperFailure::Kind::unreadableReply);
    }
}
} // namespace

template <class T>
void FanHelperClient::call(FanHelperCall which, double level, bool max, double deadline,
                           std::function<void(FanHelperOutcome<T>)> done) {
    Scheduler* scheduler = &scheduler_;
    auto once = send(which, level, max, deadline, [scheduler, done = std::move(done)](Raw raw) {
        auto outcome = decoded<T>(raw);
        scheduler->async([done, outcome] {
            if (done) done(outcome);
        });
    });
    scheduler_.after(deadline, [once] { (*once)(FanHelperFailure::of(FanHelperFailure::Kind::timedOut)); });
}

template <class T>
FanHelperOutcome<T> FanHelperClient::blocking(FanHelperCall which, double level, bool max, double deadline) {
    struct Outcome {
        std::mutex mutex;
        std::condition_variable ready;
        std::optional<Raw> raw;
    };
    auto outcome = std::make_shared<Outcome>();
    auto once = send(which, level, max, deadline, [outcome](Raw raw) {
        std::lock_guard guard(outcome->mutex);
        outcome->raw = std::move(raw);
        outcome->ready.notify_all();
    });
    {
        std::unique_lock lock(outcome->mutex);
        if (outcome->ready.wait_for(lock, std::chrono::duration<double>(deadline), [&] { return outcome->raw.has_value(); })) {
            return decoded<T>(*outcome->raw);
        }
    }
    (*once)(FanHelperFailure::of(FanHelperFailure::Kind::timedOut));
    // Whoever finished the call has set the outcome, or is about to.
    std::unique_lock lock(outcome->mutex);
    outcome->ready.wait(lock, [&] { return outcome->raw.has_value(); });
    return decoded<T>(*outcome->raw);
}

void FanHelperClient::hello(double deadline, std::function<void(FanHelperOutcome<Reply::Hello>)> done) {
    call<Reply::Hello>(FanHelperCall::hello, 0, false, deadline, std::move(done));
}
void FanHelperClient::status(std::function<void(FanHelperOutcome<Reply::Status>)> done) {
    call<Reply::Status>(FanHelperCall::status, 0, false, quickDeadline, std::move(done));
}
void FanHelperClient::apply(const FanRequest& request, std::function<void(FanHelperOutcome<Reply::ApplyResult>)> done) {
    call<Reply::ApplyResult>(FanHelperCall::apply, request.level, request.isMax, settleDeadline, std::move(done));
}
void FanHelperClient::handBack(std::function<void(FanHelperOutcome<Reply::Status>)> done) {
    call<Reply::Status>(FanHelperCall::handBack, 0, false, settleDeadline, std::move(done));
}
void FanHelperClient::releaseFans(std::function<void(FanHelperOutcome<Reply::ReleaseResult>)> done) {
    call<Reply::ReleaseResult>(FanHelperCall::releaseFans, 0, false, settleDeadline, std::move(done));
}
void FanHelperClient::releaseUnrecordedFans(std::function<void(FanHelperOutcome<Reply::ReleaseResult>)> done) {
    call<Reply::ReleaseResult>(FanHelperCall::releaseUnrecordedFans, 0, false, settleDeadline, std::move(done));
}
void FanHelperClient::exitForUpdate(std::function<void(FanHelperOutcome<Reply::Status>)> done) {
    call<Reply::Status>(FanHelperCall::exitForUpdate, 0, false, settleDeadline, std::move(done));
}

FanHelperOutcome<Reply::Hello> FanHelperClient::helloBlockingResult(double deadline) {
    return blocking<Reply::Hello>(FanHelperCall::hello, 0, false, deadline);
}
FanHelperOutcome<Reply::Status> FanHelperClient::statusBlockingResult() {
    return blocking<Reply::Status>(FanHelperCall::status, 0, false, quickDeadline);
}
FanHelperOutcome<Reply::ApplyResult> FanHelperClient::applyBlocking(const FanRequest& request) {
    return blocking<Reply::ApplyResult>(FanHelperCall::apply, request.level, request.isMax, settleDeadline);
}
FanHelperOutcome<Reply::Status> FanHelperClient::handBackBlockingResult() {
    return blocking<Reply::Status>(FanHelperCall::handBack, 0, false, settleDeadline);
}
FanHelperOutcome<Reply::ReleaseResult> FanHelperClient::releaseFansBlockingResult() {
    return blocking<Reply::ReleaseResult>(FanHelperCall::releaseFans, 0, false, settleDeadline);
}
FanHelperOutcome<Reply::ReleaseResult> FanHelperClient::releaseUnrecordedFansBlockingResult() {
    return blocking<Reply::ReleaseResult>(FanHelperCall::releaseUnrecordedFans, 0, false, settleDeadline);
}

} // namespace tavrick

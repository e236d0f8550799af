#pragma once

#include "CoreKit/Dispatch.h"
#include "FanCore/FanProtocol.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>

namespace tavrick {

// Why a call to the helper did not give an answer, with the words the user sees.
struct FanHelperFailure {
    enum class Kind { other, interrupted, refused, invalidated, helperNotTrusted, timedOut, unreadableReply };
    Kind kind = Kind::other;
    std::string detail;  // the text of `other`
    std::string text() const;
    static FanHelperFailure of(Kind kind) { return {kind, {}}; }
    static FanHelperFailure other(std::string text) { return {Kind::other, std::move(text)}; }
    friend bool operator==(const FanHelperFailure&, const FanHelperFailure&) = default;
};

template <class T>
using FanHelperOutcome = std::variant<T, FanHelperFailure>;

// One life of the helper on one connection, and the rule that tells a refusal from a crash: a
// helper that drops a connection it never answered has turned the client away; one that drops a
// connection it was answering has crashed or exited.
struct FanConnectionRecord {
    int run = 0;
    bool isRefused = false;
    int answeredRun = -1;
    void answered() { answeredRun = run; }
    bool interrupted();
    bool wasRefused(int sentDuring) const { return isRefused || answeredRun < sentDuring; }
};

// One connection to the helper as the platform gives it: frames out; replies and the end in.
class FanHelperChannel {
public:
    virtual ~FanHelperChannel() = default;
    virtual bool send(const std::string& frame) = 0;
    virtual void close() = 0;
};

struct FanHelperChannelEvents {
    std::function<void(const FanWire::Reply&)> onReply;
    std::function<void()> onClosed;
};

// Opens connections, starting the helper when it is not running, and pins the peer: a helper
// that is not the expected one is `helperNotTrusted`, one that cannot be reached `invalidated`.
class FanHelperConnector {
public:
    virtual ~FanHelperConnector() = default;
    virtual std::variant<std::shared_ptr<FanHelperChannel>, FanHelperFailure> open(FanHelperChannelEvents events,
                                                                                  double deadline) = 0;
};

// What the controller needs of the helper: the seven calls, each with its answer on the main
// queue, and word of an interruption, a refusal or the end of the connection.
class FanHelperService {
public:
    virtual ~FanHelperService() = default;
    virtual void hello(double deadline, std::function<void(FanHelperOutcome<FanHelperReply::Hello>)> done) = 0;
    virtual void status(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) = 0;
    virtual void apply(const FanRequest& request, std::function<void(FanHelperOutcome<FanHelperReply::ApplyResult>)> done) = 0;
    virtual void handBack(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) = 0;
    virtual void releaseFans(std::function<void(FanHelperOutcome<FanHelperReply::ReleaseResult>)> done) = 0;
    virtual void releaseUnrecordedFans(std::function<void(FanHelperOutcome<FanHelperReply::ReleaseResult>)> done) = 0;
    virtual void exitForUpdate(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) = 0;
    virtual void invalidate() = 0;

    std::function<void()> onInterruption;
    std::function<void()> onRefusal;
    std::function<void()> onInvalidation;
};

// The application's one connection to the helper: deadlines, decoding, telling an interruption
// from a refusal, and waking a helper that went away. Safe from any thread; answers and
// callbacks arrive on the main queue, and the blocking forms are for the command line.
class FanHelperClient final : public FanHelperService, public std::enable_shared_from_this<FanHelperClient> {
public:
    static constexpr double quickDeadline = 5.0;
    static constexpr double settleDeadline = 15.0;
    static constexpr double launchdThrottle = 10.0;
    static constexpr double respawnDeadline = 12.0;
    static constexpr double rehelloSpacing = 1.0;

    static std::shared_ptr<FanHelperClient> make(std::shared_ptr<FanHelperConnector> connector, Scheduler& scheduler);
    ~FanHelperClient() override;

    void hello(double deadline, std::function<void(FanHelperOutcome<FanHelperReply::Hello>)> done) override;
    void status(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) override;
    void apply(const FanRequest& request, std::function<void(FanHelperOutcome<FanHelperReply::ApplyResult>)> done) override;
    void handBack(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) override;
    void releaseFans(std::function<void(FanHelperOutcome<FanHelperReply::ReleaseResult>)> done) override;
    void releaseUnrecordedFans(std::function<void(FanHelperOutcome<FanHelperReply::ReleaseResult>)> done) override;
    void exitForUpdate(std::function<void(FanHelperOutcome<FanHelperReply::Status>)> done) override;
    void invalidate() override;

    FanHelperOutcome<FanHelperReply::Hello> helloBlockingResult(double deadline = quickDeadline);
    FanHelperOutcome<FanHelperReply::Status> statusBlockingResult();
    FanHelperOutcome<FanHelperReply::ApplyResult> applyBlocking(const FanRequest& request);
    FanHelperOutcome<FanHelperReply::Status> handBackBlockingResult();
    FanHelperOutcome<FanHelperReply::ReleaseResult> releaseFansBlockingResult();
    FanHelperOutcome<FanHelperReply::ReleaseResult> releaseUnrecordedFansBlockingResult();

    // The raw answer of one call: the reply's JSON or a failure.
    using Raw = std::variant<std::string, FanHelperFailure>;

private:
    struct Connection;
    struct Pending;
    struct Once;
    // The one path of every call. The returned handle finishes the call at most once, whoever
    // gets there first: the reply, the end of the connection or the deadline.
    std::shared_ptr<Once> send(FanHelperCall call, double level, bool max, double deadline, std::function<void(Raw)> finish);
    FanHelperClient(std::shared_ptr<FanHelperConnector> connector, Scheduler& scheduler);
    std::shared_ptr<Connection> currentConnection();
    void connectionClosed(const std::shared_ptr<Connection>& connection);
    void replied(const std::shared_ptr<Connection>& connection, const FanWire::Reply& reply);
    void detach(const std::shared_ptr<Connection>& connection);
    void rehello(const std::shared_ptr<Connection>& connection);
    template <class T>
    void call(FanHelperCall which, double level, bool max, double deadline, std::function<void(FanHelperOutcome<T>)> done);
    template <class T>
    FanHelperOutcome<T> blocking(FanHelperCall which, double level, bool max, double deadline);

    std::shared_ptr<FanHelperConnector> connector_;
    Scheduler& scheduler_;
    std::shared_ptr<SerialQueue> queue_;
    std::mutex lock_;
    std::shared_ptr<Connection> connection_;
    bool isInvalidated_ = false;
    double lastRehello_ = -1e300;
    std::uint64_t nextID_ = 1;
};

} // namespace tavrick

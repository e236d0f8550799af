#pragma once

#include "CoreKit/Dispatch.h"
#include "NetCore/Flow.h"
#include "NetCore/NetFilterProtocol.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>

namespace tavrick {

class DiagnosticLog;

// One connection to the filter extension's service. Replies carry the reply blob; a call whose
// transport fails reports through `onError` instead.
class NetFilterConnection {
public:
    using Reply = std::function<void(const std::string& data)>;
    using ErrorHandler = std::function<void(const std::string& description)>;
    virtual ~NetFilterConnection() = default;
    // `argument` is the token for "flowsSinceToken:reply:" and absent otherwise.
    virtual void call(std::string_view method, std::optional<std::int64_t> argument, Reply reply,
                      ErrorHandler onError) = 0;
    virtual void invalidate() = 0;
};

// How the app finds and pins the extension: its own signing team, a requirement naming the
// extension, and a connection to the extension's service that only such a peer may answer.
class NetFilterLink {
public:
    virtual ~NetFilterLink() = default;
    virtual std::optional<std::string> ownTeamID() = 0;
    virtual std::optional<std::string> identifierRequirement(const std::string& team, std::string_view identifier) = 0;
    // `onGone` is called when the connection is invalidated or interrupted.
    virtual std::shared_ptr<NetFilterConnection> connect(const std::string& serviceName,
                                                        const std::string& requirement,
                                                        std::function<void()> onGone) = 0;
};

// A link for a copy of the program that no team signed: there is nobody to pin.
class UnsignedNetFilterLink final : public NetFilterLink {
public:
    std::optional<std::string> ownTeamID() override { return std::nullopt; }
    std::optional<std::string> identifierRequirement(const std::string&, std::string_view) override {
        return std::nullopt;
    }
    std::shared_ptr<NetFilterConnection> connect(const std::string&, const std::string&, std::function<void()>) override {
        return nullptr;
    }
};

// The filter extension as a flow source: every connection of the machine, read every couple of
// seconds from the extension's sequence by token.
class ExtensionFlowSource final : public FlowSource, public std::enable_shared_from_this<ExtensionFlowSource> {
public:
    static constexpr const char* queueLabel = "com.orvell.tavrick.netfilter.client";
    // How long a flow stays listed after the extension last saw it.
    static constexpr double keepSeconds = 30;

    class Failure : public std::runtime_error {
    public:
        enum class Kind { noTeam, noRequirement };
        explicit Failure(Kind kind);
        Kind kind;
    };

    static std::shared_ptr<ExtensionFlowSource> make(int seconds, std::shared_ptr<NetFilterLink> link,
                                                     Scheduler& scheduler, DiagnosticLog* log);
    ~ExtensionFlowSource() override;

    void start() override;
    void stop() override;
    bool isRunning() const override;
    FlowScope scope() const override { return FlowScope::systemWideLive(); }
    bool canBlock() const override { return false; }
    void setOnFlows(FlowsCallback callback) override;

    // One tick: asks for the flows since the current token.
    void collect();
    // Takes a reply blob; one that does not decode is dropped and the token stays.
    void merge(const std::string& data);
    std::int64_t token() const;
    bool isConnected() const;

private:
    ExtensionFlowSource(int seconds, std::shared_ptr<NetFilterLink> link, Scheduler& scheduler, DiagnosticLog* log);
    void dropConnection();
    void note(const std::string& message);

    const int seconds_;
    std::shared_ptr<NetFilterLink> link_;
    Scheduler& scheduler_;
    DiagnosticLog* log_;
    std::shared_ptr<SerialQueue> queue_;

    mutable std::mutex lock_;
    std::shared_ptr<NetFilterConnection> connection_;
    Cancellable timer_;
    FlowsCallback callback_;
    std::int64_t token_ = 0;
    std::unordered_map<FlowKey, Flow> known_;
};

} // namespace tavrick

#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace tavrick {

// Serves one folder over HTTP/1.1 for local development: one read of a request, one answer,
// then the connection closes. The accept and send loop runs on its own threads over epoll and
// sendfile; only the observable state below comes back through the main queue.
class StaticFileServer {
public:
    struct State {
        enum class Kind { stopped, running, failed };
        Kind kind = Kind::stopped;
        std::uint16_t port = 0;
        std::string message;

        static State stopped() { return {}; }
        static State running(std::uint16_t port) { return {Kind::running, port, {}}; }
        static State failed(std::string message) { return {Kind::failed, 0, std::move(message)}; }
        friend bool operator==(const State&, const State&) = default;
    };

    struct Options {
        // Threads that accept and answer; 0 means one a core, at most four.
        unsigned threads = 0;
        // A connection that has sent nothing for this long is closed.
        double idleSeconds = 10.0;
        // The name others on the network reach this machine by; the host name by default.
        std::function<std::string()> hostName;
    };

    StaticFileServer(Scheduler& scheduler, DiagnosticLog& log);
    StaticFileServer(Scheduler& scheduler, DiagnosticLog& log, Options options);
    ~StaticFileServer();
    StaticFileServer(const StaticFileServer&) = delete;
    StaticFileServer& operator=(const StaticFileServer&) = delete;

    // Port 0 lets the system choose; the state then carries the port it chose. Stops a server
    // that is running first.
    void start(const std::filesystem::path& folder, std::int64_t port, bool onNetwork);
    void stop();
    bool isRunning() const { return state_.get().kind == State::Kind::running; }

    const Observable<State>& state() const { return state_; }
    const Observable<std::int64_t>& requestCount() const { return requestCount_; }
    const Observable<bool>& isOnNetwork() const { return isOnNetwork_; }

    // "http://localhost:" + port while running.
    std::optional<std::string> url() const;
    // The address others on the network use, while serving on it.
    std::optional<std::string> networkURL() const;

private:
    struct Listener;
    void countRequests();

    Scheduler& scheduler_;
    DiagnosticLog& log_;
    Options options_;
    Observable<State> state_;
    Observable<std::int64_t> requestCount_{0};
    Observable<bool> isOnNetwork_{false};
    std::optional<std::filesystem::path> root_;
    std::shared_ptr<Listener> listener_;
    // Outlives the listener's threads; tells a late count that the server is gone.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace tavrick

#include "WebServerKit/StaticFileServer.h"

#include "CoreKit/Log.h"
#include "WebServerKit/HTTPExchange.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <unordered_map>
#include <vector>

namespace tavrick {

namespace fs = std::filesystem;

namespace {
constexpr std::size_t requestLimit = 8192;
// What a client that sent too much may still send before the connection is dropped; reading it
// lets the answer arrive before the close, instead of a reset that throws it away.
constexpr std::size_t drainLimit = 1 << 20;

double monotonicNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
} // namespace

struct StaticFileServer::Listener {
    enum class Phase { reading, writing, draining };
    struct Connection {
        Phase phase = Phase::reading;
        HTTPResponse response;
        std::string pending;
        std::size_t pendingSent = 0;
        off_t fileOffset = 0;
        bool sentTooMuch = false;
        std::size_t drained = 0;
        double lastActivity = 0;
    };

    int socket = -1;
    int wake = -1;
    // The folder, held open for the one-step open of plain files beneath it.
    int rootDescriptor = -1;
    fs::path root;
    DiagnosticLog& log;
    double idleSeconds;
    std::atomic<bool> stopping{false};
    std::atomic<std::int64_t> served{0};
    std::atomic<bool> countPosted{false};
    std::function<void()> onServed;
    std::vector<std::thread> threads;

    Listener(int socket, fs::path root, DiagnosticLog& log, double idleSeconds)
        : socket(socket), wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
          rootDescriptor(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), root(std::move(root)), log(log),
          idleSeconds(idleSeconds) {}

    ~Listener() { finish(); }

    // Stops and joins the threads; the counts stay readable afterwards.
    void finish() {
        if (threads.empty() && socket < 0) return;
        stopping = true;
        std::uint64_t one = 1;
        if (wake >= 0) [[maybe_unused]] auto written = ::write(wake, &one, sizeof one);
        for (auto& thread : threads) thread.join();
        threads.clear();
        if (wake >= 0) ::close(wake);
        if (socket >= 0) ::close(socket);
        if (rootDescriptor >= 0) ::close(rootDescriptor);
        rootDescriptor = -1;
        wake = -1;
        socket = -1;
    }

    void launch(unsigned count) {
        for (unsigned i = 0; i < count; ++i) threads.emplace_back([this] { loop(); });
    }

    void loop() {
        // A peer that hung up turns a write into EPIPE here, not into a signal for the process.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

        int poll = ::epoll_create1(EPOLL_CLOEXEC);
        if (poll < 0) return;
        epoll_event event{};
        event.events = EPOLLIN | EPOLLEXCLUSIVE;
        event.data.fd = socket;
        ::epoll_ctl(poll, EPOLL_CTL_ADD, socket, &event);
        event.events = EPOLLIN;
        event.data.fd = wake;
        ::epoll_ctl(poll, EPOLL_CTL_ADD, wake, &event);

        std::unordered_map<int, Connection> connections;
        epoll_event events[128];
        double lastSweep = monotonicNow();
        while (!stopping) {
            int timeout = connections.empty() ? -1 : 1000;
            int ready = ::epoll_wait(poll, events, 128, timeout);
            if (ready < 0 && errno != EINTR) break;
            double now = monotonicNow();
            for (int i = 0; i < ready; ++i) {
                int fd = events[i].data.fd;
                if (fd == wake) continue;
                if (fd == socket) {
                    acceptAll(poll, connections, now);
                    continue;
                }
                auto found = connections.find(fd);
                if (found == connections.end()) continue;
                if (!advance(poll, fd, found->second, now)) {
                    ::close(fd);
                    connections.erase(found);
                }
            }
            if (now - lastSweep >= 1.0) {
                lastSweep = now;
                for (auto it = connections.begin(); it != connections.end();) {
                    if (now - it->second.lastActivity >= idleSeconds) {
                        ::close(it->first);
                        it = connections.erase(it);
                    } else {
                        ++it;
                    }
                }
            }
        }
        for (auto& [fd, connection] : connections) ::close(fd);
        ::close(poll);
    }

    void acceptAll(int poll, std::unordered_map<int, Connection>& connections, double now) {
        while (true) {
            int fd = ::accept4(socket, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                // EAGAIN: another thread took it, or nothing is left. EMFILE and the like: the
                // next round tries again; the listener itself stays up.
                return;
            }
            // The listener hands over connections once their request has arrived, so most are
            // answered here and never wait in the poll set.
            Connection connection;
            connection.lastActivity = now;
            if (!advance(-1, fd, connection, now)) {
                ::close(fd);
                continue;
            }
            epoll_event event{};
            event.events = connection.phase == Phase::writing ? EPOLLOUT : EPOLLIN | EPOLLRDHUP;
            event.data.fd = fd;
            if (::epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event) != 0) {
                ::close(fd);
                continue;
            }
            connections.emplace(fd, std::move(connection));
        }
    }

    // False when the connection is done with.
    bool advance(int poll, int fd, Connection& connection, double now) {
        connection.lastActivity = now;
        switch (connection.phase) {
        case Phase::reading: {
            // The request must fit in this one read; whatever comes after it is not looked at.
            char buffer[requestLimit];
            ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
            if (count < 0) return errno == EAGAIN || errno == EINTR;
            if (count == 0) return false;
            countOne();
            connection.response =
                respondTo(std::string_view(buffer, static_cast<std::size_t>(count)), root, rootDescriptor);
            if (connection.response.refusedPath) log.note("serve", "refused a path that left the folder");
            connection.pending = std::move(connection.response.head);
            connection.pending += connection.response.body;
            connection.sentTooMuch = static_cast<std::size_t>(count) == requestLimit;
            connection.phase = Phase::writing;
            return send(poll, fd, connection, true);
        }
        case Phase::writing: return send(poll, fd, connection, false);
        case Phase::draining: {
            char buffer[requestLimit];
            ssize_t count = ::recv(fd, buffer, sizeof buffer, 0);
            if (count < 0) return errno == EAGAIN || errno == EINTR;
            if (count == 0) return false;
            connection.drained += static_cast<std::size_t>(count);
            return connection.drained < drainLimit;
        }
        }
        return false;
    }

    bool send(int poll, int fd, Connection& connection, bool firstTry) {
        auto& response = connection.response;
        bool fileFollows = response.fileDescriptor >= 0 && response.fileLength > 0;
        while (connection.pendingSent < connection.pending.size()) {
            ssize_t sent = ::send(fd, connection.pending.data() + connection.pendingSent,
                                  connection.pending.size() - connection.pendingSent,
                                  MSG_NOSIGNAL | (fileFollows ? MSG_MORE : 0));
            if (sent < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN) return waitForRoom(poll, fd, firstTry);
                return false;
            }
            connection.pendingSent += static_cast<std::size_t>(sent);
        }
        while (fileFollows && static_cast<std::uint64_t>(connection.fileOffset) < response.fileLength) {
            std::size_t left = static_cast<std::size_t>(response.fileLength - static_cast<std::uint64_t>(connection.fileOffset));
            ssize_t sent = ::sendfile(fd, response.fileDescriptor, &connection.fileOffset, left);
            if (sent < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN) return waitForRoom(poll, fd, firstTry);
                return false;
            }
            // The file shrank under us: the length is already promised, so the connection ends.
            if (sent == 0) return false;
        }
        if (!connection.sentTooMuch) return false;
        ::shutdown(fd, SHUT_WR);
        connection.phase = Phase::draining;
        if (poll < 0) return true;
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.fd = fd;
        ::epoll_ctl(poll, EPOLL_CTL_MOD, fd, &event);
        return true;
    }

    bool waitForRoom(int poll, int fd, bool firstTime) {
        // A connection not yet in the poll set is added by the caller, waiting for room.
        if (!firstTime || poll < 0) return true;
        epoll_event event{};
        event.events = EPOLLOUT;
        event.data.fd = fd;
        return ::epoll_ctl(poll, EPOLL_CTL_MOD, fd, &event) == 0;
    }

    void countOne() {
        served.fetch_add(1, std::memory_order_relaxed);
        // One block on the main queue per burst, not per request.
        if (!countPosted.exchange(true) && onServed) onServed();
    }
};

StaticFileServer::StaticFileServer(Scheduler& scheduler, DiagnosticLog& log)
    : StaticFileServer(scheduler, log, Options{}) {}

StaticFileServer::StaticFileServer(Scheduler& scheduler, DiagnosticLog& log, Options options)
    : scheduler_(scheduler), log_(log), options_(std::move(options)) {}

StaticFileServer::~StaticFileServer() {
    *alive_ = false;
    listener_.reset();
}

void StaticFileServer::start(const fs::path& folder, std::int64_t port, bool onNetwork) {
    if (listener_) stop();
    std::error_code error;
    if (folder.empty() || !fs::is_directory(folder, error)) {
        state_.set(State::failed("That folder is not there any more."));
        return;
    }
    if (port < 0 || port > 65535) {
        state_.set(State::failed(std::to_string(port) + " is not a usable port."));
        return;
    }

    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int yes = 1;
    auto fail = [&](int code) {
        if (fd >= 0) ::close(fd);
        if (code == EADDRINUSE) {
            state_.set(State::failed("Port " + std::to_string(port) + " is already in use."));
        } else {
            state_.set(State::failed(std::strerror(code)));
            log_.note("serve", "could not serve on " + std::to_string(port));
        }
    };
    if (fd < 0) return fail(errno);
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    // By default only this machine reaches the server.
    address.sin_addr.s_addr = htonl(onNetwork ? INADDR_ANY : INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return fail(errno);
    if (::listen(fd, 1024) != 0) return fail(errno);
    // Accept only once the request is there; a client that connects and says nothing costs
    // nothing until it does.
    int deferSeconds = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &deferSeconds, sizeof deferSeconds);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    std::uint16_t bound = ntohs(address.sin_port);

    auto root = fs::absolute(folder, error);
    auto listener = std::make_shared<Listener>(fd, root, log_, options_.idleSeconds);
    std::weak_ptr<bool> alive = alive_;
    Scheduler* scheduler = &scheduler_;
    Listener* raw = listener.get();
    listener->onServed = [alive, scheduler, this, raw] {
        scheduler->async([alive, this, raw] {
            if (auto flag = alive.lock(); !flag || !*flag) return;
            // The listener may have been replaced since; its count then died with it.
            if (listener_.get() != raw) return;
            raw->countPosted = false;
            countRequests();
        });
    };
    unsigned threads = options_.threads;
    if (threads == 0) threads = std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
    listener->launch(threads);
    listener_ = std::move(listener);
    root_ = root;
    isOnNetwork_.set(onNetwork);
    state_.set(State::running(bound));
    log_.note("serve", "serving " + root.string() + " on " + std::to_string(bound));
}

void StaticFileServer::countRequests() {
    if (!listener_) return;
    auto count = listener_->served.exchange(0);
    if (count) requestCount_.set(requestCount_.get() + count);
}

void StaticFileServer::stop() {
    if (listener_) {
        // What was answered before the stop still counts.
        listener_->finish();
        countRequests();
        listener_.reset();
    }
    root_.reset();
    isOnNetwork_.set(false);
    state_.set(State::stopped());
}

std::optional<std::string> StaticFileServer::url() const {
    if (!isRunning()) return std::nullopt;
    return "http://localhost:" + std::to_string(state_.get().port);
}

std::optional<std::string> StaticFileServer::networkURL() const {
    if (!isRunning() || !isOnNetwork_.get()) return std::nullopt;
    std::string name;
    if (options_.hostName) {
        name = options_.hostName();
    } else {
        char buffer[256] = {};
        if (::gethostname(buffer, sizeof buffer - 1) == 0) name = buffer;
    }
    if (name.empty()) name = "localhost";
    return "http://" + name + ":" + std::to_string(state_.get().port);
}

} // namespace tavrick

#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace tavrick::testing {

// A one-connection-at-a-time HTTP server on 127.0.0.1 that answers each request with what the
// test scripted, and keeps what it received.
class LocalServer {
public:
    using Reply = std::function<void(int client)>;

    explicit LocalServer(Reply reply) : reply_(std::move(reply)) {
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener_, 4);
        socklen_t length = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~LocalServer() {
        stopping_ = true;
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_) + "/v1"; }
    std::string received() {
        std::lock_guard guard(lock_);
        return received_;
    }

    static void write(int client, const std::string& text) { [[maybe_unused]] auto n = ::send(client, text.data(), text.size(), MSG_NOSIGNAL); }
    static Reply respond(int status, std::string body) {
        return [status, body](int client) {
            write(client, "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: application/json\r\nContent-Length: " +
                              std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
        };
    }

private:
    void serve() {
        while (!stopping_) {
            pollfd fd{listener_, POLLIN, 0};
            if (poll(&fd, 1, 100) <= 0) continue;
            int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            std::string request;
            char buffer[4096];
            // Headers, then the body by its length.
            while (request.find("\r\n\r\n") == std::string::npos) {
                auto n = recv(client, buffer, sizeof buffer, 0);
                if (n <= 0) break;
                request.append(buffer, static_cast<std::size_t>(n));
            }
            auto headerEnd = request.find("\r\n\r\n");
            std::size_t length = 0;
            if (auto at = request.find("Content-Length: "); at != std::string::npos) length = std::stoul(request.substr(at + 16));
            while (headerEnd != std::string::npos && request.size() < headerEnd + 4 + length) {
                auto n = recv(client, buffer, sizeof buffer, 0);
                if (n <= 0) break;
                request.append(buffer, static_cast<std::size_t>(n));
            }
            {
                std::lock_guard guard(lock_);
                received_ += request;
            }
            reply_(client);
            close(client);
        }
    }

    Reply reply_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex lock_;
    std::string received_;
};

} // namespace tavrick::testing

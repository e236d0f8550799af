#include "Platform/Simulated/SessionBridge.h"

#include "CoreKit/Log.h"
#include "CoreKit/Modifiers.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavrick {

namespace {

bool fillAddress(const std::filesystem::path& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    return true;
}

int connectTo(const std::filesystem::path& path) {
    sockaddr_un address;
    if (!fillAddress(path, address)) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool writeAll(int fd, const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads up to a newline, at most a small line, waiting at most `timeoutMs`.
std::optional<std::string> readLine(int fd, int timeoutMs) {
    std::string line;
    while (line.size() < 256) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, timeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char c;
        ssize_t n = recv(fd, &c, 1, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return line.empty() ? std::nullopt : std::optional<std::string>(line);
        if (c == '\n') return line;
        line += c;
    }
    return line;
}

// Reads until the peer closes its side, at most `limit` bytes, waiting at most `timeoutMs` for each
// piece. Nothing when it went past the limit or stalled.
std::optional<std::string> readToEnd(int fd, std::size_t limit, int timeoutMs) {
    std::string out;
    char buffer[65536];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, timeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return out;
        if (out.size() + static_cast<std::size_t>(n) > limit) return std::nullopt;
        out.append(buffer, static_cast<std::size_t>(n));
    }
}

template <class Integer>
std::optional<Integer> parse(const std::string& text) {
    Integer value{};
    auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || ptr != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

} // namespace

std::string SessionBridge::handle(SimulatedSession& session, const std::string& request) {
    std::istringstream words(request);
    std::string verb, key, modifiers, extra;
    words >> verb >> key >> modifiers;
    if (verb != "key") return "error unknown request\n";
    if (words >> extra) return "error too many arguments\n";
    auto keyCode = parse<std::uint16_t>(key);
    auto raw = parse<std::int64_t>(modifiers);
    if (!keyCode || !raw) return "error expected: key <keyCode 0-65535> <modifiers>\n";
    if (!session.postKeyPress(*keyCode, Modifiers(*raw).cgFlags())) return "error could not synthesise the event\n";
    return "ok\n";
}

std::string SessionBridge::handleCopy(SimulatedPasteboard* pasteboard, const std::string& request, std::string text) {
    if (!pasteboard) return "error this session has no pasteboard\n";
    std::istringstream words(request);
    std::string verb, type;
    words >> verb;
    std::vector<std::pair<std::string, std::string>> entries;
    if (!text.empty()) entries.emplace_back(Pasteboard::plainTextType, std::move(text));
    while (words >> type) entries.emplace_back(type, std::string());
    pasteboard->copy(std::move(entries));
    return "ok " + std::to_string(pasteboard->changeCount()) + "\n";
}

std::unique_ptr<SessionBridge> SessionBridge::listen(SimulatedSession& session, std::filesystem::path socketPath,
                                                     SimulatedPasteboard* pasteboard) {
    sockaddr_un address;
    if (!fillAddress(socketPath, address)) {
        Log::core.error("Session bridge: the socket path is too long: %s", socketPath.c_str());
        return nullptr;
    }
    std::error_code error;
    std::filesystem::create_directories(socketPath.parent_path(), error);
    if (std::filesystem::exists(socketPath, error)) {
        int live = connectTo(socketPath);
        if (live >= 0) {
            close(live);
            Log::core.notice("Session bridge: another copy already listens at %s", socketPath.c_str());
            return nullptr;
        }
        std::filesystem::remove(socketPath, error);  // left by a run that was killed
    }
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) return nullptr;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 8) != 0) {
        Log::core.error("Session bridge: cannot listen at %s: %s", socketPath.c_str(), std::strerror(errno));
        close(listener);
        return nullptr;
    }
    chmod(socketPath.c_str(), 0600);
    int wake[2];
    if (pipe2(wake, O_CLOEXEC) != 0) {
        close(listener);
        return nullptr;
    }
    return std::unique_ptr<SessionBridge>(
        new SessionBridge(session, pasteboard, std::move(socketPath), listener, wake[0], wake[1]));
}

SessionBridge::SessionBridge(SimulatedSession& session, SimulatedPasteboard* pasteboard, std::filesystem::path path,
                             int listener, int wakeRead, int wakeWrite)
    : session_(session), pasteboard_(pasteboard), path_(std::move(path)), listener_(listener), wakeRead_(wakeRead), wakeWrite_(wakeWrite) {
    thread_ = std::thread([this] { serve(); });
}

SessionBridge::~SessionBridge() {
    char byte = 1;
    [[maybe_unused]] auto written = write(wakeWrite_, &byte, 1);
    thread_.join();
    close(listener_);
    close(wakeRead_);
    close(wakeWrite_);
    std::error_code error;
    std::filesystem::remove(path_, error);
}

void SessionBridge::serve() {
    pthread_setname_np(pthread_self(), "tavrick.bridge");
    for (;;) {
        pollfd fds[2] = {{listener_, POLLIN, 0}, {wakeRead_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents) return;
        if (!(fds[0].revents & POLLIN)) continue;
        int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        if (auto line = readLine(client, 1000)) {
            if (line->rfind("copy", 0) == 0 && (line->size() == 4 || (*line)[4] == ' ')) {
                auto text = readToEnd(client, maximumCopyBytes, 2000);
                writeAll(client, text ? handleCopy(pasteboard_, *line, std::move(*text))
                                      : "error the copy was too large or did not end\n");
            } else {
                writeAll(client, handle(session_, *line));
            }
        }
        close(client);
    }
}

std::optional<std::string> SessionBridge::sendCopy(const std::filesystem::path& socketPath, const std::string& text,
                                                   const std::vector<std::string>& types) {
    int fd = connectTo(socketPath);
    if (fd < 0) return std::string("no Tavrick is listening");
    std::string request = "copy";
    for (const auto& type : types) request += " " + type;
    request += "\n";
    std::optional<std::string> failure;
    if (!writeAll(fd, request) || !writeAll(fd, text) || shutdown(fd, SHUT_WR) != 0) {
        failure = "the running Tavrick did not take the copy";
    } else if (auto answer = readLine(fd, 5000); !answer) {
        failure = "the running Tavrick did not answer";
    } else if (answer->rfind("ok", 0) != 0) {
        failure = answer->rfind("error ", 0) == 0 ? answer->substr(6) : *answer;
    }
    close(fd);
    return failure;
}

bool SessionBridge::isListening(const std::filesystem::path& socketPath) {
    int fd = connectTo(socketPath);
    if (fd < 0) return false;
    close(fd);
    return true;
}

std::optional<std::string> SessionBridge::sendKey(const std::filesystem::path& socketPath, std::uint16_t keyCode,
                                                  std::int64_t modifiers) {
    int fd = connectTo(socketPath);
    if (fd < 0) return std::string("no Tavrick is listening");
    std::string request = "key " + std::to_string(keyCode) + " " + std::to_string(modifiers) + "\n";
    std::optional<std::string> failure;
    if (!writeAll(fd, request)) {
        failure = "the running Tavrick did not take the request";
    } else if (auto answer = readLine(fd, 2000); !answer) {
        failure = "the running Tavrick did not answer";
    } else if (*answer != "ok") {
        failure = answer->rfind("error ", 0) == 0 ? answer->substr(6) : *answer;
    }
    close(fd);
    return failure;
}

} // namespace tavrick

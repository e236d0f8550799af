#include "Platform/Simulated/SessionBridge.h"

#include "CoreKit/Log.h"
#include "CoreKit/Modifiers.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <vector>
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

bool SessionBridge::postStroke(EventSystem& session, const std::string& strokes) {
    // Drawn from the middle of a typical screen, 80 points a stroke, a sample every 8.
    Point at{400, 300};
    std::vector<Event> events;
    auto add = [&](EventType type) {
        auto event = session.makeMouseEvent(type, at, 1);
        if (event) events.push_back(*event);
        return event.has_value();
    };
    if (!add(EventType::rightMouseDown)) return false;
    if (strokes != "click") {
        std::istringstream list(strokes);
        std::size_t count = 0;
        for (std::string word; std::getline(list, word, ',');) {
            Point step;
            if (word == "up") {
                step = {0, -8};
            } else if (word == "down") {
                step = {0, 8};
            } else if (word == "left") {
                step = {-8, 0};
            } else if (word == "right") {
                step = {8, 0};
            } else {
                return false;
            }
            if (++count > 3) return false;
            for (int i = 0; i < 10; ++i) {
                at = {at.x + step.x, at.y + step.y};
                if (!add(EventType::rightMouseDragged)) return false;
            }
        }
        if (count == 0) return false;
    }
    if (!add(EventType::rightMouseUp)) return false;
    for (const auto& event : events) session.post(event);
    return true;
}

bool SessionBridge::postWindowDrag(SimulatedSession& session, SimulatedDesktop& desktop, Point from, Point to,
                                   int steps, const std::function<void()>& settle) {
    if (steps < 1) steps = 1;
    auto down = session.makeMouseEvent(EventType::leftMouseDown, from, 0);
    auto up = session.makeMouseEvent(EventType::leftMouseUp, to, 0);
    if (!down || !up) return false;
    const auto window = desktop.frontmostWindowFrame();
    const bool onTitleBar = window && window->minX() <= from.x && from.x < window->maxX() &&
                            window->minY() <= from.y && from.y < window->minY() + titleBarHeight;
    session.post(*down);
    if (settle) settle();
    Point at = from;
    for (int i = 1; i <= steps; ++i) {
        const Point next{from.x + (to.x - from.x) * i / steps, from.y + (to.y - from.y) * i / steps};
        // The window manager moves the window before the application hears the motion.
        if (onTitleBar) desktop.moveFrontmostWindow(next.x - at.x, next.y - at.y);
        at = next;
        auto moved = session.makeMouseEvent(EventType::leftMouseDragged, at, 0);
        if (!moved) break;
        session.post(*moved);
        if (settle) settle();
    }
    session.post(*up);
    if (settle) settle();
    return true;
}

std::string SessionBridge::handle(SimulatedSession& session, const std::string& request) {
    return handle(session, nullptr, request);
}

std::string SessionBridge::handle(SimulatedSession& session, SimulatedDesktop* desktop, const std::string& request) {
    std::istringstream words(request);
    std::string verb, key, modifiers, extra;
    words >> verb >> key >> modifiers;
    if (verb == "stroke") {
        if (!modifiers.empty()) return "error too many arguments\n";
        if (!postStroke(session, key)) return "error expected: stroke <up|down|left|right,… at most three> or stroke click\n";
        return "ok\n";
    }
    if (verb == "drag") {
        if (!desktop) return "error this session has no simulated desktop\n";
        std::istringstream numbers(request);
        std::string word;
        numbers >> word;
        std::vector<double> values;
        while (numbers >> word) {
            double value = 0;
            auto [ptr, error] = std::from_chars(word.data(), word.data() + word.size(), value);
            if (error != std::errc() || ptr != word.data() + word.size() || !std::isfinite(value)) {
                return "error expected: drag <fromX> <fromY> <toX> <toY>\n";
            }
            values.push_back(value);
        }
        if (values.size() != 4) return "error expected: drag <fromX> <fromY> <toX> <toY>\n";
        // Paced like a hand, so that the snapper sees the window move before the pointer stops.
        auto settle = [&session] {
            session.drain();
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        };
        // The request reads like the state file (origin bottom-left, y up); the events count from
        // the top-left.
        const auto screens = desktop->screens();
        const double height = screens.empty() ? 0 : screens.front().frame.size.height;
        const Point from{values[0], height - values[1]};
        const Point to{values[2], height - values[3]};
        if (!postWindowDrag(session, *desktop, from, to, 12, settle)) {
            return "error could not synthesise the event\n";
        }
        return "ok\n";
    }
    if (verb == "permission" || verb == "activate") {
        if (!desktop) return "error this session has no simulated desktop\n";
        if (words >> extra) return "error too many arguments\n";
        if (verb == "activate") {
            if (key.empty() || !modifiers.empty()) return "error expected: activate <bundle id>\n";
            auto running = desktop->runningApplications(key);
            if (running.empty()) return "error no running application has the bundle id " + key + "\n";
            desktop->activate(running.front().processIdentifier);
            return "ok\n";
        }
        auto state = fromRaw<SimulatedPermission>(modifiers);
        if ((key != "accessibility" && key != "inputMonitoring") || !state) {
            return "error expected: permission <accessibility|inputMonitoring> <granted|denied|notDetermined>\n";
        }
        if (key == "accessibility") {
            desktop->setAccessibilityPermission(*state);
        } else {
            desktop->setInputMonitoringPermission(*state);
        }
        return "ok\n";
    }
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

std::unique_ptr<SessionBridge> SessionBridge::listen(SimulatedSession& session, std::filesystem::path socketPath) {
    return listen(session, nullptr, std::move(socketPath));
}

std::unique_ptr<SessionBridge> SessionBridge::listen(SimulatedSession& session, SimulatedDesktop* desktop,
                                                     std::filesystem::path socketPath, SimulatedPasteboard* pasteboard) {
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
        new SessionBridge(session, desktop, pasteboard, std::move(socketPath), listener, wake[0], wake[1]));
}

SessionBridge::SessionBridge(SimulatedSession& session, SimulatedDesktop* desktop, SimulatedPasteboard* pasteboard,
                             std::filesystem::path path, int listener, int wakeRead, int wakeWrite)
    : session_(session), desktop_(desktop), pasteboard_(pasteboard), path_(std::move(path)), listener_(listener), wakeRead_(wakeRead), wakeWrite_(wakeWrite) {
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
            } else if (line->rfind("select ", 0) == 0 || line->rfind("bar ", 0) == 0) {
                std::optional<std::string> text = std::string();
                if (line->rfind("select ", 0) == 0) text = readToEnd(client, maximumCopyBytes, 2000);
                SelectionHandler handler;
                {
                    std::lock_guard guard(playerLock_);
                    handler = selectionHandler_;
                }
                if (!text) {
                    writeAll(client, "error the selection was too large or did not end\n");
                } else {
                    writeAll(client, handler ? handler(*line, *text) : "error this Tavrick has no selection bar\n");
                }
            } else if (line->rfind("touches ", 0) == 0) {
                TouchPlayer player;
                {
                    std::lock_guard guard(playerLock_);
                    player = touchPlayer_;
                }
                writeAll(client, player ? player(line->substr(8)) : "error this Tavrick has no simulated trackpad\n");
            } else {
                writeAll(client, handle(session_, desktop_, *line));
            }
        }
        close(client);
    }
}

void SessionBridge::setSelectionHandler(SelectionHandler handler) {
    std::lock_guard guard(playerLock_);
    selectionHandler_ = std::move(handler);
}

std::variant<std::string, std::string> SessionBridge::exchange(const std::filesystem::path& socketPath,
                                                               const std::string& request,
                                                               const std::optional<std::string>& text) {
    int fd = connectTo(socketPath);
    if (fd < 0) return std::variant<std::string, std::string>(std::in_place_index<1>, "no Tavrick is listening");
    std::variant<std::string, std::string> result(std::in_place_index<1>, "the running Tavrick did not answer");
    bool sent = writeAll(fd, request + "\n") && (!text || writeAll(fd, *text));
    if (sent && text) shutdown(fd, SHUT_WR);
    if (sent) {
        if (auto answer = readToEnd(fd, maximumCopyBytes, 5000)) result.emplace<0>(std::move(*answer));
    }
    close(fd);
    return result;
}

void SessionBridge::setTouchPlayer(TouchPlayer player) {
    std::lock_guard guard(playerLock_);
    touchPlayer_ = std::move(player);
}

std::optional<std::string> SessionBridge::sendStroke(const std::filesystem::path& socketPath, const std::string& strokes) {
    int fd = connectTo(socketPath);
    if (fd < 0) return std::string("no Tavrick is listening");
    std::optional<std::string> failure;
    if (!writeAll(fd, "stroke " + strokes + "\n")) {
        failure = "the running Tavrick did not take the request";
    } else if (auto answer = readLine(fd, 2000); !answer) {
        failure = "the running Tavrick did not answer";
    } else if (*answer != "ok") {
        failure = answer->rfind("error ", 0) == 0 ? answer->substr(6) : *answer;
    }
    close(fd);
    return failure;
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

std::variant<std::size_t, std::string> SessionBridge::sendTouches(const std::filesystem::path& socketPath,
                                                                  const std::filesystem::path& recording) {
    int fd = connectTo(socketPath);
    if (fd < 0) return std::string("no Tavrick is listening");
    std::variant<std::size_t, std::string> result = std::string("the running Tavrick did not take the request");
    // Playing takes as long as the recording's frames take to deliver, which is quick.
    if (writeAll(fd, "touches " + recording.string() + "\n")) {
        auto answer = readLine(fd, 10000);
        if (!answer) {
            result = std::string("the running Tavrick did not answer");
        } else if (answer->rfind("ok ", 0) == 0) {
            auto frames = parse<std::size_t>(answer->substr(3));
            result = frames ? std::variant<std::size_t, std::string>(*frames) : std::string("an answer that is not a count");
        } else {
            result = answer->rfind("error ", 0) == 0 ? answer->substr(6) : *answer;
        }
    }
    close(fd);
    return result;
}

bool SessionBridge::isListening(const std::filesystem::path& socketPath) {
    int fd = connectTo(socketPath);
    if (fd < 0) return false;
    close(fd);
    return true;
}

std::optional<std::string> SessionBridge::sendKey(const std::filesystem::path& socketPath, std::uint16_t keyCode,
                                                  std::int64_t modifiers) {
    return send(socketPath, "key " + std::to_string(keyCode) + " " + std::to_string(modifiers));
}

std::optional<std::string> SessionBridge::send(const std::filesystem::path& socketPath, const std::string& line) {
    int fd = connectTo(socketPath);
    if (fd < 0) return std::string("no Tavrick is listening");
    const std::string request = line + "\n";
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

#include "Platform/Linux/FanHelperSocket.h"

#include "FanCore/FanProtocol.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tavrick::FanHelperSocket {

namespace {
bool addressOf(const std::filesystem::path& path, sockaddr_un& address) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    const auto& text = path.native();
    if (text.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    return true;
}
} // namespace

std::optional<int> connect(const std::filesystem::path& path, int* error) {
    sockaddr_un address;
    if (!addressOf(path, address)) {
        if (error) *error = ENAMETOOLONG;
        return std::nullopt;
    }
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error) *error = errno;
        return std::nullopt;
    }
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        if (error) *error = errno;
        ::close(fd);
        return std::nullopt;
    }
    return fd;
}

bool isListening(const std::filesystem::path& path) {
    auto fd = connect(path, nullptr);
    if (!fd) return false;
    ::close(*fd);
    return true;
}

std::optional<int> listen(const std::filesystem::path& path, std::string* error) {
    sockaddr_un address;
    if (!addressOf(path, address)) {
        if (error) *error = "the socket path is too long: " + path.string();
        return std::nullopt;
    }
    if (isListening(path)) {
        if (error) *error = "another fan helper already listens at " + path.string();
        return std::nullopt;
    }
    std::error_code ignored;
    std::filesystem::create_directories(path.parent_path(), ignored);
    // Only a socket is ever removed here, never a file someone left at that path.
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) ::unlink(path.c_str());
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        if (error) *error = std::strerror(errno);
        return std::nullopt;
    }
    const mode_t old = ::umask(0177);
    const int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::umask(old);
    if (bound != 0 || ::listen(fd, 16) != 0) {
        if (error) *error = "could not listen at " + path.string() + ": " + std::strerror(errno);
        ::close(fd);
        return std::nullopt;
    }
    return fd;
}

std::optional<Peer> peer(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 || credentials.pid <= 0) return std::nullopt;
    Peer p;
    p.pid = credentials.pid;
    p.uid = credentials.uid;
    std::error_code error;
    p.executable = std::filesystem::read_symlink("/proc/" + std::to_string(credentials.pid) + "/exe", error);
    if (error) return std::nullopt;
    return p;
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

std::optional<std::string> FrameReader::next() {
    auto length = FanWire::frameLength(buffer_);
    if (!length) return std::nullopt;
    if (*length > limit_) {
        oversized_ = true;
        return std::nullopt;
    }
    if (buffer_.size() < 4 + static_cast<std::size_t>(*length)) return std::nullopt;
    std::string payload = buffer_.substr(4, *length);
    buffer_.erase(0, 4 + static_cast<std::size_t>(*length));
    return payload;
}

} // namespace tavrick::FanHelperSocket

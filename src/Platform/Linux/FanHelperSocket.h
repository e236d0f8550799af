#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace tavrick {

// The Unix domain socket between the application and its fan helper, and what the kernel says
// about the process at the other end.
namespace FanHelperSocket {

// Listens at `path` (mode 0600). A socket file nobody answers on is an old one and is replaced;
// one with a live listener is not, and nothing is answered.
std::optional<int> listen(const std::filesystem::path& path, std::string* error);
// Connected, or nothing with `error` set to the errno.
std::optional<int> connect(const std::filesystem::path& path, int* error);
bool isListening(const std::filesystem::path& path);

struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
    std::filesystem::path executable;
};
// SO_PEERCRED, and the executable of that process.
std::optional<Peer> peer(int fd);

// Writes every byte, or false; never raises SIGPIPE.
bool writeAll(int fd, std::string_view data);

// Cuts frames out of a byte stream. A frame announcing more than the limit is an error the
// stream cannot recover from.
class FrameReader {
public:
    explicit FrameReader(std::size_t limit) : limit_(limit) {}
    void append(const char* data, std::size_t size) { buffer_.append(data, size); }
    // The next whole frame's payload, if one is there.
    std::optional<std::string> next();
    bool isOversized() const { return oversized_; }
    bool hasPartial() const { return !buffer_.empty(); }

private:
    std::size_t limit_;
    std::string buffer_;
    bool oversized_ = false;
};

} // namespace FanHelperSocket

} // namespace tavrick

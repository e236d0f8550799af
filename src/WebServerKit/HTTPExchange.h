#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace tavrick {

// One answer, ready to send: the head, then either a body held here or an open file sent from
// the kernel's page cache. Owns the file descriptor.
struct HTTPResponse {
    int status = 0;
    std::string head;
    std::string body;
    int fileDescriptor = -1;
    std::uint64_t fileLength = 0;
    // The path left the folder; the server notes it.
    bool refusedPath = false;

    HTTPResponse() = default;
    HTTPResponse(HTTPResponse&& other) noexcept;
    HTTPResponse& operator=(HTTPResponse&& other) noexcept;
    HTTPResponse(const HTTPResponse&) = delete;
    HTTPResponse& operator=(const HTTPResponse&) = delete;
    ~HTTPResponse();
};

// Answers what one read of a connection received, for the folder at `root`. With the folder
// open as `rootDescriptor`, a plain file is opened beneath it in one step; anything else (a
// folder, a link, a refusal) takes the full resolution, so the answers are the same either way.
HTTPResponse respondTo(std::string_view request, const std::filesystem::path& root, int rootDescriptor = -1);

// "HTTP/1.1 " + status, then the type, the length, no caching and the close, CR LF each.
std::string responseHead(std::string_view status, std::string_view contentType, std::uint64_t length);

} // namespace tavrick

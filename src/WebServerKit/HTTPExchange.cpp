#include "WebServerKit/HTTPExchange.h"

#include "WebServerKit/StaticFiles.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>
#include <utility>

namespace tavrick {

HTTPResponse::HTTPResponse(HTTPResponse&& other) noexcept
    : status(other.status),
      head(std::move(other.head)),
      body(std::move(other.body)),
      fileDescriptor(std::exchange(other.fileDescriptor, -1)),
      fileLength(other.fileLength),
      refusedPath(other.refusedPath) {}

HTTPResponse& HTTPResponse::operator=(HTTPResponse&& other) noexcept {
    if (this != &other) {
        if (fileDescriptor >= 0) ::close(fileDescriptor);
        status = other.status;
        head = std::move(other.head);
        body = std::move(other.body);
        fileDescriptor = std::exchange(other.fileDescriptor, -1);
        fileLength = other.fileLength;
        refusedPath = other.refusedPath;
    }
    return *this;
}

HTTPResponse::~HTTPResponse() {
    if (fileDescriptor >= 0) ::close(fileDescriptor);
}

std::string responseHead(std::string_view status, std::string_view contentType, std::uint64_t length) {
    std::string head;
    head.reserve(160);
    head += "HTTP/1.1 ";
    head += status;
    head += "\r\nContent-Type: ";
    head += contentType;
    head += "\r\nContent-Length: ";
    head += std::to_string(length);
    head += "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
    return head;
}

namespace {
constexpr std::string_view plainText = "text/plain; charset=utf-8";

HTTPResponse textResponse(int code, std::string_view status, std::string body, std::string_view type, bool withBody) {
    HTTPResponse response;
    response.status = code;
    response.head = responseHead(status, type, body.size());
    if (withBody) response.body = std::move(body);
    return response;
}
} // namespace

namespace {
// A regular file reached from the folder without any link and without leaving it: the kernel
// checks both while opening. Nothing when the full resolution has to decide.
std::optional<HTTPResponse> openBeneath(const HTTPRequestLine& line, bool isHead, int rootDescriptor) {
    std::string_view path = line.path;
    if (auto query = path.find('?'); query != std::string_view::npos) path = path.substr(0, query);
    auto decoded = StaticFiles::percentDecode(path);
    if (!decoded) return std::nullopt;
    auto start = decoded->find_first_not_of('/');
    if (start == std::string::npos) return std::nullopt;
    open_how how{};
    how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    int fd = static_cast<int>(::syscall(SYS_openat2, rootDescriptor, decoded->c_str() + start, &how, sizeof how));
    if (fd < 0) return std::nullopt;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return std::nullopt;
    }
    HTTPResponse response;
    response.status = 200;
    response.fileLength = static_cast<std::uint64_t>(info.st_size);
    response.head = responseHead("200 OK", StaticFiles::contentType(*decoded), response.fileLength);
    if (isHead) {
        ::close(fd);
    } else {
        response.fileDescriptor = fd;
    }
    return response;
}
} // namespace

HTTPResponse respondTo(std::string_view request, const std::filesystem::path& root, int rootDescriptor) {
    auto line = HTTPRequestLine::parse(request);
    if (!line) return textResponse(400, "400 Bad Request", "Bad request", plainText, true);
    bool isHead = line->method == "HEAD";
    if (line->method != "GET" && !isHead) {
        return textResponse(405, "405 Method Not Allowed", "Only GET and HEAD", plainText, true);
    }
    if (rootDescriptor >= 0) {
        if (auto fast = openBeneath(*line, isHead, rootDescriptor)) return std::move(*fast);
    }
    auto resolution = StaticFiles::resolve(line->path, root);
    switch (resolution.kind) {
    case StaticFiles::Resolution::Kind::forbidden: {
        auto response = textResponse(403, "403 Forbidden", "Outside the folder", plainText, !isHead);
        response.refusedPath = true;
        return response;
    }
    case StaticFiles::Resolution::Kind::notFound:
        return textResponse(404, "404 Not Found", "Not found", plainText, !isHead);
    case StaticFiles::Resolution::Kind::directory:
        return textResponse(200, "200 OK", StaticFiles::listing(line->path, resolution.url), "text/html; charset=utf-8",
                            !isHead);
    case StaticFiles::Resolution::Kind::file: break;
    }

    // Opened once and measured on the open file, so the length sent is the length of what is sent.
    int fd = ::open(resolution.url.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (fd >= 0) ::close(fd);
        // There but not for us: the folder is shared as the user sees it, and this file is closed
        // to the user.
        return textResponse(403, "403 Forbidden", "Not readable", plainText, !isHead);
    }
    HTTPResponse response;
    response.status = 200;
    response.fileLength = static_cast<std::uint64_t>(info.st_size);
    response.head = responseHead("200 OK", StaticFiles::contentType(resolution.url), response.fileLength);
    if (isHead) {
        ::close(fd);
    } else {
        response.fileDescriptor = fd;
    }
    return response;
}

} // namespace tavrick

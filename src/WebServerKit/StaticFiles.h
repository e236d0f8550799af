#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tavrick {

// The first line of a request: "GET /path HTTP/1.1".
struct HTTPRequestLine {
    std::string method;
    std::string path;

    // The text up to the first CR LF, split on blanks; nothing unless there are three parts, the
    // path begins with "/" and the version with "HTTP/".
    static std::optional<HTTPRequestLine> parse(std::string_view text);

    friend bool operator==(const HTTPRequestLine&, const HTTPRequestLine&) = default;
};

// The pure parts of serving a folder: where a request path lands, and what it is called.
namespace StaticFiles {

struct Resolution {
    enum class Kind { file, directory, notFound, forbidden };
    Kind kind = Kind::notFound;
    std::filesystem::path url;

    friend bool operator==(const Resolution&, const Resolution&) = default;
};

// Decodes the path, joins it to the root and resolves links and ".." on the result, so that
// every way out of the folder (dots, encoded dots or slashes, a symbolic link) is `forbidden`.
Resolution resolve(std::string_view requestPath, const std::filesystem::path& root);

// By lower-cased extension; anything unknown is "application/octet-stream".
std::string contentType(const std::filesystem::path& url);

// Percent-decoding of a path; nothing for a broken escape or a decoded NUL.
std::optional<std::string> percentDecode(std::string_view text);
// Keeps unreserved characters and "/", encodes every other byte.
std::string percentEncodePath(std::string_view text);
std::string escapeHTML(std::string_view text);

// The page for a folder without an index: its entries sorted by name, folders with a trailing
// "/", each linked by its encoded absolute path.
std::string listing(std::string_view requestPath, const std::filesystem::path& directory);

} // namespace StaticFiles

} // namespace tavrick

#include "WebServerKit/StaticFiles.h"

#include <algorithm>
#include <cctype>
#include <system_error>
#include <unordered_map>
#include <vector>

namespace tavrick {

namespace fs = std::filesystem;

std::optional<HTTPRequestLine> HTTPRequestLine::parse(std::string_view text) {
    if (auto end = text.find("\r\n"); end != std::string_view::npos) text = text.substr(0, end);
    std::vector<std::string_view> parts;
    std::size_t i = 0;
    while (i < text.size() && parts.size() < 4) {
        while (i < text.size() && text[i] == ' ') ++i;
        std::size_t start = i;
        while (i < text.size() && text[i] != ' ') ++i;
        if (i > start) parts.push_back(text.substr(start, i - start));
    }
    if (parts.size() < 3) return std::nullopt;
    if (!parts[2].starts_with("HTTP/") || !parts[1].starts_with("/")) return std::nullopt;
    return HTTPRequestLine{std::string(parts[0]), std::string(parts[1])};
}

namespace StaticFiles {

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The canonical form of a path whose tail may not exist yet: links resolved in what exists,
// dots folded in the rest.
std::optional<fs::path> resolved(const fs::path& path) {
    std::error_code error;
    auto result = fs::weakly_canonical(path, error);
    if (error) return std::nullopt;
    return result.lexically_normal();
}
} // namespace

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size()) return std::nullopt;
            int high = hexValue(text[i + 1]);
            int low = hexValue(text[i + 2]);
            if (high < 0 || low < 0) return std::nullopt;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        // No file name holds a NUL; a request that smuggles one in names nothing.
        if (c == '\0') return std::nullopt;
        out.push_back(c);
    }
    return out;
}

std::string percentEncodePath(std::string_view text) {
    static const char* digits = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(digits[c >> 4]);
            out.push_back(digits[c & 15]);
        }
    }
    return out;
}

std::string escapeHTML(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&#39;"; break;
        default: out.push_back(c);
        }
    }
    return out;
}

Resolution resolve(std::string_view requestPath, const fs::path& root) {
    if (auto query = requestPath.find('?'); query != std::string_view::npos) requestPath = requestPath.substr(0, query);
    auto decoded = percentDecode(requestPath);
    if (!decoded) return {Resolution::Kind::notFound, {}};

    auto base = resolved(fs::absolute(root));
    if (!base) return {Resolution::Kind::notFound, {}};
    std::string relative = *decoded;
    relative.erase(0, relative.find_first_not_of('/'));
    auto target = resolved(*base / relative);
    if (!target) return {Resolution::Kind::notFound, {}};

    // Compared as text with the separator, so "/tmp/site-old" is not inside "/tmp/site".
    std::string rootText = base->string();
    std::string targetText = target->string();
    while (targetText.size() > 1 && targetText.back() == '/') targetText.pop_back();
    while (rootText.size() > 1 && rootText.back() == '/') rootText.pop_back();
    std::string prefix = rootText == "/" ? rootText : rootText + "/";
    if (targetText != rootText && !targetText.starts_with(prefix)) return {Resolution::Kind::forbidden, *target};

    std::error_code error;
    auto status = fs::status(targetText, error);
    if (error || !fs::exists(status)) return {Resolution::Kind::notFound, {}};
    if (fs::is_directory(status)) {
        for (const char* index : {"index.html", "index.htm"}) {
            fs::path candidate = fs::path(targetText) / index;
            if (fs::is_regular_file(candidate, error)) return {Resolution::Kind::file, candidate};
        }
        return {Resolution::Kind::directory, fs::path(targetText)};
    }
    return {Resolution::Kind::file, fs::path(targetText)};
}

std::string contentType(const fs::path& url) {
    static const std::unordered_map<std::string, std::string> types = {
        {"html", "text/html; charset=utf-8"},        {"htm", "text/html; charset=utf-8"},
        {"css", "text/css; charset=utf-8"},          {"js", "text/javascript; charset=utf-8"},
        {"mjs", "text/javascript; charset=utf-8"},   {"cjs", "text/javascript; charset=utf-8"},
        {"json", "application/json; charset=utf-8"}, {"map", "application/json; charset=utf-8"},
        {"xml", "application/xml; charset=utf-8"},   {"txt", "text/plain; charset=utf-8"},
        {"text", "text/plain; charset=utf-8"},       {"md", "text/plain; charset=utf-8"},
        {"log", "text/plain; charset=utf-8"},        {"pdf", "application/pdf"},
        {"svg", "image/svg+xml"},                    {"png", "image/png"},
        {"jpg", "image/jpeg"},                       {"jpeg", "image/jpeg"},
        {"gif", "image/gif"},                        {"webp", "image/webp"},
        {"avif", "image/avif"},                      {"ico", "image/x-icon"},
        {"wasm", "application/wasm"},                {"woff", "font/woff"},
        {"woff2", "font/woff2"},                     {"mp4", "video/mp4"},
        {"webm", "video/webm"},                      {"mp3", "audio/mpeg"},
    };
    std::string extension = url.extension().string();
    if (!extension.empty()) extension.erase(0, 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    auto found = types.find(extension);
    return found == types.end() ? "application/octet-stream" : found->second;
}

std::string listing(std::string_view requestPath, const fs::path& directory) {
    if (auto query = requestPath.find('?'); query != std::string_view::npos) requestPath = requestPath.substr(0, query);
    std::string shown = percentDecode(requestPath).value_or(std::string(requestPath));
    std::string base = shown.ends_with('/') ? shown : shown + "/";

    std::vector<std::pair<std::string, bool>> entries;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        std::error_code typeError;
        entries.emplace_back(it->path().filename().string(), it->is_directory(typeError));
    }
    std::sort(entries.begin(), entries.end());

    std::string page = "<!doctype html><meta charset=utf-8>";
    page += "<title>" + escapeHTML(shown) + "</title>";
    page += "<style>body{font:14px -apple-system,system-ui;margin:2rem;max-width:40rem}"
            "a{display:block;padding:.25rem 0}</style>";
    page += "<h1>" + escapeHTML(shown) + "</h1>\n";
    for (const auto& [name, isDirectory] : entries) {
        std::string suffix = isDirectory ? "/" : "";
        page += "<a href=\"" + percentEncodePath(base + name) + suffix + "\">" + escapeHTML(name) + suffix + "</a>\n";
    }
    return page;
}

} // namespace StaticFiles

} // namespace tavrick

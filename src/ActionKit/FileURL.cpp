#include "ActionKit/FileURL.h"

#include <glib.h>

namespace tavrick::FileURL {

std::optional<URL> fromPath(const std::filesystem::path& path) {
    gchar* uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
    if (!uri) return std::nullopt;
    URL url{uri};
    g_free(uri);
    return url;
}

std::optional<std::filesystem::path> toPath(const std::string& url) {
    gchar* filename = g_filename_from_uri(url.c_str(), nullptr, nullptr);
    if (!filename) return std::nullopt;
    std::filesystem::path path(filename);
    g_free(filename);
    return path;
}

std::filesystem::path expandingTilde(const std::string& path, const std::filesystem::path& home) {
    if (path == "~") return home;
    if (path.rfind("~/", 0) == 0) return home / path.substr(2);
    return path;
}

} // namespace tavrick::FileURL

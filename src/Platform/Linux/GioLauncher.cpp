#include "Platform/Linux/GioLauncher.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include <cstdlib>

namespace tavrick {

namespace {

// Takes the error's message and frees it.
std::string consume(GError* error) {
    std::string message = error && error->message ? error->message : "unknown error";
    if (error) g_error_free(error);
    return message;
}

template <class T>
struct Unref {
    void operator()(T* object) const { g_object_unref(object); }
};
template <class T>
using GPtr = std::unique_ptr<T, Unref<T>>;

// An entry needs a command to run, or to be started over the session bus.
bool canStart(GDesktopAppInfo* info) {
    const char* executable = g_app_info_get_executable(G_APP_INFO(info));
    return (executable && *executable) || g_desktop_app_info_get_boolean(info, "DBusActivatable");
}

std::optional<std::string> launchDefault(const std::string& uri) {
    GError* error = nullptr;
    if (!g_app_info_launch_default_for_uri(uri.c_str(), nullptr, &error)) return consume(error);
    return std::nullopt;
}

} // namespace

bool GioLauncher::hasDesktopSession() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* value = std::getenv(name);
        if (value && *value) return true;
    }
    return false;
}

std::optional<std::string> GioLauncher::applicationURL(const std::string& bundleIdentifier) const {
    if (bundleIdentifier.empty() || bundleIdentifier.find('/') != std::string::npos) return std::nullopt;
    // An entry that cannot be started (no command, or not a valid entry) is no application.
    GPtr<GDesktopAppInfo> info(g_desktop_app_info_new((bundleIdentifier + ".desktop").c_str()));
    if (!info || !canStart(info.get())) return std::nullopt;
    const char* file = g_desktop_app_info_get_filename(info.get());
    if (!file) return std::nullopt;
    return std::string(file);
}

void GioLauncher::openApplication(const std::string& applicationURL,
                                  std::function<void(std::optional<std::string>)> completion) {
    std::optional<std::string> failure;
    GPtr<GDesktopAppInfo> info(g_desktop_app_info_new_from_filename(applicationURL.c_str()));
    if (!info || !canStart(info.get())) {
        failure = applicationURL + " is not a desktop entry that can be started";
    } else {
        GError* error = nullptr;
        // Without "do not reap", GLib leaves no child behind for a main loop we never run.
        if (!g_desktop_app_info_launch_uris_as_manager(info.get(), nullptr, nullptr, G_SPAWN_SEARCH_PATH, nullptr,
                                                       nullptr, nullptr, nullptr, &error)) {
            failure = consume(error);
        }
    }
    if (completion) completion(failure);
}

std::optional<std::string> GioLauncher::open(const URL& url) {
    return launchDefault(url.absoluteString);
}

std::optional<std::string> GioLauncher::reveal(const std::filesystem::path& path) {
    // The folder that holds it, in the user's file manager; selecting the file itself takes the
    // file manager's own interface.
    const auto folder = path.has_parent_path() ? path.parent_path() : path;
    gchar* uri = g_filename_to_uri(folder.c_str(), nullptr, nullptr);
    if (!uri) return std::string("not an absolute path: ") + folder.string();
    auto failure = launchDefault(uri);
    g_free(uri);
    return failure;
}

} // namespace tavrick

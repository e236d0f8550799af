#include "Platform/Linux/XdgAutostart.h"

#include "CoreKit/FileIO.h"

#include <glib.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace tavrick::XdgAutostart {

namespace {
struct KeyFile {
    GKeyFile* file = g_key_file_new();
    ~KeyFile() { g_key_file_free(file); }
};
constexpr const char* group = "Desktop Entry";
} // namespace

std::filesystem::path defaultEntry() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    std::filesystem::path base;
    if (config && *config == '/') {
        base = config;
    } else {
        const char* home = std::getenv("HOME");
        base = std::filesystem::path(home ? home : "/") / ".config";
    }
    return base / "autostart" / entryName;
}

int entryStatus(const std::filesystem::path& entry) {
    std::error_code error;
    if (!std::filesystem::exists(entry, error)) return static_cast<int>(LoginItemStatus::notRegistered);
    KeyFile keys;
    if (!g_key_file_load_from_file(keys.file, entry.c_str(), G_KEY_FILE_NONE, nullptr)) return -1;
    auto flag = [&](const char* key, bool fallback) {
        GError* missing = nullptr;
        gboolean value = g_key_file_get_boolean(keys.file, group, key, &missing);
        if (missing) {
            g_error_free(missing);
            return fallback;
        }
        return value != FALSE;
    };
    if (flag("Hidden", false) || !flag("X-GNOME-Autostart-enabled", true)) {
        return static_cast<int>(LoginItemStatus::notRegistered);
    }
    gchar* exec = g_key_file_get_string(keys.file, group, "Exec", nullptr);
    if (!exec) return -1;
    gint argc = 0;
    gchar** argv = nullptr;
    const bool parsed = g_shell_parse_argv(exec, &argc, &argv, nullptr);
    g_free(exec);
    if (!parsed || argc == 0) {
        g_strfreev(argv);
        return -1;
    }
    // The copy that registered was moved or deleted: the entry points at nothing.
    const bool runnable = ::access(argv[0], X_OK) == 0;
    g_strfreev(argv);
    return static_cast<int>(runnable ? LoginItemStatus::enabled : LoginItemStatus::notFound);
}

std::optional<std::string> registerEntry(const std::filesystem::path& entry, const std::filesystem::path& executable) {
    KeyFile keys;
    g_key_file_set_string(keys.file, group, "Type", "Application");
    g_key_file_set_string(keys.file, group, "Name", "Tavrick");
    g_key_file_set_string(keys.file, group, "Comment", "Shortcuts, gestures and small tools from the menu bar");
    gchar* quoted = g_shell_quote(executable.c_str());
    g_key_file_set_string(keys.file, group, "Exec", quoted);
    g_free(quoted);
    g_key_file_set_boolean(keys.file, group, "Terminal", FALSE);
    g_key_file_set_boolean(keys.file, group, "X-GNOME-Autostart-enabled", TRUE);
    gsize length = 0;
    gchar* text = g_key_file_to_data(keys.file, &length, nullptr);
    std::string contents(text, length);
    g_free(text);

    std::error_code error;
    std::filesystem::create_directories(entry.parent_path(), error);
    if (error) return "cannot create " + entry.parent_path().string() + ": " + error.message();
    if (auto failure = FileIO::writeAtomically(entry, contents)) {
        return "could not " + failure->step + " " + entry.string() + ": " + std::strerror(failure->error);
    }
    return std::nullopt;
}

std::optional<std::string> unregisterEntry(const std::filesystem::path& entry) {
    if (::unlink(entry.c_str()) != 0 && errno != ENOENT) {
        return "could not remove " + entry.string() + ": " + std::strerror(errno);
    }
    return std::nullopt;
}

LoginItemService service(std::filesystem::path entry, std::filesystem::path executable,
                         std::function<void(const std::filesystem::path&)> openFolder) {
    return LoginItemService{
        .status = [entry] { return entryStatus(entry); },
        .registerItem = [entry, executable] { return registerEntry(entry, executable); },
        .unregisterItem = [entry] { return unregisterEntry(entry); },
        .openSettings = [entry, openFolder] {
            if (openFolder) openFolder(entry.parent_path());
        },
    };
}

} // namespace tavrick::XdgAutostart

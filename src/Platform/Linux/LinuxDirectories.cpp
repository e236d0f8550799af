#include "Platform/Linux/LinuxDirectories.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace tavrick {

namespace {
const char* homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (passwd* entry = getpwuid(getuid())) return entry->pw_dir;
    return "/";
}
} // namespace

std::filesystem::path LinuxDirectories::resolve(const char* xdgValue, const char* home, const char* fallback) {
    if (xdgValue && xdgValue[0] == '/') return xdgValue;
    return std::filesystem::path(home) / fallback;
}

LinuxDirectories::LinuxDirectories()
    : data_(resolve(std::getenv("XDG_DATA_HOME"), homeDirectory(), ".local/share")),
      config_(resolve(std::getenv("XDG_CONFIG_HOME"), homeDirectory(), ".config")) {}

} // namespace tavrick

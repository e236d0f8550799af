#include "Platform/Linux/LinuxBundle.h"

#include <system_error>

namespace tavrick {

namespace {
std::filesystem::path runningExecutable() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path() : path;
}

std::vector<std::filesystem::path> defaultResourceDirectories(const std::filesystem::path& executable) {
    std::vector<std::filesystem::path> directories;
    if (!executable.empty()) {
        auto dir = executable.parent_path();
        directories.push_back(dir / "resources");
        directories.push_back(dir.parent_path() / "share" / "tavrick");
    }
    directories.push_back(TAVRICK_SOURCE_RESOURCES);
    return directories;
}
} // namespace

LinuxBundle::LinuxBundle(std::filesystem::path executable)
    : executable_(executable.empty() ? runningExecutable() : std::move(executable)),
      resourceDirectories_(defaultResourceDirectories(executable_)) {}

LinuxBundle::LinuxBundle(std::filesystem::path executable, std::vector<std::filesystem::path> resourceDirectories)
    : executable_(std::move(executable)), resourceDirectories_(std::move(resourceDirectories)) {}

std::optional<std::string> LinuxBundle::identifier() const {
    return std::string("com.orvell.tavrick");
}

std::optional<std::string> LinuxBundle::infoString(const std::string& key) const {
    if (key == "CFBundleShortVersionString") return std::string(TAVRICK_VERSION);
    if (key == "CFBundleVersion") return std::string(TAVRICK_BUILD);
    if (key == "CFBundleDisplayName" || key == "CFBundleName") return std::string("Tavrick");
    if (key == "CFBundleIdentifier") return identifier();
    return std::nullopt;
}

std::optional<std::filesystem::path> LinuxBundle::resourcePath(const std::string& name) const {
    for (const auto& dir : resourceDirectories_) {
        std::error_code error;
        auto candidate = dir / name;
        if (std::filesystem::is_regular_file(candidate, error)) return candidate;
    }
    return std::nullopt;
}

} // namespace tavrick

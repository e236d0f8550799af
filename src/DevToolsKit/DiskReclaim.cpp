#include "DevToolsKit/DiskReclaim.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <unordered_set>

namespace tavrick {

namespace fs = std::filesystem;

fs::path Reclaimable::url(const fs::path& home) const {
    if (displayPath == "~") return home;
    if (displayPath.starts_with("~/")) return home / displayPath.substr(2);
    return displayPath;
}

// Where the original platform keeps a cache under ~/Library/Caches, the same tool on Linux
// keeps it under ~/.cache; the rows name the Linux folder. The Xcode and simulator folders have
// no Linux counterpart and stay as they are: absent here, they measure as nothing.
const std::vector<Reclaimable>& Reclaimable::all() {
    static const std::vector<Reclaimable> rows = {
        {"npm", "npm cache", "~/.npm/_cacache", "npm downloads packages again on the next install.", true},
        {"yarn", "Yarn cache", "~/.cache/yarn", "Yarn downloads packages again on the next install.", true},
        {"pnpm", "pnpm store", "~/.local/share/pnpm/store", "pnpm downloads packages again on the next install.", true},
        {"pip", "pip cache", "~/.cache/pip", "pip downloads wheels again on the next install.", true},
        {"homebrew", "Homebrew downloads", "~/.cache/Homebrew",
         "Homebrew re-downloads what it needs. Installed formulae are untouched.", true},
        {"derived-data", "Xcode DerivedData", "~/Library/Developer/Xcode/DerivedData",
         "Xcode rebuilds. The next build of each project is a slow one.", true},
        {"xcode-caches", "Xcode caches", "~/Library/Caches/com.apple.dt.Xcode", "Xcode rebuilds its indexes.", true},
        {"simulator-caches", "Simulator caches", "~/Library/Developer/CoreSimulator/Caches",
         "The simulator rebuilds them. Installed simulators and their data stay.", true},
        {"swiftpm", "SwiftPM cache", "~/.cache/org.swift.swiftpm", "SwiftPM re-fetches package dependencies.", true},
        {"go-build", "Go build cache", "~/.cache/go-build", "Go rebuilds. The next build of each project is a slow one.",
         true},
        {"gradle", "Gradle caches", "~/.gradle/caches", "Gradle re-downloads dependencies and rebuilds.", true},
        {"device-support", "Xcode device support", "~/Library/Developer/Xcode/iOS DeviceSupport",
         "Xcode copies the symbols again the next time that device is plugged in. Usually the largest of these.", true},
        {"device-support-watch", "watchOS device support", "~/Library/Developer/Xcode/watchOS DeviceSupport",
         "Copied again the next time a watch is paired for development.", true},
        {"uv", "uv cache", "~/.cache/uv", "uv downloads packages again on the next install.", true},
        {"cargo", "Cargo registry cache", "~/.cargo/registry/cache",
         "Cargo downloads crates again on the next build. Only the downloaded archives — the unpacked sources stay.",
         true},
        {"cocoapods", "CocoaPods cache", "~/.cache/CocoaPods", "CocoaPods downloads pods again on the next install.",
         true},
        {"playwright", "Playwright browsers", "~/.cache/ms-playwright",
         "Playwright downloads the browsers again on the next run. They are large, and a re-download is slow rather "
         "than lossy.",
         true},
        {"cypress", "Cypress binaries", "~/.cache/Cypress",
         "Cypress downloads the version it needs again on the next run.", true},
        {"bun", "Bun cache", "~/.bun/install/cache", "Bun downloads packages again on the next install.", true},
        {"deno", "Deno cache", "~/.cache/deno", "Deno fetches modules again on the next run.", true},
    };
    return rows;
}

bool Reclaimable::isDeletable(const fs::path& url, const fs::path& home) {
    if (home.empty() || !home.is_absolute() || !url.is_absolute()) return false;
    // "folder/" and "folder" are the same folder.
    auto normal = [](const fs::path& path) {
        auto out = path.lexically_normal();
        return out.has_filename() || out == out.root_path() ? out : out.parent_path();
    };
    fs::path target = normal(url);
    fs::path base = normal(home);
    fs::path relative = target.lexically_relative(base);
    if (relative.empty() || relative == "." || *relative.begin() == "..") return false;
    if (std::distance(relative.begin(), relative.end()) < 2) return false;
    bool listed = std::any_of(all().begin(), all().end(),
                              [&](const Reclaimable& row) { return row.url(base).lexically_normal() == target; });
    if (!listed) return false;
    // A link anywhere below home would lead the removal somewhere else.
    std::error_code error;
    auto realHome = fs::weakly_canonical(base, error);
    if (error) return false;
    auto realTarget = fs::weakly_canonical(target, error);
    if (error) return false;
    return realTarget == (realHome / relative).lexically_normal();
}

std::string ToolCleanup::commandLine() const {
    std::string line = tool;
    for (const auto& argument : arguments) line += " " + argument;
    return line;
}

const std::vector<ToolCleanup>& ToolCleanup::all() {
    static const std::vector<ToolCleanup> rows = {
        {"brew", "Homebrew", "brew", {"cleanup", "--prune=all", "-s"},
         "Removes old versions and the download cache, keeping what is installed."},
        {"npm", "npm", "npm", {"cache", "clean", "--force"},
         "Empties the cache npm itself manages, rather than the folder underneath it."},
        {"go-modcache", "Go modules", "go", {"clean", "-modcache"},
         "The only correct way to empty ~/go/pkg/mod — its files are read-only, and a plain delete stops half way."},
        {"simctl", "Unavailable simulators", "xcrun", {"simctl", "delete", "unavailable"},
         "Deletes simulators whose runtime is no longer installed. The ones you use are untouched."},
        {"cocoapods", "CocoaPods", "pod", {"cache", "clean", "--all"},
         "Empties the pod cache through CocoaPods, so its index stays consistent."},
    };
    return rows;
}

std::vector<ToolCleanup> ToolCleanup::available(const ProgramLookup& lookup) {
    std::vector<ToolCleanup> out;
    for (const auto& row : all()) {
        if (lookup && lookup(row.tool)) out.push_back(row);
    }
    return out;
}

const std::vector<LargeItem>& LargeItem::all() {
    static const std::vector<LargeItem> rows = {
        {"ollama", "Ollama models", "~/.ollama/models",
         "Language models pulled with `ollama pull`. Tens of gigabytes is normal.",
         "Remove one at a time with `ollama rm <model>`, so the ones you still use stay."},
        {"huggingface", "Hugging Face cache", "~/.cache/huggingface",
         "Model weights downloaded by transformers, diffusers and friends.",
         "`huggingface-cli delete-cache` walks you through which revisions to drop."},
        {"docker", "Docker disk image", "~/.docker/desktop/vms/0/data",
         "One file holding every image, container and volume Docker has.",
         "`docker system prune` reclaims inside it. Deleting the file loses every container and named volume, which "
         "is not a cache."},
        {"archives", "Xcode archives", "~/Library/Developer/Xcode/Archives",
         "The builds you shipped, and the dSYMs that go with them.",
         "Keep the ones you have released. Without the dSYM a crash report from a user is unreadable for ever — this "
         "is the one folder here that cannot be regenerated at all."},
        {"device-backups", "iPhone and iPad backups", "~/Library/Application Support/MobileSync/Backup",
         "Full device backups made by Finder.",
         "Finder › your device › Manage Backups deletes them safely, and knows which is the newest."},
        {"simulators", "Simulator devices", "~/Library/Developer/CoreSimulator/Devices",
         "Every simulator you have created, with its installed apps and data.",
         "`xcrun simctl delete unavailable` removes the ones whose runtime is gone. Tavrick can do that for you below."},
        {"maven", "Maven repository", "~/.m2/repository",
         "Java dependencies, including any you have installed locally yourself.",
         "Safe to delete only if everything in it came from a remote repository — `mvn install` puts local artefacts "
         "here too, and those have no other copy."},
        {"go-modules", "Go module cache", "~/go/pkg/mod",
         "Every version of every module any of your projects has ever needed.",
         "`go clean -modcache`. Not deleted here because its files are written read-only, so a plain removal "
         "half-finishes and leaves the tree broken."},
    };
    return rows;
}

namespace DiskReclaim {

namespace {
struct Walk {
    dev_t device;
    std::unordered_set<ino_t> linked;
    std::uint64_t total = 0;

    void count(const struct stat& info) {
        // A file with several names is counted at its first.
        if (info.st_nlink > 1 && !S_ISDIR(info.st_mode) && !linked.insert(info.st_ino).second) return;
        total += static_cast<std::uint64_t>(info.st_blocks) * 512u;
    }

    void directory(int fd) {
        DIR* dir = ::fdopendir(fd);
        if (!dir) {
            ::close(fd);
            return;
        }
        while (dirent* entry = ::readdir(dir)) {
            const char* name = entry->d_name;
            if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
            struct stat info {};
            // Gone since the listing: nothing to count.
            if (::fstatat(::dirfd(dir), name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (info.st_dev != device) continue;
            count(info);
            if (S_ISDIR(info.st_mode)) {
                int child = ::openat(::dirfd(dir), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
                if (child >= 0) directory(child);
            }
        }
        ::closedir(dir);
    }
};

// Removes what can go below `path` and `path` itself, going on past what cannot.
void removeTree(const fs::path& path, dev_t device, DiagnosticLog& log) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return;
    if (info.st_dev != device) {
        log.note("reclaim", "could not remove " + path.string());
        return;
    }
    if (S_ISDIR(info.st_mode)) {
        std::error_code error;
        std::vector<fs::path> children;
        for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
            children.push_back(it->path());
        }
        for (const auto& child : children) removeTree(child, device, log);
        if (::rmdir(path.c_str()) != 0 && errno != ENOENT) {
            // The note names the file that stayed, not each folder above it.
            if (errno != ENOTEMPTY && errno != EEXIST) log.note("reclaim", "could not remove " + path.string());
        }
        return;
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) log.note("reclaim", "could not remove " + path.string());
}
} // namespace

std::optional<std::uint64_t> size(const fs::path& url) {
    struct stat info {};
    if (::lstat(url.c_str(), &info) != 0) return std::nullopt;
    Walk walk{info.st_dev, {}, 0};
    walk.count(info);
    if (S_ISDIR(info.st_mode)) {
        int fd = ::open(url.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0) walk.directory(fd);
    }
    return walk.total;
}

std::optional<std::uint64_t> empty(const Reclaimable& item, const fs::path& home, DiagnosticLog& log) {
    fs::path folder = item.url(home);
    if (!Reclaimable::isDeletable(folder, home)) {
        log.note("reclaim", "refused to empty " + folder.string());
        return std::nullopt;
    }
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        log.note("reclaim", "refused to empty " + folder.string());
        return std::nullopt;
    }
    auto before = size(folder).value_or(0);
    std::error_code error;
    std::vector<fs::path> children;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        children.push_back(it->path());
    }
    for (const auto& child : children) removeTree(child, info.st_dev, log);
    auto after = size(folder).value_or(0);
    std::uint64_t freed = before > after ? before - after : 0;
    log.note("reclaim", "emptied " + item.title + ", freed " + std::to_string(freed) + " bytes");
    return freed;
}

} // namespace DiskReclaim

namespace ToolRunner {

std::vector<fs::path> fallbackPath(const fs::path& home) {
    return {"/opt/homebrew/bin", "/usr/local/bin", "/usr/bin",         "/bin",          "/usr/sbin",
            "/sbin",             home / ".cargo/bin", home / ".local/bin", home / "go/bin"};
}

namespace {
std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}
} // namespace

std::string run(const ToolCleanup& cleanup, double timeout, const ProgramLookup& lookup, DiagnosticLog& log) {
    auto program = lookup ? lookup(cleanup.tool) : std::nullopt;
    if (!program) return cleanup.tool + " is not on this Mac.";
    log.note("reclaim", "running " + cleanup.commandLine());
    auto result = runToolProcess(*program, cleanup.arguments, timeout);
    if (result.failedToStart) return "Could not run " + cleanup.tool;
    if (result.timedOut) {
        log.note("reclaim", cleanup.tool + " stopped after " + seconds(timeout) + "s");
        return "Stopped after " + seconds(timeout) + "s. It may have done part of the work.";
    }
    log.note("reclaim", cleanup.tool + " finished with status " + std::to_string(result.status));
    if (result.status != 0) {
        std::string text = cleanup.tool + " exited with status " + std::to_string(result.status) + " first.";
        if (!result.output.empty()) text += "\n" + result.output;
        return text;
    }
    if (result.output.empty()) return "Done. " + cleanup.tool + " reported nothing.";
    return result.output;
}

} // namespace ToolRunner

namespace LocalSnapshots {

Summary parse(std::string_view text) {
    constexpr std::string_view prefix = "com.apple.TimeMachine.";
    Summary summary;
    while (!text.empty()) {
        auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (!line.starts_with(prefix)) continue;
        ++summary.count;
        std::string date(line.substr(prefix.size()));
        if (auto dot = date.find('.'); dot != std::string::npos) date.erase(dot);
        if (!summary.oldest || date < *summary.oldest) summary.oldest = date;
    }
    return summary;
}

std::optional<Summary> read(double timeout, const ProgramLookup& lookup) {
    auto program = lookup ? lookup("/usr/bin/tmutil") : std::nullopt;
    if (!program) return std::nullopt;
    auto result = runToolProcess(*program, {"listlocalsnapshots", "/"}, timeout);
    if (result.failedToStart || result.timedOut) return std::nullopt;
    return parse(result.output);
}

} // namespace LocalSnapshots

namespace SimulatorDevices {

int countBooted(std::string_view json) {
    auto document = nlohmann::json::parse(json, nullptr, false);
    if (!document.is_object() || !document.contains("devices") || !document["devices"].is_object()) return 0;
    int booted = 0;
    for (const auto& [runtime, devices] : document["devices"].items()) {
        if (!devices.is_array()) continue;
        for (const auto& device : devices) {
            if (device.is_object() && device.value("state", "") == "Booted") ++booted;
        }
    }
    return booted;
}

} // namespace SimulatorDevices

} // namespace tavrick

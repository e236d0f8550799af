#include "DevToolsKit/PathDoctor.h"

#include <algorithm>
#include <cmath>

namespace tavrick {

namespace {

std::string_view trimmed(std::string_view text) {
    auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

bool isWordCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

std::string expandHome(std::string_view item, const std::string& home) {
    std::string out;
    for (std::size_t i = 0; i < item.size();) {
        if (item.substr(i).starts_with("${HOME}")) {
            out += home;
            i += 7;
        } else if (item.substr(i).starts_with("$HOME") && (i + 5 == item.size() || !isWordCharacter(item[i + 5]))) {
            out += home;
            i += 5;
        } else if (item[i] == '~' && i + 1 < item.size() && item[i + 1] == '/' &&
                   (i == 0 || item[i - 1] == '(' || item[i - 1] == ' ' || item[i - 1] == '\t')) {
            out += home;
            i += 1;
        } else {
            out += item[i++];
        }
    }
    return out;
}

std::string unquoted(std::string_view text) {
    std::string out;
    for (char c : text) {
        if (c != '"' && c != '\'') out += c;
    }
    return out;
}

bool refersToPath(std::string_view item) {
    return item.find("$PATH") != std::string_view::npos || item.find("${PATH}") != std::string_view::npos ||
           item.find("$path") != std::string_view::npos || item.find("${path") != std::string_view::npos;
}

// The value after "=" up to the end of the shell word: quoted text runs to its closing quote.
std::string_view wordAt(std::string_view rest) {
    std::size_t i = 0;
    char quote = 0;
    for (; i < rest.size(); ++i) {
        char c = rest[i];
        if (quote) {
            if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == ' ' || c == '\t' || c == ';' || c == '#' || c == '&' || c == '|') {
            break;
        }
    }
    return rest.substr(0, i);
}

} // namespace

namespace PathDoctor {

const std::vector<std::string>& startupFiles() {
    static const std::vector<std::string> files{".zshenv", ".zprofile", ".zshrc", ".zlogin",
                                                ".profile", ".bash_profile", ".bash_login", ".bashrc"};
    return files;
}

std::string chooseShell(const char* environmentShell, const char* accountShell) {
    if (environmentShell && *environmentShell) return environmentShell;
    if (accountShell && *accountShell) return accountShell;
    return "/bin/zsh";
}

std::vector<std::string> shellArguments(const std::string& shell) {
    // printf rather than echo: some echo builtins read backslashes in the value.
    return {shell, "-l", "-c", "printf '%s%s%s' " + std::string(marker) + " \"$PATH\" " + std::string(marker)};
}

std::optional<std::string> fenced(std::string_view output) {
    auto first = output.find(marker);
    auto last = output.rfind(marker);
    if (first == std::string_view::npos || last == first) return std::nullopt;
    auto start = first + marker.size();
    return std::string(output.substr(start, last - start));
}

std::vector<std::string> split(std::string_view value) {
    std::vector<std::string> items;
    while (true) {
        auto colon = value.find(':');
        auto item = value.substr(0, colon);
        if (!item.empty()) items.emplace_back(item);
        if (colon == std::string_view::npos) break;
        value = value.substr(colon + 1);
    }
    return items;
}

std::optional<std::vector<std::string>> loginShellPath(const ShellRunner& run, const std::string& shell, double timeout,
                                                       DiagnosticLog* log) {
    auto note = [log](const std::string& message) {
        if (log) log->note("path", message);
    };
    auto result = run(shellArguments(shell), timeout);
    if (result.end == ShellRun::End::timedOut) {
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", timeout);
        note("the login shell did not answer within " + std::string(seconds) + "s");
        return std::nullopt;
    }
    if (result.end == ShellRun::End::couldNotStart) {
        note("could not run " + shell);
        return std::nullopt;
    }
    auto value = fenced(result.output);
    if (!value) {
        note("the shell printed no path between the markers");
        return std::nullopt;
    }
    return split(*value);
}

std::vector<PathEntry> entries(const std::vector<std::string>& path,
                               const std::map<std::string, std::vector<std::string>>& declaredIn,
                               const std::function<bool(const std::string&)>& fileExists) {
    std::vector<PathEntry> result;
    std::map<std::string, std::size_t> index;
    for (const auto& folder : path) {
        if (auto it = index.find(folder); it != index.end()) {
            ++result[it->second].occurrences;
            continue;
        }
        index.emplace(folder, result.size());
        PathEntry entry;
        entry.path = folder;
        if (auto it = declaredIn.find(folder); it != declaredIn.end()) entry.sources = it->second;
        entry.exists = !entry.isRelative() && fileExists(folder);
        result.push_back(std::move(entry));
    }
    return result;
}

std::vector<std::string> foldersInStartupFile(std::string_view text, const std::string& home) {
    std::vector<std::string> folders;
    auto add = [&](std::string_view raw) {
        auto item = trimmed(raw);
        if (item.empty() || refersToPath(item)) return;
        auto folder = expandHome(unquoted(item), home);
        if (!folder.empty() && std::find(folders.begin(), folders.end(), folder) == folders.end()) folders.push_back(folder);
    };
    while (!text.empty()) {
        auto end = text.find('\n');
        auto line = trimmed(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        if (line.empty() || line.front() == '#') continue;
        for (std::size_t at = 0; at < line.size(); ++at) {
            if (at > 0 && line[at - 1] != ' ' && line[at - 1] != '\t' && line[at - 1] != ';') continue;
            auto rest = line.substr(at);
            if (rest.starts_with("PATH=")) {
                auto value = unquoted(wordAt(rest.substr(5)));
                for (const auto& item : split(value)) add(item);
            } else if (rest.starts_with("path=(") || rest.starts_with("path+=(")) {
                auto open = rest.find('(');
                auto close = rest.find(')', open);
                auto list = rest.substr(open + 1, close == std::string_view::npos ? std::string_view::npos : close - open - 1);
                std::size_t start = 0;
                while (start < list.size()) {
                    auto blank = list.find_first_of(" \t", start);
                    add(list.substr(start, blank == std::string_view::npos ? std::string_view::npos : blank - start));
                    if (blank == std::string_view::npos) break;
                    start = blank + 1;
                }
            }
        }
    }
    return folders;
}

std::map<std::string, std::vector<std::string>> declarations(const std::string& home, const PathDisk& disk) {
    std::map<std::string, std::vector<std::string>> declaredIn;
    auto declare = [&](const std::string& folder, const std::string& file) {
        auto& files = declaredIn[folder];
        if (std::find(files.begin(), files.end(), file) == files.end()) files.push_back(file);
    };
    auto listFile = [&](const std::string& file) {
        auto text = disk.read(file);
        if (!text) return;
        std::string_view rest = *text;
        while (!rest.empty()) {
            auto end = rest.find('\n');
            auto line = trimmed(rest.substr(0, end));
            rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
            if (!line.empty() && line.front() != '#') declare(std::string(line), file);
        }
    };
    listFile("/etc/paths");
    auto names = disk.list ? disk.list("/etc/paths.d") : std::vector<std::string>{};
    std::sort(names.begin(), names.end());
    for (const auto& name : names) listFile("/etc/paths.d/" + name);
    std::vector<std::string> files;
    for (const auto& name : startupFiles()) files.push_back(home + "/" + name);
    // The system-wide files the shells read first, where a Linux distribution sets the base path.
    for (const char* file : {"/etc/environment", "/etc/profile", "/etc/zsh/zshenv", "/etc/zsh/zprofile", "/etc/bash.bashrc"}) {
        files.emplace_back(file);
    }
    for (const auto& file : files) {
        if (auto text = disk.read(file)) {
            for (const auto& folder : foldersInStartupFile(*text, home)) declare(folder, file);
        }
    }
    return declaredIn;
}

std::optional<std::string> parent(const std::string& path) {
    if (path.empty() || path == "/") return std::nullopt;
    auto trimmedPath = path;
    while (trimmedPath.size() > 1 && trimmedPath.back() == '/') trimmedPath.pop_back();
    auto slash = trimmedPath.rfind('/');
    if (slash == std::string::npos) return std::nullopt;
    return slash == 0 ? std::string("/") : trimmedPath.substr(0, slash);
}

bool isShared(const std::string& path, const std::string& home) {
    static const std::vector<std::string> shared{
        "/", "/opt", "/usr", "/usr/local", "/Library", "/Applications", "/Users", "/private", "/var", "/etc",
        "/private/var", "/private/etc", "/tmp", "/private/tmp", "/System", "/Library/Application Support",
        "/Library/Frameworks", "/Users/Shared", "/usr/local/share", "/usr/local/lib", "/usr/local/libexec",
        "/usr/local/include", "/usr/local/etc", "/usr/local/var", "/usr/local/opt", "/usr/local/Cellar",
        "/usr/local/Caskroom", "/opt/homebrew/opt", "/opt/homebrew/Cellar", "/opt/homebrew/Caskroom",
        // Their Linux counterparts: folders every package and installer writes into.
        "/home", "/usr/share", "/usr/lib", "/usr/libexec", "/snap", "/var/lib", "/run", "/mnt", "/media",
        "/home/linuxbrew/.linuxbrew/opt", "/home/linuxbrew/.linuxbrew/Cellar", "/.local", "/.local/share", "/.local/lib",
    };
    if (path == home) return true;
    for (const auto& folder : shared) {
        if (path == folder) return true;
        if (!home.empty() && folder != "/" && path == home + folder) return true;
    }
    return false;
}

std::optional<std::string> disconnectedVolume(const std::string& path, const std::optional<std::string>& nearestAncestor) {
    // A volume is its mount point: /Volumes/<name>, /media/<user>/<name>, /run/media/<user>/<name>
    // or /mnt/<name>. It is disconnected when the nearest folder on disk is above it.
    static const std::vector<std::pair<std::string, int>> roots{
        {"/Volumes/", 1}, {"/media/", 2}, {"/run/media/", 2}, {"/mnt/", 1}};
    for (const auto& [root, depth] : roots) {
        if (!path.starts_with(root)) continue;
        std::size_t end = root.size();
        for (int level = 0; level < depth; ++level) {
            auto slash = path.find('/', end);
            if (slash == std::string::npos) {
                end = path.size();
                if (level + 1 < depth) return std::nullopt;
                break;
            }
            end = slash + (level + 1 < depth ? 1 : 0);
        }
        auto volume = path.substr(0, end);
        while (volume.size() > 1 && volume.back() == '/') volume.pop_back();
        if (!nearestAncestor) return volume;
        if (*nearestAncestor == volume || nearestAncestor->starts_with(volume + "/")) return std::nullopt;
        return volume;
    }
    return std::nullopt;
}

std::vector<std::string> levelsToCreate(const std::string& path, const std::string& below) {
    std::vector<std::string> levels;
    std::optional<std::string> level = path;
    while (level && *level != below && level->size() > below.size()) {
        levels.push_back(*level);
        level = parent(*level);
    }
    std::reverse(levels.begin(), levels.end());
    return levels;
}

namespace {

std::optional<std::string> nearestExisting(const std::string& path, const PathDisk& disk) {
    auto level = parent(path);
    while (level) {
        if (disk.exists(*level)) return level;
        level = parent(*level);
    }
    return std::nullopt;
}

bool installedWithMacOS(const std::string& file, const PathDisk& disk) {
    static const std::string reference = "/etc/paths.d/10-cryptex";
    if (file == reference) return false;
    if (disk.owner(file) != std::optional<std::string>("root") || !disk.compressed(file)) return false;
    auto mine = disk.created(file), theirs = disk.created(reference);
    return mine && theirs && std::floor(*mine) == std::floor(*theirs);
}

} // namespace

std::optional<PathDeclaration> declaration(const std::string& file, const std::string& home, const PathDisk& disk) {
    auto text = disk.read(file);
    if (!text) return std::nullopt;
    PathDeclaration declared;
    declared.file = file;
    std::string_view rest = *text;
    while (!rest.empty()) {
        auto end = rest.find('\n');
        auto line = trimmed(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
        if (!line.empty()) declared.lines.emplace_back(line);
    }
    declared.created = disk.created(file);
    declared.owner = disk.owner(file);
    for (const auto& folder : declared.folders()) {
        if (disk.exists(folder)) continue;
        auto ancestor = nearestExisting(folder, disk);
        if (auto volume = disconnectedVolume(folder, ancestor)) {
            declared.disconnected.push_back(folder);
            continue;
        }
        declared.missing.push_back(folder);
        if (ancestor && !isShared(*ancestor, home)) declared.waiting.push_back(folder);
    }
    return declared;
}

std::vector<PathEntry> withFacts(std::vector<PathEntry> entries, const std::set<std::string>& managed,
                                 const std::string& home, const PathDisk& disk) {
    for (auto& entry : entries) {
        auto& facts = entry.facts;
        facts.addedByTavrick = managed.contains(entry.path);
        for (const auto& file : entry.sources) {
            if (!file.starts_with("/etc/paths.d/")) continue;
            facts.declaration = declaration(file, home, disk);
            if (installedWithMacOS(file, disk)) facts.cameWithMacOS = disk.created(file);
            break;
        }
        if (entry.isRelative() || entry.exists) continue;
        facts.nearestAncestor = nearestExisting(entry.path, disk);
        if (facts.nearestAncestor) {
            facts.ancestorModified = disk.modified(*facts.nearestAncestor);
            facts.ancestorIsShared = isShared(*facts.nearestAncestor, home);
        }
        // A level on the way down that is a link to nothing keeps the folder from ever being
        // there.
        for (const auto& level : levelsToCreate(entry.path, "/")) {
            auto target = disk.linkDestination(level);
            if (!target) continue;
            auto resolved = target->starts_with("/") ? *target : parent(level).value_or("/") + "/" + *target;
            if (!disk.exists(resolved)) {
                facts.brokenLink = level;
                facts.brokenLinkTarget = *target;
                break;
            }
        }
    }
    return entries;
}

} // namespace PathDoctor

} // namespace tavrick

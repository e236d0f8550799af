#include "DevToolsKit/PathModel.h"

#include "DevToolsKit/PathAdvice.h"

#include <algorithm>

namespace tavrick {

namespace {
bool contains(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}
} // namespace

std::vector<std::string> PathDeclaration::folders() const {
    std::vector<std::string> result;
    for (const auto& line : lines) {
        if (line.starts_with("/")) result.push_back(line);
    }
    return result;
}

std::vector<std::string> PathDeclaration::present() const {
    std::vector<std::string> result;
    for (const auto& folder : folders()) {
        if (!contains(missing, folder) && !contains(waiting, folder) && !contains(disconnected, folder)) result.push_back(folder);
    }
    return result;
}

std::vector<std::string> PathDeclaration::unchecked() const {
    std::vector<std::string> result;
    for (const auto& line : lines) {
        if (!line.starts_with("/")) result.push_back(line);
    }
    return result;
}

PathFix PathFix::createFolder(std::string path, std::vector<std::string> levels) {
    PathFix fix;
    fix.kind = Kind::createFolder;
    fix.path = std::move(path);
    fix.parentExists = levels.size() <= 1;
    fix.levels = std::move(levels);
    return fix;
}

PathFix PathFix::removeDeclaration(std::string path, std::string file, std::vector<std::string> lines) {
    PathFix fix;
    fix.kind = Kind::removeDeclaration;
    fix.path = std::move(path);
    fix.file = std::move(file);
    fix.lines = std::move(lines);
    return fix;
}

std::string PathFix::word(std::string_view text) {
    static constexpr std::string_view safe = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+@%,:";
    if (!text.empty() && text.find_first_not_of(safe) == std::string_view::npos) return std::string(text);
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

namespace {
// The lines as one quoted word with real line ends in it: no backslash, so the command can travel
// inside a script string.
std::string contents(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return "printf '%s' " + PathFix::word(text);
}
} // namespace

std::string PathFix::recreate(const std::string& file, const std::vector<std::string>& lines) {
    return contents(lines) + " > " + word(file);
}

std::string PathFix::command() const {
    const auto w = word(path);
    if (kind == Kind::createFolder) {
        if (parentExists) return "mkdir " + w + " && chown root:wheel " + w + " && chmod 755 " + w;
        // Nothing is changed when the folder appeared after the list was read.
        std::string command = "test ! -e " + w + " && mkdir -p " + w;
        for (const auto& level : levels) command += " && chown root:wheel " + word(level) + " && chmod 755 " + word(level);
        return command;
    }
    // Deleted only while it still holds exactly what was read.
    return contents(lines) + " | cmp -s - " + word(file) + " && rm " + word(file);
}

bool PathEntry::isCryptex() const {
    return path.starts_with("/System/Cryptexes/") || path.starts_with("/var/run/com.apple.security.cryptexd/");
}

bool PathEntry::isSystemManaged() const {
    if (isCryptex() || facts.cameWithMacOS) return true;
    return std::any_of(sources.begin(), sources.end(), [](const std::string& file) {
        return file == "/etc/paths.d/10-cryptex" || file == "/etc/paths.d/100-rvictl";
    });
}

std::string PathEntry::sourceLabel() const {
    if (facts.addedByTavrick) return exists ? PathTexts::managedPresent : PathTexts::managedMissing;
    if (facts.cameWithMacOS) return "not created yet; came with macOS, which is normal";
    if (sources.empty()) return "not declared in a startup file";
    std::string label;
    for (const auto& source : sources) label += (label.empty() ? "" : ", ") + source;
    return label;
}

} // namespace tavrick

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// One file that lists search-path folders, and what became of each of them.
struct PathDeclaration {
    std::string file;
    std::vector<std::string> lines;
    std::optional<double> created;
    std::optional<std::string> owner;
    std::vector<std::string> missing;
    std::vector<std::string> waiting;
    std::vector<std::string> disconnected;
    bool operator==(const PathDeclaration&) const = default;

    std::vector<std::string> folders() const;    // the lines that are full paths
    std::vector<std::string> present() const;    // folders in none of the three lists
    std::vector<std::string> unchecked() const;  // the lines that are not full paths
};

struct PathFacts {
    std::optional<PathDeclaration> declaration;
    std::optional<std::string> nearestAncestor;
    std::optional<double> ancestorModified;
    bool ancestorIsShared = false;
    bool addedByTavrick = false;
    std::optional<std::string> brokenLink;
    std::optional<std::string> brokenLinkTarget;
    std::optional<double> cameWithMacOS;
    bool operator==(const PathFacts&) const = default;
};

// A fix that needs an administrator: making a missing installer folder, or deleting a
// declaration file that lists only folders that are gone.
struct PathFix {
    enum class Kind { createFolder, removeDeclaration };
    Kind kind = Kind::createFolder;
    std::string path;
    bool parentExists = false;
    // createFolder: every level that is made, shallowest first.
    std::vector<std::string> levels;
    // removeDeclaration: the file and the lines it held when read.
    std::string file;
    std::vector<std::string> lines;
    bool operator==(const PathFix&) const = default;

    static PathFix createFolder(std::string path, std::vector<std::string> levels);
    static PathFix removeDeclaration(std::string path, std::string file, std::vector<std::string> lines);

    // The shell command that carries the fix out.
    std::string command() const;
    // One shell word: as it is when every character is safe, else in single quotes.
    static std::string word(std::string_view text);
    // Writes `file` back with exactly `lines`.
    static std::string recreate(const std::string& file, const std::vector<std::string>& lines);
};

struct PathAdvice;

struct PathEntry {
    std::string path;
    std::vector<std::string> sources;
    bool exists = false;
    int occurrences = 1;
    PathFacts facts;
    bool operator==(const PathEntry&) const = default;

    bool isRelative() const { return !path.starts_with("/"); }
    bool isDuplicate() const { return occurrences > 1; }
    bool isCryptex() const;
    bool isSystemManaged() const;
    std::string sourceLabel() const;
    const std::string& id() const { return path; }
};

// The file system as the doctor sees it, so a whole diagnosis can run on a fake disk. Dates are
// seconds since 1970.
struct PathDisk {
    std::function<bool(const std::string&)> exists;
    std::function<std::optional<std::string>(const std::string&)> read;
    std::function<std::optional<double>(const std::string&)> created;
    std::function<std::optional<double>(const std::string&)> modified;
    std::function<std::optional<std::string>(const std::string&)> owner;
    std::function<std::optional<std::string>(const std::string&)> linkDestination;
    std::function<bool(const std::string&)> compressed;
    // The names in a folder, for /etc/paths.d.
    std::function<std::vector<std::string>(const std::string&)> list;
};

} // namespace tavrick

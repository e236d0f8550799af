#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "DevToolsKit/DiskReclaimProcess.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// A cache the program may empty itself: the folder stays, what is in it goes.
struct Reclaimable {
    std::string id;
    std::string title;
    std::string displayPath;
    std::string regenerates;
    bool emptiesContentsOnly = true;

    // `displayPath` with "~" as `home`.
    std::filesystem::path url(const std::filesystem::path& home) const;

    static const std::vector<Reclaimable>& all();
    // Strictly under home, two levels down at least, no link on the way, and a row of `all`:
    // nothing else is ever emptied.
    static bool isDeletable(const std::filesystem::path& url, const std::filesystem::path& home);

    friend bool operator==(const Reclaimable&, const Reclaimable&) = default;
};

// Cleaned by its own tool, never by deleting.
struct ToolCleanup {
    std::string id;
    std::string title;
    std::string tool;
    std::vector<std::string> arguments;
    std::string detail;

    std::string commandLine() const;
    static const std::vector<ToolCleanup>& all();
    // The entries whose tool is found.
    static std::vector<ToolCleanup> available(const ProgramLookup& lookup);
};

// Only told about: deleting these blindly loses something.
struct LargeItem {
    std::string id;
    std::string title;
    std::optional<std::string> displayPath;
    std::string detail;
    std::string advice;

    static const std::vector<LargeItem>& all();
};

namespace DiskReclaim {

// Allocated bytes under `url`, each inode once, without following a link or entering another
// file system; nothing when the path is not there.
std::optional<std::uint64_t> size(const std::filesystem::path& url);
// Empties the row's folder; the bytes freed, or nothing when refused.
std::optional<std::uint64_t> empty(const Reclaimable& item, const std::filesystem::path& home, DiagnosticLog& log);

} // namespace DiskReclaim

namespace ToolRunner {

// The folders searched when the login shell's path cannot be had.
std::vector<std::filesystem::path> fallbackPath(const std::filesystem::path& home);
std::string run(const ToolCleanup& cleanup, double timeout, const ProgramLookup& lookup, DiagnosticLog& log);

} // namespace ToolRunner

namespace LocalSnapshots {

struct Summary {
    int count = 0;
    std::optional<std::string> oldest;
    friend bool operator==(const Summary&, const Summary&) = default;
};

Summary parse(std::string_view text);
// Nothing when the snapshot tool is missing or stops at its time.
std::optional<Summary> read(double timeout, const ProgramLookup& lookup);

} // namespace LocalSnapshots

namespace SimulatorDevices {

// From `simctl list devices --json`: the devices whose state is "Booted".
int countBooted(std::string_view json);

} // namespace SimulatorDevices

} // namespace tavrick

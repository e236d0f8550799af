#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tavrick {

// Where a program is found, by its name: the developer tools ask the search path through this.
using ProgramLookup = std::function<std::optional<std::filesystem::path>(const std::string& name)>;

// A lookup in a fixed list of folders, for when no better search path is known.
ProgramLookup lookupInFolders(std::vector<std::filesystem::path> folders);
// A program asked for by its fixed path ("/usr/bin/git") or its name: the path itself when it
// is there, otherwise the same name in `folders`.
ProgramLookup lookupByPathOrName(std::vector<std::filesystem::path> folders);

// What a child program did: its output (standard output and error together), its exit status,
// and whether it ran past its time or never started.
struct ToolProcessResult {
    std::string output;
    int status = -1;
    bool timedOut = false;
    bool failedToStart = false;
    std::string startError;
};

// Runs `program` with `arguments`, no standard input, and waits at most `timeout` seconds;
// past that it is sent SIGTERM, then SIGKILL a second later. `environment` entries ("NAME=value")
// replace or add to the program's own. `onStart` hears the child's process id (also its process
// group), so another thread can end it early.
ToolProcessResult runToolProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                                 double timeout, const std::vector<std::string>& environment = {},
                                 const std::function<void(int processIdentifier)>& onStart = nullptr);

} // namespace tavrick

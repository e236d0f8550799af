#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "DevToolsKit/PathModel.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavrick {

// What running a child program gave.
struct ShellRun {
    enum class End { exited, timedOut, couldNotStart };
    End end = End::exited;
    int status = 0;
    std::string output;
};
// Runs `arguments` with no input, collecting standard output, and ends the whole process group
// once `timeout` seconds have passed.
using ShellRunner = std::function<ShellRun(const std::vector<std::string>& arguments, double timeout)>;

namespace PathDoctor {

using Disk = PathDisk;

constexpr std::string_view marker = "__TAVRICK_PATH__";
// The files the shell reads at login or for each interactive shell, looked at for PATH lines.
const std::vector<std::string>& startupFiles();  // relative to the home folder, "~/"-less

// The shell to ask: `SHELL`, else the account's shell, else "/bin/zsh".
std::string chooseShell(const char* environmentShell, const char* accountShell);
// The arguments that make a login shell print its PATH between two markers.
std::vector<std::string> shellArguments(const std::string& shell);
// The text between the first and the last marker.
std::optional<std::string> fenced(std::string_view output);
// The folders of a PATH value, empty items dropped.
std::vector<std::string> split(std::string_view value);
// The login shell's search path; nothing, and a note under "path", when it cannot be had.
std::optional<std::vector<std::string>> loginShellPath(const ShellRunner& run, const std::string& shell,
                                                       double timeout, DiagnosticLog* log);

// One entry a distinct folder, first-seen order, with how often it occurs.
std::vector<PathEntry> entries(const std::vector<std::string>& path,
                               const std::map<std::string, std::vector<std::string>>& declaredIn,
                               const std::function<bool(const std::string&)>& fileExists);
// Folder → the files that list it: /etc/paths, each /etc/paths.d file in sorted order, then the
// startup files.
std::map<std::string, std::vector<std::string>> declarations(const std::string& home, const PathDisk& disk);
// The folders a startup file puts on the path, with $HOME, ${HOME} and ~/ expanded.
std::vector<std::string> foldersInStartupFile(std::string_view text, const std::string& home);
std::optional<PathDeclaration> declaration(const std::string& file, const std::string& home, const PathDisk& disk);
std::vector<PathEntry> withFacts(std::vector<PathEntry> entries, const std::set<std::string>& managed,
                                 const std::string& home, const PathDisk& disk);

bool isShared(const std::string& path, const std::string& home);
std::optional<std::string> disconnectedVolume(const std::string& path, const std::optional<std::string>& nearestAncestor);
std::vector<std::string> levelsToCreate(const std::string& path, const std::string& below);
std::optional<std::string> parent(const std::string& path);

} // namespace PathDoctor

} // namespace tavrick

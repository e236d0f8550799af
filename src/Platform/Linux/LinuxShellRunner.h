#pragma once

#include "DevToolsKit/PathDoctor.h"

#include <cstddef>

namespace tavrick {

namespace LinuxShellRunner {

// Output beyond this is not kept: a startup file that prints megabytes must not hold them all.
constexpr std::size_t outputCap = 4 * 1024 * 1024;

// Runs the program in a process group of its own, standard input from /dev/null, standard
// error discarded. At the timeout the whole group is killed, so a startup file's background
// children go with the shell.
ShellRun run(const std::vector<std::string>& arguments, double timeout);

// The shell to ask for the search path: SHELL, else the account's shell, else /bin/zsh.
std::string loginShell();

} // namespace LinuxShellRunner

// The doctor's view of the real file system.
PathDisk livePathDisk();

} // namespace tavrick

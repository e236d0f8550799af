#pragma once

#include "AwakeKit/ProcessWatcher.h"

#include <filesystem>

namespace tavrick {

// Applications as Linux processes: an application's identifier is its executable's name (the
// file name of /proc/<pid>/exe, or the process name where that link cannot be read). An exit is
// watched through a pidfd, which names one process and never its successor; on a kernel without
// pidfds /proc is polled, with the start time telling a reused id apart.
class LinuxProcessWatcher final : public ProcessWatcher {
public:
    static constexpr double fallbackPollSeconds = 0.5;

    explicit LinuxProcessWatcher(std::filesystem::path procRoot = "/proc", bool usePidfd = true);

    std::optional<Instance> find(const std::string& bundleID) override;
    std::unique_ptr<Watch> watchExit(const Instance& instance, std::function<void()> onExit) override;

    // The start time of a live process (field 22 of its stat line), nothing when it is gone or a
    // zombie.
    static std::optional<unsigned long long> startTime(const std::filesystem::path& procRoot, pid_t pid);

private:
    std::filesystem::path procRoot_;
    bool usePidfd_;
};

} // namespace tavrick

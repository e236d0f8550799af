#include "Platform/Linux/LinuxProcessWatcher.h"

#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <sstream>
#include <system_error>
#include <thread>

namespace tavrick {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> readTrimmed(const fs::path& path) {
    int error = 0;
    auto text = FileIO::readAll(path, error);
    if (!text) return std::nullopt;
    while (!text->empty() && (text->back() == '\n' || text->back() == ' ')) text->pop_back();
    return text;
}

int openPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    errno = ENOSYS;
    return -1;
#endif
}

// One thread waiting on the process and on a wake-up that ends the watch early.
class ThreadWatch final : public ProcessWatcher::Watch {
public:
    ThreadWatch(fs::path procRoot, ProcessWatcher::Instance instance, int pidfd, std::function<void()> onExit)
        : wake_(::eventfd(0, EFD_CLOEXEC)), pidfd_(pidfd) {
        thread_ = std::thread([this, procRoot = std::move(procRoot), instance, onExit = std::move(onExit)] {
            if (waitForExit(procRoot, instance) && onExit) onExit();
        });
    }
    ~ThreadWatch() override {
        const std::uint64_t one = 1;
        if (wake_ >= 0) (void)!::write(wake_, &one, sizeof one);
        stopping_ = true;
        if (thread_.joinable()) thread_.join();
        if (pidfd_ >= 0) ::close(pidfd_);
        if (wake_ >= 0) ::close(wake_);
    }

private:
    // True when the process ended, false when the watch was ended first.
    bool waitForExit(const fs::path& procRoot, const ProcessWatcher::Instance& instance) {
        const int timeoutMs = pidfd_ >= 0 ? -1 : static_cast<int>(LinuxProcessWatcher::fallbackPollSeconds * 1000);
        for (;;) {
            if (pidfd_ < 0 && LinuxProcessWatcher::startTime(procRoot, instance.pid) != instance.startTime) return true;
            pollfd fds[2] = {{wake_, POLLIN, 0}, {pidfd_, POLLIN, 0}};
            const int count = ::poll(fds, pidfd_ >= 0 ? 2 : 1, timeoutMs);
            if (stopping_ || (count > 0 && (fds[0].revents & POLLIN))) return false;
            if (count < 0 && errno != EINTR) return !stopping_;
            if (pidfd_ >= 0 && count > 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) return true;
        }
    }

    int wake_;
    int pidfd_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

} // namespace

LinuxProcessWatcher::LinuxProcessWatcher(fs::path procRoot, bool usePidfd) : procRoot_(std::move(procRoot)), usePidfd_(usePidfd) {}

std::optional<unsigned long long> LinuxProcessWatcher::startTime(const fs::path& procRoot, pid_t pid) {
    auto stat = readTrimmed(procRoot / std::to_string(pid) / "stat");
    if (!stat) return std::nullopt;
    // The name in parentheses may hold blanks and parentheses; the fields start after the last ')'.
    const auto close = stat->rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(stat->substr(close + 1));
    std::string field;
    // Field 3 is the state; field 22 the start time.
    for (int index = 3; index <= 22 && (fields >> field); ++index) {
        if (index == 3 && (field == "Z" || field == "X")) return std::nullopt;
        if (index == 22) {
            unsigned long long value = 0;
            auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
            if (error != std::errc()) return std::nullopt;
            return value;
        }
    }
    return std::nullopt;
}

std::optional<ProcessWatcher::Instance> LinuxProcessWatcher::find(const std::string& bundleID) {
    if (bundleID.empty()) return std::nullopt;
    std::optional<Instance> oldest;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(procRoot_, error)) {
        const auto name = entry.path().filename().string();
        pid_t pid = 0;
        auto [end, parseError] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (parseError != std::errc() || end != name.data() + name.size()) continue;
        std::error_code linkError;
        auto exe = fs::read_symlink(entry.path() / "exe", linkError);
        std::string executable = linkError ? readTrimmed(entry.path() / "comm").value_or("") : exe.filename().string();
        // A replaced executable reads "name (deleted)".
        if (const auto deleted = executable.find(" (deleted)"); deleted != std::string::npos) executable.resize(deleted);
        if (executable != bundleID) continue;
        auto started = startTime(procRoot_, pid);
        if (!started) continue;
        if (!oldest || *started < oldest->startTime) oldest = Instance{pid, *started};
    }
    return oldest;
}

std::unique_ptr<ProcessWatcher::Watch> LinuxProcessWatcher::watchExit(const Instance& instance,
                                                                       std::function<void()> onExit) {
    int pidfd = -1;
    if (usePidfd_) {
        pidfd = openPidfd(instance.pid);
        if (pidfd < 0 && errno == ESRCH) {
            // Gone before it could be watched.
            if (onExit) onExit();
            return std::make_unique<Watch>();
        }
        if (pidfd < 0) Log::awake.info("No pidfd for %d (%s); polling /proc", instance.pid, std::strerror(errno));
        // The id may already belong to a later process: the pidfd would then watch the wrong one.
        if (pidfd >= 0 && startTime(procRoot_, instance.pid) != instance.startTime) {
            ::close(pidfd);
            if (onExit) onExit();
            return std::make_unique<Watch>();
        }
    }
    return std::make_unique<ThreadWatch>(procRoot_, instance, pidfd, std::move(onExit));
}

} // namespace tavrick

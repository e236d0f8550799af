// These prove the real thing: a child process that the test starts and ends, watched through the
// kernel.
#include "Platform/Linux/LinuxProcessWatcher.h"
#include "Support/Eventually.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

using namespace tavrick;
using namespace tavrick::testing;

namespace {

// A copy of sleep under a name of its own, so nothing else on the machine matches it.
class Sleeper {
public:
    explicit Sleeper(const TempDir& root, const std::string& name) : path_(root / name) {
        std::filesystem::copy_file("/bin/sleep", path_);
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
    }
    pid_t spawn() {
        pid_t pid = ::fork();
        if (pid == 0) {
            ::execl(path_.c_str(), path_.c_str(), "30", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        pids_.push_back(pid);
        return pid;
    }
    static void end(pid_t pid) {
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
    }
    ~Sleeper() {
        for (auto pid : pids_) {
            if (::kill(pid, 0) == 0) end(pid);
        }
    }

private:
    std::filesystem::path path_;
    std::vector<pid_t> pids_;
};

std::string uniqueName() { return "tavrick-sleeper-" + std::to_string(::getpid()); }

} // namespace

TEST(LinuxProcessWatcher, FindsTheOldestInstanceByExecutableName) {
    TempDir root;
    Sleeper sleeper(root, uniqueName());
    LinuxProcessWatcher watcher;
    EXPECT_EQ(watcher.find(uniqueName()), std::nullopt);
    const pid_t first = sleeper.spawn();
    ASSERT_TRUE(eventually([&] { return watcher.find(uniqueName()).has_value(); }));
    // The second one starts at least one clock tick later, so the first stays the oldest.
    ::usleep(20000);
    sleeper.spawn();
    ASSERT_TRUE(eventually([&] { return watcher.find(uniqueName())->pid == first; }));
    EXPECT_EQ(watcher.find(uniqueName())->startTime, LinuxProcessWatcher::startTime("/proc", first));
    EXPECT_EQ(watcher.find(""), std::nullopt);
}

TEST(LinuxProcessWatcher, ReportsTheExitOnceThroughEitherRoadAndNotAfterTheWatchEnds) {
    for (bool pidfd : {true, false}) {
        TempDir root;
        Sleeper sleeper(root, uniqueName());
        LinuxProcessWatcher watcher("/proc", pidfd);
        const pid_t pid = sleeper.spawn(), dropped = sleeper.spawn();
        ASSERT_TRUE(eventually([&] { return watcher.find(uniqueName()).has_value(); }));
        std::atomic<int> exits = 0, droppedExits = 0;
        auto watch = watcher.watchExit({pid, *LinuxProcessWatcher::startTime("/proc", pid)}, [&] { ++exits; });
        watcher.watchExit({dropped, *LinuxProcessWatcher::startTime("/proc", dropped)}, [&] { ++droppedExits; }).reset();
        Sleeper::end(dropped);
        ::usleep(50000);
        EXPECT_EQ(exits, 0) << (pidfd ? "pidfd" : "polling");
        Sleeper::end(pid);
        EXPECT_TRUE(eventually([&] { return exits == 1; })) << (pidfd ? "pidfd" : "polling");
        watch.reset();
        EXPECT_EQ(exits, 1);
        EXPECT_EQ(droppedExits, 0);
    }
}

TEST(LinuxProcessWatcher, AProcessGoneBeforeTheWatchOrReplacedIsReportedAtOnce) {
    TempDir root;
    Sleeper sleeper(root, uniqueName());
    LinuxProcessWatcher watcher;
    const pid_t pid = sleeper.spawn();
    ASSERT_TRUE(eventually([&] { return watcher.find(uniqueName()).has_value(); }));
    const auto instance = *watcher.find(uniqueName());
    Sleeper::end(pid);
    std::atomic<int> exits = 0;
    auto watch = watcher.watchExit(instance, [&] { ++exits; });
    EXPECT_TRUE(eventually([&] { return exits == 1; }));

    // The same id with another start time is someone else: our process has ended.
    const pid_t self = ::getpid();
    auto stranger = ProcessWatcher::Instance{self, *LinuxProcessWatcher::startTime("/proc", self) + 1};
    for (bool pidfd : {true, false}) {
        std::atomic<int> reused = 0;
        auto other = LinuxProcessWatcher("/proc", pidfd).watchExit(stranger, [&] { ++reused; });
        EXPECT_TRUE(eventually([&] { return reused == 1; })) << pidfd;
    }
}

TEST(LinuxProcessWatcher, StartTimeSkipsNamesWithParenthesesAndZombies) {
    TempDir proc;
    writeFile(proc / "7/stat", "7 (weird) name)) S 1 7 7 0 -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 123456 1 1");
    writeFile(proc / "8/stat", "8 (gone) Z 1 8 8 0 -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 99 1 1");
    writeFile(proc / "9/stat", "9 (short) S 1 9");
    EXPECT_EQ(LinuxProcessWatcher::startTime(proc.path(), 7), 123456u);
    EXPECT_EQ(LinuxProcessWatcher::startTime(proc.path(), 8), std::nullopt);
    EXPECT_EQ(LinuxProcessWatcher::startTime(proc.path(), 9), std::nullopt);
    EXPECT_EQ(LinuxProcessWatcher::startTime(proc.path(), 10), std::nullopt);
}

#include "Platform/Linux/LinuxShellRunner.h"

#include "CoreKit/FileIO.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace tavrick {

namespace LinuxShellRunner {

ShellRun run(const std::vector<std::string>& arguments, double timeout) {
    ShellRun result;
    if (arguments.empty()) {
        result.end = ShellRun::End::couldNotStart;
        return result;
    }
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        result.end = ShellRun::End::couldNotStart;
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int spawned = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(pipeFds[1]);
    if (spawned != 0) {
        close(pipeFds[0]);
        result.end = ShellRun::End::couldNotStart;
        return result;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
    bool open = true, timedOut = false;
    char buffer[65536];
    while (open) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) {
            timedOut = true;
            break;
        }
        pollfd fd{pipeFds[0], POLLIN, 0};
        int ready = poll(&fd, 1, static_cast<int>(std::min<long long>(left, 50)));
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) {
            // A background child of a startup file may hold the output open after the shell has
            // answered and gone: the shell's end, not the pipe's, is what counts.
            siginfo_t info{};
            if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid) {
                // What it wrote just before it went is still in the pipe.
                while (std::chrono::steady_clock::now() < deadline && poll(&fd, 1, 0) > 0 && (fd.revents & POLLIN)) {
                    auto length = read(pipeFds[0], buffer, sizeof buffer);
                    if (length <= 0) break;
                    auto room = outputCap - std::min(outputCap, result.output.size());
                    result.output.append(buffer, std::min(room, static_cast<std::size_t>(length)));
                }
                break;
            }
            continue;
        }
        auto length = read(pipeFds[0], buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) {
            open = false;
            break;
        }
        auto room = outputCap - std::min(outputCap, result.output.size());
        result.output.append(buffer, std::min(room, static_cast<std::size_t>(length)));
    }
    close(pipeFds[0]);
    int status = 0;
    if (!timedOut) {
        // Output closed: wait for the exit, still within the deadline, without reaping yet, so the
        // group's number cannot pass to anyone else before the group is cleared below.
        while (true) {
            siginfo_t info{};
            int waited = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
            if (waited == 0 && info.si_pid == pid) break;
            if (waited < 0 && errno != EINTR) break;
            if (std::chrono::steady_clock::now() >= deadline) {
                timedOut = true;
                break;
            }
            usleep(2000);
        }
    }
    // Whatever the shell left running in its group has no business outliving it.
    kill(-pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timedOut) {
        result.end = ShellRun::End::timedOut;
        return result;
    }
    if (WIFEXITED(status)) {
        result.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.status = 128 + WTERMSIG(status);
    }
    return result;
}

std::string loginShell() {
    const char* account = nullptr;
    if (auto* entry = getpwuid(getuid())) account = entry->pw_shell;
    return PathDoctor::chooseShell(std::getenv("SHELL"), account);
}

} // namespace LinuxShellRunner

PathDisk livePathDisk() {
    namespace fs = std::filesystem;
    auto statOf = [](const std::string& path, struct stat& info) { return ::stat(path.c_str(), &info) == 0; };
    return PathDisk{
        .exists = [](const std::string& path) {
            std::error_code code;
            return fs::exists(path, code);
        },
        .read = [](const std::string& path) -> std::optional<std::string> {
            int error = 0;
            return FileIO::readAll(path, error);
        },
        .created = [](const std::string& path) -> std::optional<double> {
            struct statx info {};
            if (statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &info) != 0 || !(info.stx_mask & STATX_BTIME)) return std::nullopt;
            return static_cast<double>(info.stx_btime.tv_sec) + info.stx_btime.tv_nsec / 1e9;
        },
        .modified = [statOf](const std::string& path) -> std::optional<double> {
            struct stat info {};
            if (!statOf(path, info)) return std::nullopt;
            return static_cast<double>(info.st_mtim.tv_sec) + info.st_mtim.tv_nsec / 1e9;
        },
        .owner = [statOf](const std::string& path) -> std::optional<std::string> {
            struct stat info {};
            if (!statOf(path, info)) return std::nullopt;
            if (auto* entry = getpwuid(info.st_uid)) return std::string(entry->pw_name);
            return std::to_string(info.st_uid);
        },
        .linkDestination = [](const std::string& path) -> std::optional<std::string> {
            std::error_code code;
            if (!fs::is_symlink(fs::symlink_status(path, code))) return std::nullopt;
            auto target = fs::read_symlink(path, code);
            if (code) return std::nullopt;
            return target.string();
        },
        // Linux file systems have no installer-compressed files of the kind the check looks for.
        .compressed = [](const std::string&) { return false; },
        .list = [](const std::string& folder) {
            std::vector<std::string> names;
            std::error_code code;
            for (const auto& entry : fs::directory_iterator(folder, code)) names.push_back(entry.path().filename().string());
            return names;
        },
    };
}

} // namespace tavrick

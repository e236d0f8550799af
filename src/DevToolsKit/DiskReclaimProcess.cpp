#include "DevToolsKit/DiskReclaimProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string_view>
#include <cstring>

extern char** environ;

namespace tavrick {

ProgramLookup lookupInFolders(std::vector<std::filesystem::path> folders) {
    return [folders = std::move(folders)](const std::string& name) -> std::optional<std::filesystem::path> {
        if (name.empty()) return std::nullopt;
        if (name.front() == '/') {
            if (::access(name.c_str(), X_OK) == 0) return std::filesystem::path(name);
            return std::nullopt;
        }
        for (const auto& folder : folders) {
            auto candidate = folder / name;
            std::error_code error;
            if (std::filesystem::is_regular_file(candidate, error) && ::access(candidate.c_str(), X_OK) == 0) {
                return candidate;
            }
        }
        return std::nullopt;
    };
}

ProgramLookup lookupByPathOrName(std::vector<std::filesystem::path> folders) {
    auto inFolders = lookupInFolders(std::move(folders));
    return [inFolders](const std::string& name) -> std::optional<std::filesystem::path> {
        if (name.empty()) return std::nullopt;
        if (name.front() == '/' && ::access(name.c_str(), X_OK) == 0) return std::filesystem::path(name);
        return inFolders(std::filesystem::path(name).filename().string());
    };
}

namespace {
double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
} // namespace

ToolProcessResult runToolProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                                 double timeout, const std::vector<std::string>& environment,
                                 const std::function<void(int processIdentifier)>& onStart) {
    ToolProcessResult result;
    int pipeEnds[2];
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
        result.failedToStart = true;
        result.startError = std::strerror(errno);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Its own process group, so a timeout stops what it started too.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);

    std::vector<std::string> argvStrings{program.string()};
    argvStrings.insert(argvStrings.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& a : argvStrings) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    auto overridden = [&](std::string_view entry) {
        auto name = entry.substr(0, entry.find('=') + 1);
        return std::any_of(environment.begin(), environment.end(),
                           [&](const std::string& mine) { return mine.starts_with(name); });
    };
    for (char** e = environ; e && *e; ++e) {
        if (!overridden(*e)) envStrings.emplace_back(*e);
    }
    envStrings.insert(envStrings.end(), environment.begin(), environment.end());
    std::vector<char*> envp;
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_t pid = 0;
    int spawned = ::posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(pipeEnds[1]);
    if (spawned != 0) {
        ::close(pipeEnds[0]);
        result.failedToStart = true;
        result.startError = std::strerror(spawned);
        return result;
    }

    if (onStart) onStart(pid);
    double deadline = now() + timeout;
    double killAt = 0;
    char buffer[4096];
    while (true) {
        double left = (killAt > 0 ? killAt : deadline) - now();
        if (left <= 0) {
            if (killAt == 0) {
                result.timedOut = true;
                ::kill(-pid, SIGTERM);
                killAt = now() + 1.0;
                continue;
            }
            ::kill(-pid, SIGKILL);
            break;
        }
        pollfd entry{pipeEnds[0], POLLIN, 0};
        int ready = ::poll(&entry, 1, static_cast<int>(left * 1000) + 1);
        if (ready < 0 && errno != EINTR) break;
        if (ready <= 0) continue;
        ssize_t count = ::read(pipeEnds[0], buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        // Output is bounded: a chatty tool does not fill the memory.
        if (result.output.size() < (1u << 20)) result.output.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(pipeEnds[0]);
    int status = 0;
    if (killAt > 0) ::kill(-pid, SIGKILL);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status)) result.status = 128 + WTERMSIG(status);
    return result;
}

} // namespace tavrick

#include "Support/Process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace tavrick::testing {

namespace {
double nowSeconds() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}
} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::vector<std::string> envStrings;
    for (const auto& [key, value] : environment) envStrings.push_back(key + "=" + value);
    std::vector<char*> argv, envp;
    for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (auto& e : envStrings) envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        // The test runner may have blocked signals; the child starts with none blocked.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(pipeFds[1], STDOUT_FILENO);
        dup2(pipeFds[1], STDERR_FILENO);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(pipeFds[1]);
    out_ = pipeFds[0];
}

ChildProcess::~ChildProcess() {
    if (!status_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
    if (out_ >= 0) close(out_);
}

bool ChildProcess::readSome(int timeoutMs) {
    pollfd p{out_, POLLIN, 0};
    int ready = poll(&p, 1, timeoutMs);
    if (ready <= 0) return false;
    char buffer[4096];
    ssize_t n = read(out_, buffer, sizeof buffer);
    if (n <= 0) return false;
    output_.append(buffer, static_cast<std::size_t>(n));
    return true;
}

bool ChildProcess::waitForOutput(const std::string& text, double timeoutSeconds) {
    const double deadline = nowSeconds() + timeoutSeconds;
    while (output_.find(text) == std::string::npos) {
        double left = deadline - nowSeconds();
        if (left <= 0) return false;
        if (!readSome(static_cast<int>(std::min(left, 0.1) * 1000) + 1)) {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                while (readSome(0)) {
                }
                return output_.find(text) != std::string::npos;
            }
        }
    }
    return true;
}

void ChildProcess::signal(int signalNumber) {
    if (!status_) kill(pid_, signalNumber);
}

std::optional<int> ChildProcess::wait(double timeoutSeconds) {
    const double deadline = nowSeconds() + timeoutSeconds;
    while (!status_) {
        while (readSome(20)) {
        }
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (nowSeconds() > deadline) return std::nullopt;
    }
    while (readSome(0)) {
    }
    return status_;
}

ProcessResult runProcess(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment, double timeoutSeconds) {
    ChildProcess child(arguments, environment);
    ProcessResult result;
    auto status = child.wait(timeoutSeconds);
    if (!status) {
        child.signal(SIGKILL);
        status = child.wait(5);
    }
    result.status = status.value_or(-1);
    result.output = child.output();
    return result;
}

std::map<std::string, std::string> isolatedEnvironment(const std::filesystem::path& root) {
    std::map<std::string, std::string> environment = {
        {"HOME", (root / "home").string()},
        {"XDG_DATA_HOME", (root / "data").string()},
        {"XDG_CONFIG_HOME", (root / "config").string()},
        {"PATH", "/usr/bin:/bin"},
        {"TZ", "UTC"},
        {"LANG", "C.UTF-8"},
    };
    // Sanitizer settings travel to the child so that it reports the same way the tests do.
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) environment[name] = value;
    }
    return environment;
}

} // namespace tavrick::testing

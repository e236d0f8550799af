#include "Support/Unprivileged.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace tavrick::testing {

namespace {
constexpr uid_t nobody = 65534;

void chownTree(const std::filesystem::path& tree) {
    if (::lchown(tree.c_str(), nobody, nobody) != 0) throw std::runtime_error("lchown failed: " + tree.string());
    for (const auto& entry : std::filesystem::recursive_directory_iterator(tree)) {
        if (::lchown(entry.path().c_str(), nobody, nobody) != 0) {
            throw std::runtime_error("lchown failed: " + entry.path().string());
        }
    }
}
} // namespace

int runUnprivileged(const std::filesystem::path& tree, const std::function<int()>& action) {
    const bool root = ::geteuid() == 0;
    if (root) chownTree(tree);
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (root && (::setgroups(0, nullptr) != 0 || ::setresgid(nobody, nobody, nobody) != 0 ||
                     ::setresuid(nobody, nobody, nobody) != 0)) {
            ::_exit(125);
        }
        int result = 126;
        try {
            result = action();
        } catch (...) {
        }
        ::_exit(result);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace tavrick::testing

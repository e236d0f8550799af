#include "CoreKit/FileIO.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavrick::FileIO {

std::optional<std::string> readAll(const std::filesystem::path& path, int& error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return std::nullopt;
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) continue;
            error = errno;
            ::close(fd);
            return std::nullopt;
        }
        if (count == 0) break;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(fd);
    return text;
}

std::optional<WriteFailure> writeAtomically(const std::filesystem::path& path, std::string_view text,
                                            mode_t newFileMode) {
    // Hidden, beside the target, so the rename stays on one file system.
    std::string hiddenName = ".";
    hiddenName.append(path.filename().string()).append(".XXXXXX");
    std::string temporary = (path.parent_path() / hiddenName).string();
    int fd = ::mkstemp(temporary.data());
    if (fd < 0) return WriteFailure{"create a temporary file for", errno};
    auto fail = [&](const char* step, int error) {
        if (fd >= 0) ::close(fd);
        ::unlink(temporary.c_str());
        return WriteFailure{step, error};
    };
    struct stat existing {};
    mode_t mode = ::stat(path.c_str(), &existing) == 0 ? (existing.st_mode & 07777) : newFileMode;
    if (::fchmod(fd, mode) != 0) return fail("set the permissions of", errno);
    std::size_t offset = 0;
    while (offset < text.size()) {
        ssize_t count = ::write(fd, text.data() + offset, text.size() - offset);
        if (count < 0) {
            if (errno == EINTR) continue;
            return fail("write", errno);
        }
        offset += static_cast<std::size_t>(count);
    }
    if (::fsync(fd) != 0) return fail("flush", errno);
    int closed = ::close(fd);
    fd = -1;
    if (closed != 0) return fail("close", errno);
    if (::rename(temporary.c_str(), path.c_str()) != 0) return fail("replace", errno);
    if (int directory = ::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); directory >= 0) {
        ::fsync(directory);
        ::close(directory);
    }
    return std::nullopt;
}

std::optional<std::filesystem::path> moveAside(const std::filesystem::path& path, long long seconds, int& error) {
    const std::string base = path.string() + ".corrupt-" + std::to_string(seconds);
    std::filesystem::path target = base;
    auto taken = [](const std::filesystem::path& candidate) {
        std::error_code ignored;
        return std::filesystem::exists(std::filesystem::symlink_status(candidate, ignored));
    };
    for (int suffix = 2; taken(target); ++suffix) target = base + "-" + std::to_string(suffix);
    if (::rename(path.c_str(), target.c_str()) != 0) {
        error = errno;
        return std::nullopt;
    }
    return target;
}

} // namespace tavrick::FileIO

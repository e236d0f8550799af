#include "Tavrick/BackupFile.h"

#include "CoreKit/FileIO.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavrick::BackupFile {

std::optional<std::string> write(const Archive& archive, const std::filesystem::path& url) {
    return writeText(ArchiveFile::encode(archive), url);
}

std::optional<std::string> writeText(const std::string& text, const std::filesystem::path& url) {
    const std::string path = url.string();
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST) {
            return "The backup could not be created at " + path + ": " + std::strerror(errno) + ".";
        }
        if (fd >= 0) ::close(fd);
    }
    // The replacement takes the permissions of the file it replaces, so those go first.
    if (::chmod(path.c_str(), 0600) != 0) {
        return "The backup could not be kept private at " + path + ": " + std::strerror(errno) + ".";
    }
    if (auto failure = FileIO::writeAtomically(url, text, 0600)) {
        return "The backup could not be written (" + failure->step + " " + path + "): " + std::strerror(failure->error) +
               ".";
    }
    if (::chmod(path.c_str(), 0600) != 0) {
        return "The backup was written, but its permissions could not be limited to you: " +
               std::string(std::strerror(errno)) + ".";
    }
    return std::nullopt;
}

} // namespace tavrick::BackupFile

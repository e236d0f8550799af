#pragma once

#include <filesystem>
#include <string>

namespace tavrick::testing {

// A fresh directory under the system's temporary directory, removed with everything in it when
// the test ends.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& contents);

// Installs user directories under `root` ("data" and "config") and the build's bundle, so that
// code asking for the support directory or a resource gets a temporary one.
void installTestPlatform(const std::filesystem::path& root);

} // namespace tavrick::testing

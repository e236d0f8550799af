#include "Support/TempDir.h"

#include "CoreKit/Bundle.h"
#include "CoreKit/Directories.h"
#include "Platform/Linux/LinuxBundle.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tavrick::testing {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tavrick-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code error;
    // A test may have taken permissions away to provoke a failure; give them back first.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, error);
    }
    std::filesystem::remove_all(path_, error);
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const std::filesystem::path& path, const std::string& contents) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

namespace {
class FixedDirectories final : public Directories {
public:
    explicit FixedDirectories(std::filesystem::path root) : root_(std::move(root)) {}
    std::filesystem::path applicationSupport() const override { return root_ / "data"; }
    std::filesystem::path preferences() const override { return root_ / "config"; }

private:
    std::filesystem::path root_;
};
} // namespace

void installTestPlatform(const std::filesystem::path& root) {
    Directories::install(std::make_shared<FixedDirectories>(root));
    Bundle::setMain(std::make_shared<LinuxBundle>());
}

} // namespace tavrick::testing

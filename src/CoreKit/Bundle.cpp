#include "CoreKit/Bundle.h"
#include "CoreKit/AppInfo.h"
#include "CoreKit/Directories.h"

#include <mutex>
#include <stdexcept>

namespace tavrick {

namespace {

class EmptyBundle final : public Bundle {
public:
    std::optional<std::string> identifier() const override { return std::nullopt; }
    std::optional<std::string> infoString(const std::string&) const override { return std::nullopt; }
    std::optional<std::filesystem::path> resourcePath(const std::string&) const override { return std::nullopt; }
    std::filesystem::path bundlePath() const override { return {}; }
};

std::mutex installMutex;
std::shared_ptr<const Bundle> mainBundle = std::make_shared<EmptyBundle>();
std::shared_ptr<const Directories> installedDirectories;

} // namespace

const Bundle& Bundle::main() {
    std::lock_guard lock(installMutex);
    return *mainBundle;
}

void Bundle::setMain(std::shared_ptr<const Bundle> bundle) {
    std::lock_guard lock(installMutex);
    mainBundle = bundle ? std::move(bundle) : std::make_shared<EmptyBundle>();
}

const Directories& Directories::current() {
    std::lock_guard lock(installMutex);
    if (!installedDirectories) throw std::logic_error("No user directories are installed");
    return *installedDirectories;
}

void Directories::install(std::shared_ptr<const Directories> directories) {
    std::lock_guard lock(installMutex);
    installedDirectories = std::move(directories);
}

std::filesystem::path supportDirectory() {
    return Directories::current().applicationSupport() / AppInfo::bundleIdentifier();
}

} // namespace tavrick
